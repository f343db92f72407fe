// A platform that keeps account of itself: which limits are in force, what is open, what the files hold. Any of its
// operations can be made to fail at its n-th call.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace sweep {

/// How a call fails. `kHalf` differs where an operation can do a part of its work: a reconcile that keeps one
/// controller, a file of which half is written, a refusal that the module puts on record.
enum class Failure { kWhole, kHalf };

struct Fault {
    int call = 0;  ///< 1: the first call that can fail
    Failure how = Failure::kWhole;
};

/// The scripted platform of the running test, with a memory.
/// Lifetime: while it lives it answers for the platform; ResetPlatform before and after.
class FaultyWorld {
public:
    explicit FaultyWorld(bool version2) : m_version2(version2) {}
    ~FaultyWorld();
    FaultyWorld(const FaultyWorld&) = delete;
    FaultyWorld& operator=(const FaultyWorld&) = delete;

    void Attach();
    /// The calls with these numbers fail, counted from now on.
    void FailAt(std::vector<Fault> faults);
    /// While it is on, nothing fails and nothing is counted.
    void Hold(bool on) { m_held = on; }
    /// Calls since then that could have failed.
    int Calls() const { return m_calls; }
    /// Names of the operations that did fail, in order.
    const std::vector<std::string>& Failed() const { return m_failed; }

    // What holds, whoever believes otherwise.
    bool unifiedCpu = false, unifiedMem = false;  ///< the manager's controllers
    bool legacyCpu = false, legacyMem = false;    ///< what the utility holds the process by
    bool inMainGroup = false;
    bool joined = false;  ///< the client, by the component file
    int timers = 0;
    bool sampling = false;
    bool watching = false;  ///< the thread of the OS abnormal monitor

    /// What is left open when everything should be closed; empty: nothing.
    std::string Left() const;

private:
    using Handler = void (FaultyWorld::*)(bool fails, Failure how, const std::string& arguments);
    static const std::map<std::string, Handler>& Handlers();

    void See(const std::string& line);
    bool IsDue(Failure& how);
    void Reconcile(bool fails, Failure how, const std::string& arguments);
    void AddPid(bool fails, Failure how, const std::string& arguments);
    void RemovePid(bool fails, Failure how, const std::string& arguments);
    void StartCpu(bool fails, Failure how, const std::string& arguments);
    void StopCpu(bool fails, Failure how, const std::string& arguments);
    void PrepareMem(bool fails, Failure how, const std::string& arguments);
    void StartMem(bool fails, Failure how, const std::string& arguments);
    void StopMem(bool fails, Failure how, const std::string& arguments);
    void Reload(bool fails, Failure how, const std::string& arguments);
    void IsFile(bool fails, Failure how, const std::string& path);
    void WriteFile(bool fails, Failure how, const std::string& arguments);
    void Rename(bool fails, Failure how, const std::string& from);
    void Simple(bool fails, Failure how, const std::string& arguments);
    void HideFor1Call(const std::string& path);
    void Tell();

    const bool m_version2;
    bool m_parentCpu = false, m_parentMem = false;
    std::string m_name;  // of the operation that is being answered
    int m_calls = 0;
    bool m_held = false;
    std::vector<Fault> m_faults;
    std::vector<std::string> m_failed;
    std::function<void()> m_putBack;
};

}  // namespace sweep
