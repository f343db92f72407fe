// A system call of the agent fails, once, at every call of its life in turn: it does not crash, does not hang, does
// what was asked of it all the same or says why it cannot start, leaves nothing behind, does not repeat itself in the
// log, and the next run is whole.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <random>

#include "sweep/SweepFixture.h"

namespace sweep {
namespace {

using agenttest::Child;
using agenttest::Poll;

constexpr int kDefaultFaults = 4;

/// Calls of one kind about one file: more than these many are the same code again.
constexpr int kDeepest = 3;

struct Case {
    std::string key;
    std::string kind;
    int nth = 0;
    Verdict verdict;
};

std::string Show(const Case& fault) {
    const std::string how = fault.verdict.how == Verdict::How::kHalf ? "half" : strerrorname_np(fault.verdict.error);
    return fault.key + ", call " + std::to_string(fault.nth) + ": " + how;
}

/// Before its first instruction there is nothing that the program could do about it, and what the kernel keeps in its
/// own memory does not fail.
bool CannotFail(const std::string& key) {
    for (const char* part : {"/lib/", ".so", "anon_inode:"}) {
        if (key.find(part) != std::string::npos) return true;
    }
    return false;
}

class AgentFaultsTest : public SweepFixture {
protected:
    /// The whole life, with what the judge says.
    void Live(const CallGate::Judge& judge, bool mayEnd) {
        CallGate gate(m_kinds, Dir(), judge);
        const int lines = RunningLines();
        const size_t log = Log().size();
        Child agent = StartGated(gate);
        if (WaitRunning(agent, lines)) {
            Use();
            EXPECT_EQ(agent.Stop(), 0);
        } else if (!agent.Running()) {
            const int code = agenttest::ExitCodeOf(agent.WaitEnd(1));
            EXPECT_TRUE(mayEnd && code >= 10 && code < 20) << "ended with " << code;
            EXPECT_NE(agent.Output() + Log().substr(log), "") << "ended without a word";
        } else {
            agent.Kill();
        }
        ExpectNothingLeft();
        for (const std::string& line : RepeatedComplaints(log)) ADD_FAILURE() << "said again: " << line;
    }

    /// What is asked of a running agent, and is done whatever call fails once.
    void Use() {
        const int64_t quota = ChangeLimits();
        EXPECT_TRUE(Poll(agenttest::kSettleSeconds, [&] { return ParentQuota() == quota; }))
            << ParentQuota() << " instead of " << quota;
        pid_t killed = 0;
        EXPECT_TRUE(Poll(agenttest::kSettleSeconds, [&] { return (killed = KillComponent()) > 0; })) << "no component";
        EXPECT_TRUE(Poll(agenttest::kSettleSeconds, [&] { return HasEndOf(killed); })) << "its end is not told";
        EXPECT_TRUE(Poll(agenttest::kSettleSeconds, [&] { return Status()["process"].asString() == "tervane"; }));
    }

    /// Every call of a life without a fault, by key.
    std::map<std::string, std::pair<std::string, int>> Record() {
        std::map<std::string, std::pair<std::string, int>> counts;
        std::mutex mutex;
        Live(
            [&](const Call& call) {
                const std::lock_guard<std::mutex> guard(mutex);
                auto& count = counts[call.Key()];
                count.first = call.kind;
                count.second = std::max(count.second, call.nth);
                return Verdict();
            },
            false);
        return counts;
    }

    static std::vector<Case> CasesOf(const std::map<std::string, std::pair<std::string, int>>& counts) {
        std::vector<Case> all;
        for (const auto& [key, count] : counts) {
            if (CannotFail(key)) continue;
            for (int nth = 1; nth <= std::min(count.second, kDeepest); ++nth) {
                for (const int error : ErrorsOf(count.first)) {
                    all.push_back({key, count.first, nth, {Verdict::How::kFail, error}});
                }
                const bool half = count.first == "write" || count.first == "pwrite64" || count.first == "read";
                if (half) all.push_back({key, count.first, nth, {Verdict::How::kHalf, 0}});
            }
        }
        return all;
    }
};

TEST_F(AgentFaultsTest, OneCallFailsAndItsLifeGoesOn) {
    std::mt19937 random(Seed());
    const auto counts = Record();
    ASSERT_FALSE(HasFailure()) << "without a fault";
    std::vector<Case> cases = CasesOf(counts);
    const size_t known = cases.size();
    std::shuffle(cases.begin(), cases.end(), random);
    cases.resize(std::min(cases.size(), static_cast<size_t>(Wanted("ZEL_SWEEP_FAULTS", kDefaultFaults))));
    int met = 0;
    int wrong = 0;
    for (const Case& fault : cases) {
        bool hit = false;
        SCOPED_TRACE(Show(fault));
        const auto failuresBefore = testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
        Live(
            [&](const Call& call) {
                if (hit || call.nth != fault.nth || call.Key() != fault.key) return Verdict();
                hit = true;
                return fault.verdict;
            },
            true);
        EXPECT_EQ("", CleanLife()) << "the next run";
        met += hit ? 1 : 0;
        const auto failures = testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
        if (failures != failuresBefore && ++wrong == 5) break;
    }
    printf("%zu keys, %zu faults known; %zu tried, %d met\n", counts.size(), known, cases.size(), met);
}

}  // namespace
}  // namespace sweep
