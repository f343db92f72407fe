#include "Supervisor.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>

#include "platform/zel/LogControl.h"
#include "platform/zel/ToolUtil.h"
#include "support/Files.h"
#include "support/Waiting.h"

using namespace agent;

namespace {

/// A supervisor over a shell that stands in for the agent program: it ignores the agent's arguments.
class SupervisorTest : public ::testing::Test {
protected:
    std::unique_ptr<Supervisor> Make(const std::string& script) {
        return std::make_unique<Supervisor>("/bin/sh", std::vector<std::string>{"-c", script},
                                            m_path + "/restarts.json",
                                            [this](const ComponentEnd& end) { m_ends.push_back(end); });
    }
    /// Ticks on a clock of the test's own until something ended, at most a few real seconds.
    void TickUntilEnd(Supervisor& supervisor, int64_t now, size_t ends) {
        for (int i = 0; i < 500 && m_ends.size() < ends; ++i) {
            supervisor.Tick(now);
            zel::CToolUtil::msleep(10);
        }
    }
    support::TempDir m_directory;
    const std::string m_path = m_directory.Path();
    std::vector<ComponentEnd> m_ends;
};

}  // namespace

TEST_F(SupervisorTest, DeadComponentIsStartedAfterBackoffNotBefore) {
    auto supervisor = Make("exit 20");
    supervisor->Configure({{"A", "main", {}, {}}});
    TickUntilEnd(*supervisor, 1000, 1);
    ASSERT_EQ(1u, m_ends.size());
    EXPECT_EQ("exit code 20 (over its own maximum, ended itself)", m_ends[0].reason);
    EXPECT_EQ(1, m_ends[0].waitSeconds);
    EXPECT_EQ(1001, supervisor->NextStart());
    supervisor->Tick(1000);
    EXPECT_EQ(ComponentState::kWaiting, supervisor->Status(1000)[0].state);
    supervisor->Tick(1001);
    EXPECT_EQ(ComponentState::kRunning, supervisor->Status(1001)[0].state);
    EXPECT_EQ(INT64_MAX, supervisor->NextStart()) << "nobody waits";
    supervisor->StopAll(1000);
}

TEST_F(SupervisorTest, ComponentWithoutPlaceWaitsAndCountsAsNoDeath) {
    auto supervisor = Make("sleep 100");
    bool place = false;
    supervisor->SetPlacement([&](const ComponentConfig&) -> base::Result<std::vector<std::string>> {
        if (place) return std::vector<std::string>();
        return base::SentenceError("no group for it");
    });
    supervisor->Configure({{"A", "nowhere", {}, {}}});
    supervisor->Tick(1000);
    ComponentStatus status = supervisor->Status(1000)[0];
    EXPECT_EQ(ComponentState::kWaiting, status.state);
    EXPECT_EQ("no group for it", status.lastReason);
    EXPECT_EQ(0u, status.recentRestarts);
    EXPECT_EQ(1005, supervisor->NextStart());
    place = true;
    supervisor->Tick(1004);
    EXPECT_EQ(ComponentState::kWaiting, supervisor->Status(1004)[0].state);
    supervisor->Tick(1005);
    status = supervisor->Status(1005)[0];
    EXPECT_EQ(ComponentState::kRunning, status.state);
    EXPECT_EQ("", status.lastReason);
    supervisor->StopAll(1000);
}

TEST_F(SupervisorTest, TheBudgetIsOnDiskBeforeTheNextStart) {
    {
        auto supervisor = Make("exit 1");
        supervisor->Configure({{"A", "main", {}, {}}});
        TickUntilEnd(*supervisor, 1000, 1);
        supervisor->StopAll(1000);
    }
    auto next = Make("exit 1");
    next->Configure({{"A", "main", {}, {}}});
    EXPECT_EQ(1u, next->Status(1001)[0].recentRestarts);
    EXPECT_EQ("exit code 1 (internal failure)", next->Status(1001)[0].lastReason);
}

TEST_F(SupervisorTest, StopsThoseThatDoNotWantTo) {
    auto supervisor = Make("trap '' TERM; while :; do sleep 0.05; done");
    supervisor->Configure({{"A", "main", {}, {}}});
    supervisor->Tick(1000);
    pid_t pid = supervisor->Status(1000)[0].pid;
    ASSERT_GT(pid, 0);
    zel::CToolUtil::msleep(200);
    supervisor->StopAll(200);
    EXPECT_EQ(ComponentState::kStopped, supervisor->Status(1000)[0].state);
    EXPECT_NE(0, kill(pid, 0));
}

TEST_F(SupervisorTest, TellsAKilledComponentFromOneThatEnded) {
    auto supervisor = Make("kill -9 $$");
    supervisor->Configure({{"A", "main", {}, {}}});
    TickUntilEnd(*supervisor, 1000, 1);
    ASSERT_EQ(1u, m_ends.size());
    EXPECT_EQ("killed by signal 9 (Killed)", m_ends[0].reason);
    supervisor->StopAll(1000);
}

