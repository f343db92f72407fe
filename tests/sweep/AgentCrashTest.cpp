// The main process is killed right before one of the calls with which it changes a file or a group, at every such call
// of its life in turn: starting, three changes, a kill for memory, an event, stopping. The next run finds databases
// that can be read, limits as they were asked for, every event once, and leaves nothing that a life without a kill does
// not.
#include <signal.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <random>
#include <set>

#include "support/SqliteCheck.h"
#include "sweep/SweepFixture.h"

namespace sweep {
namespace {

using agenttest::Child;
using agenttest::Poll;

constexpr int kDefaultKills = 3;
constexpr int kDeepest = 4;
constexpr int kHogProcesses = 3;  // a shell and a pipe of two

class AgentCrashTest : public SweepFixture {
protected:
    std::string Leaf() const { return MemoryRoot() + "/" + Tree() + "/collect-defense/QorHips"; }

    /// The life; every part of it ends early when the main process is gone.
    void Live(const CallGate::Judge& judge) {
        CallGate gate(m_kinds, Dir(), judge);
        const int lines = RunningLines();
        Child agent = StartGated(gate);
        const auto until = [&](const std::function<bool()>& holds) {
            EXPECT_TRUE(Poll(agenttest::kSettleSeconds, [&] { return !agent.Running() || holds(); }));
            return agent.Running();
        };
        if (!until([&] { return RunningLines() > lines; })) return;
        for (int i = 0; i < 3; ++i) {
            const int64_t quota = ChangeLimits();
            if (!until([&] { return ParentQuota() == quota; })) return;
        }
        pid_t killed = 0;
        if (!until([&] { return (killed = KillComponent()) > 0; })) return;
        if (!until([&] { return HasEndOf(killed); })) return;
        std::string output;
        m_victims += kHogProcesses;
        RunToEnd(
            {"sh", "-c", "echo $$ > " + Leaf() + "/cgroup.procs && head -c 300000000 /dev/zero | tail > /dev/null"},
            output);
        const int64_t quota = ChangeLimits();
        if (!until([&] { return ParentQuota() == quota; })) return;
        agent.Signal(SIGTERM);
        EXPECT_NE(agent.WaitEnd(agenttest::kStopSeconds), -1) << "does not stop";
    }

    /// What lies in the application directory, without the output of programs.
    std::set<std::string> Files() const {
        std::set<std::string> files;
        for (const char* folder : {"", "/conf", "/run", "/spool", "/log"}) {
            for (const std::string& name : support::NamesIn(Dir() + folder)) {
                if (name.find("output.") != 0) files.insert(std::string(folder) + "/" + name);
            }
        }
        return files;
    }

    void ExpectWholeDatabases() {
        for (const char* name : {"/spool/tervane.db", "/current_os_abnormal.db", "/last_os_abnormal.db"}) {
            if (!support::Exists(Dir() + name)) continue;
            EXPECT_EQ("ok", support::CheckCopyOfDatabase(Dir() + name, Dir() + "/output.copy.db")) << name;
        }
    }

    void ExpectEventsOnce() {
        std::set<std::string> bodies;
        for (const Json::Value& event : Events()) {
            Json::Value body;
            if (!agenttest::ParseJson(event["body"].asString(), body)) continue;
            if (event["type"].asString() == "T_MSG_COMPONENT_END" || event["type"].asString() == "T_MSG_UNCLEAN_STOP") {
                EXPECT_TRUE(bodies.insert(event["body"].asString()).second) << "twice: " << event["body"].asString();
            }
        }
    }

    void ExpectNoKillInvented() {
        const std::string key = "collect-defense|" + MemoryRoot() + "/" + Tree() + "/collect-defense|v1";
        int64_t reported = 0;
        for (const char* type : {"multi_cgroup_oom_runtime", "multi_cgroup_oom_after_restart"}) {
            for (const Json::Value& body : EventBodies(type)) {
                reported += body["items"][key]["oom_kill_delta"].asInt64();
            }
        }
        EXPECT_LE(reported, m_victims) << "more kills than there were";
    }

    /// The life after the kill.
    void Recover(const std::set<std::string>& clean) {
        EXPECT_TRUE(Poll(agenttest::kStopSeconds, [this] { return AllProcesses().empty(); })) << "a process is left";
        ExpectWholeDatabases();
        EXPECT_EQ("", CleanLife()) << "the next run";
        ExpectEventsOnce();
        ExpectNoKillInvented();
        for (const std::string& name : Files()) EXPECT_TRUE(clean.count(name) > 0) << "left: " << name;
        Json::Value mark;
        const std::string text = support::ReadText(Conf("cgroup_oom_watermark.json"));
        EXPECT_TRUE(text.empty() || agenttest::ParseJson(text, mark)) << text;
    }

    int64_t m_victims = 0;  // processes that there were to kill
};

TEST_F(AgentCrashTest, KilledAtACallTheNextRunIsWhole) {
    std::mt19937 random(Seed());
    std::map<std::string, int> counts;
    std::mutex mutex;
    Live([&](const Call& call) {
        const std::lock_guard<std::mutex> guard(mutex);
        if (IsChange(call.kind) && call.what.find("component ") != 0) ++counts[call.Key()];
        return Verdict();
    });
    ASSERT_EQ("", CleanLife());
    ASSERT_FALSE(HasFailure()) << "without a kill";
    const std::set<std::string> clean = Files();
    std::vector<std::pair<std::string, int>> cases;
    for (const auto& [key, count] : counts) {
        for (int nth = 1; nth <= std::min(count, kDeepest); ++nth) cases.emplace_back(key, nth);
    }
    const size_t known = cases.size();
    std::shuffle(cases.begin(), cases.end(), random);
    cases.resize(std::min(cases.size(), static_cast<size_t>(Wanted("ZEL_SWEEP_KILLS", kDefaultKills))));
    int met = 0;
    int wrong = 0;
    for (const auto& [key, nth] : cases) {
        SCOPED_TRACE("killed before " + key + ", call " + std::to_string(nth));
        const auto parts = testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
        bool hit = false;
        Live([&, key = key, nth = nth](const Call& call) {
            if (hit || call.nth != nth || call.Key() != key) return Verdict();
            hit = true;
            return Verdict{Verdict::How::kKill, 0};
        });
        met += hit ? 1 : 0;
        Recover(clean);
        const auto now = testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
        if (now != parts && ++wrong == 5) break;
    }
    printf("%zu keys, %zu places known; %zu tried, %d kills\n", counts.size(), known, cases.size(), met);
}

}  // namespace
}  // namespace sweep
