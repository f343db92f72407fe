// Stands between a program, with all that it starts, and the kernel: calls of the kinds that can fail are shown to a
// judge first, who lets them through, has them fail, has them done by half or ends the program there. The kernel asks
// (seccomp's user notification), so a call is met whichever library makes it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct seccomp_notif;

namespace sweep {

/// One call that is about to be made.
struct Call {
    pid_t process = 0;
    std::string kind;  ///< "write"
    std::string what;  ///< whose: its path, without the test's directory and with # for numbers
    int nth = 0;       ///< among those of the same process, kind and path, 1 first

    /// The same in every run.
    std::string Key() const { return kind + " " + what; }
};

struct Verdict {
    enum class How { kLet, kFail, kHalf, kKill };
    How how = How::kLet;
    int error = 0;
};

/// Whether a call of this kind changes what is on the disk or in a group.
bool IsChange(const std::string& kind);
/// Errors with which a call of this kind is known to fail.
std::vector<int> ErrorsOf(const std::string& kind);

/// Thread-safety: one thread; the judge is entered by the gate's own.
/// Lifetime: longer than the program; without it calls fail with ENOSYS.
class CallGate {
public:
    using Judge = std::function<Verdict(const Call&)>;

    /// `kinds` are those that are shown; `directory` is cut off the paths.
    CallGate(std::vector<std::string> kinds, std::string directory, Judge judge);
    ~CallGate();
    CallGate(const CallGate&) = delete;
    CallGate& operator=(const CallGate&) = delete;

    /// Whether the kernel can do it here.
    static bool Works();
    /// In the child, right before its exec: from here on it is behind the gate. Stops until Watch takes over.
    void Enter() const;
    /// In the parent, right after the fork.
    bool Watch(pid_t child);

    /// Every kind that the gate knows.
    static std::vector<std::string> AllKinds();

private:
    void Serve();
    void Answer(const seccomp_notif& asked);
    Call Describe(const seccomp_notif& asked);
    std::string PathArgument(const seccomp_notif& asked, int at) const;
    std::string Plain(std::string path) const;
    pid_t ProcessOf(pid_t thread) const;

    std::vector<std::string> m_kinds;
    std::string m_directory;
    Judge m_judge;
    pid_t m_child = 0;
    int m_listener = -1;
    std::atomic<bool> m_end{false};
    std::thread m_thread;
    std::map<std::string, int> m_counts;
};

}  // namespace sweep