TEST_F(SupervisorTest, ACommandThatCannotBeRunSaysWhereItIsNamed) {
    Supervisor supervisor("/bin/true", {}, m_path + "/restarts.json", nullptr);
    const std::string command = m_path + "/command";
    supervisor.Configure({{"A", "main", {}, {command}}});
    supervisor.Tick(1000);
    EXPECT_EQ(command + ": No such file or directory; mend that, or correct \"command\" of A in components.json",
              supervisor.Status(1000)[0].lastReason);
    EXPECT_TRUE(supervisor.Status(1000)[0].cannotStart);
    std::filesystem::copy_file("/bin/true", command);
    supervisor.Tick(2000);
    EXPECT_EQ(ComponentState::kRunning, supervisor.Status(2000)[0].state) << supervisor.Status(2000)[0].lastReason;
    EXPECT_FALSE(supervisor.Status(2000)[0].cannotStart);
    supervisor.StopAll(2000);
}

TEST_F(SupervisorTest, AProgramThatIsNotThereCountsAsADeath) {
    Supervisor supervisor("/nowhere/program", {}, m_path + "/restarts.json", nullptr);
    supervisor.Configure({{"A", "main", {}, {}}});
    supervisor.Tick(1000);
    EXPECT_EQ(ComponentState::kWaiting, supervisor.Status(1000)[0].state);
    EXPECT_EQ("/nowhere/program: No such file or directory", supervisor.Status(1000)[0].lastReason);
    EXPECT_TRUE(supervisor.Status(1000)[0].cannotStart);
    EXPECT_EQ(1, supervisor.Status(1000)[0].waitsSeconds);
}

/// A file from the days when the wall clock was written, or of another boot, holds nobody back.
TEST_F(SupervisorTest, AFileOfAnotherClockHoldsNoComponentBack) {
    std::string times;
    for (int i = 0; i < 12; ++i) times += (i == 0 ? "" : ",") + std::to_string(999 - i);
    for (const char* boot : {"", "\"boot_id\": \"11111111-2222-3333-4444-555555555555\","}) {
        support::WriteText(m_path + "/restarts.json",
                           std::string("{") + boot +
                               "\"components\": {\"A\": {\"backoff_seconds\": 60, \"restarts\": [" + times +
                               "], \"last_reason\": \"x\"}}}");
        m_ends.clear();
        auto supervisor = Make("exit 1");
        supervisor->Configure({{"A", "main", {}, {}}});
        EXPECT_EQ("x", supervisor->Status(1000)[0].lastReason);
        TickUntilEnd(*supervisor, 1000, 1);
        ASSERT_EQ(1u, m_ends.size());
        EXPECT_EQ(1, m_ends[0].waitSeconds);
        EXPECT_FALSE(m_ends[0].exhausted);
        supervisor->StopAll(1000);
    }
}

TEST_F(SupervisorTest, AStoppedComponentIsSeenUntilItGoesOn) {
    auto supervisor = Make("while :; do sleep 0.05; done");
    supervisor->Configure({{"A", "main", {}, {}}});
    supervisor->Tick(1000);
    const pid_t pid = supervisor->Status(1000)[0].pid;
    const auto tickUntil = [&](int64_t now, bool suspended) {
        return support::Eventually([&] {
            supervisor->Tick(now);
            return supervisor->Status(now)[0].suspended == suspended;
        });
    };
    ASSERT_EQ(0, kill(pid, SIGSTOP));
    EXPECT_TRUE(tickUntil(1001, true));
    EXPECT_EQ(ComponentState::kRunning, supervisor->Status(1005)[0].state);
    EXPECT_EQ(4, supervisor->Status(1005)[0].suspendedSeconds);
    ASSERT_EQ(0, kill(pid, SIGCONT));
    EXPECT_TRUE(tickUntil(1006, false));
    EXPECT_EQ(0u, m_ends.size());
    ASSERT_EQ(0, kill(pid, SIGSTOP));
    EXPECT_TRUE(tickUntil(1007, true));
    const auto start = std::chrono::steady_clock::now();
    supervisor->StopAll(10000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "it hears that it should end";
}

TEST_F(SupervisorTest, AnotherProgramsOutputIsInTheLogByItsName) {
    zel::LogOptions options;
    options.directory = m_path;
    options.processName = "supervisor";
    zel::ConfigureLog(options);
    auto supervisor =
        Make("echo to stdout; echo to stderr >&2; trap 'echo bye; exit 0' TERM; while :; do sleep 0.05; done");
    supervisor->Configure({{"A", "main", {}, {"/bin/true"}}});
    const auto logged = [&] {
        zel::FlushLog();
        return support::ReadText(m_path + "/supervisor.log");
    };
    EXPECT_TRUE(support::Poll(30, [&] {
        supervisor->Tick(1000);
        return logged().find("component A: to stderr") != std::string::npos;
    })) << logged();
    EXPECT_NE(logged().find("component A: to stdout"), std::string::npos);
    supervisor->StopAll(10000);
    EXPECT_NE(logged().find("component A: bye"), std::string::npos) << "what it said at its end";
    options = zel::LogOptions();
    options.file = false;
    zel::ConfigureLog(options);
}
