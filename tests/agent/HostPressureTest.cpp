// When a stall of the host is told of, what is said of it, and whose it was.
#include "HostPressure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "JsonText.h"
#include "SteadyTime.h"
#include "base/FileIo.h"
#include "platform/zel/ProcessLoop.h"
#include "support/Faults.h"
#include "support/Waiting.h"

namespace {

using agent::Consumer;
using agent::FindTopConsumers;
using agent::ProcessUse;
using agent::StallEpisode;
using base::PressureResource;

constexpr int64_t kPause = StallEpisode::kPauseSeconds;

TEST(StallEpisodeTest, OneMessageWhileItGoesOn) {
    StallEpisode episode;
    int64_t second = 1000;
    EXPECT_TRUE(episode.Begin(second));
    EXPECT_FALSE(episode.GoesOn());
    episode.Told(second);
    for (; second < 1000 + StallEpisode::kAgainSeconds - kPause; second += kPause) {
        EXPECT_FALSE(episode.Begin(second + kPause)) << second;
        EXPECT_TRUE(episode.GoesOn());
    }
    EXPECT_TRUE(episode.Begin(1000 + StallEpisode::kAgainSeconds)) << "once an hour";
    EXPECT_TRUE(episode.GoesOn());
}

TEST(StallEpisodeTest, TheKernelIsAskedAgainAfterAMinute) {
    StallEpisode episode;
    EXPECT_EQ(episode.ArmAt(), 0);
    EXPECT_FALSE(episode.TakeArming(1000));
    episode.Begin(1000);
    EXPECT_EQ(episode.ArmAt(), 1000 + kPause);
    EXPECT_FALSE(episode.TakeArming(1000 + kPause - 1));
    EXPECT_TRUE(episode.TakeArming(1000 + kPause));
    EXPECT_FALSE(episode.TakeArming(1000 + kPause)) << "once";
    EXPECT_EQ(episode.ArmAt(), 0);
}

TEST(StallEpisodeTest, EndsWhenTheKernelTellsOfNoneForAsLong) {
    StallEpisode episode;
    episode.Begin(1000);
    episode.Told(1000);
    EXPECT_TRUE(episode.IsUnderWay(1000 + 2 * kPause - 1));
    EXPECT_FALSE(episode.IsUnderWay(1000 + 2 * kPause));
    EXPECT_TRUE(episode.Begin(1000 + 2 * kPause)) << "a new one is told of";
    EXPECT_FALSE(episode.GoesOn());
    EXPECT_EQ(episode.Stalls(), 2U);
}

TEST(StallEpisodeTest, WhatWasNotToldOfIsToldOfTheNextTime) {
    for (const int64_t begin : {int64_t{0}, int64_t{1000}, int64_t{100000}}) {
        StallEpisode episode;
        EXPECT_TRUE(episode.Begin(begin));
        EXPECT_TRUE(episode.Begin(begin + kPause)) << begin << ": nobody was told";
        EXPECT_FALSE(episode.GoesOn()) << begin << ": nobody knows of it";
        episode.Told(begin + kPause);
        EXPECT_FALSE(episode.Begin(begin + 2 * kPause)) << begin;
        EXPECT_TRUE(episode.GoesOn()) << begin;
    }
}

TEST(StallEpisodeTest, TheEpisodeBeforeDoesNotCountForTheNext) {
    StallEpisode episode;
    episode.Begin(0);
    episode.Told(0);
    EXPECT_FALSE(episode.Begin(kPause)) << "told of at second 0";
    const int64_t next = 3 * kPause;
    EXPECT_TRUE(episode.Begin(next));
    EXPECT_TRUE(episode.Begin(next + kPause)) << "the message was of another one";
    EXPECT_FALSE(episode.GoesOn());
}

TEST(StallEpisodeTest, IsNowOnlyWhileTasksWait) {
    using agent::IsStalledNow;
    EXPECT_FALSE(IsStalledNow(true, false, 0, 60)) << "told a minute ago, and nobody waits";
    EXPECT_FALSE(IsStalledNow(true, false, 599, 60)) << "what is left in the average";
    EXPECT_TRUE(IsStalledNow(true, false, 600, 60));
    EXPECT_TRUE(IsStalledNow(true, true, 1, 60)) << "the average has only a part of it yet";
    EXPECT_FALSE(IsStalledNow(true, true, 0, 60)) << "nobody waits, whatever the kernel has told";
    EXPECT_TRUE(IsStalledNow(true, false, -1, 60)) << "nothing else is known";
    EXPECT_FALSE(IsStalledNow(false, false, 9000, 60)) << "the kernel was asked and told of none";
    StallEpisode episode;
    EXPECT_FALSE(StallEpisode::IsFresh(episode.EndsAt(), 1000)) << "there was none";
    episode.Begin(1000);
    EXPECT_TRUE(StallEpisode::IsFresh(episode.EndsAt(), 1000));
    EXPECT_TRUE(StallEpisode::IsFresh(episode.EndsAt(), 1000 + StallEpisode::kFreshSeconds - 1));
    EXPECT_FALSE(StallEpisode::IsFresh(episode.EndsAt(), 1000 + StallEpisode::kFreshSeconds));
}

ProcessUse Use(int pid, uint64_t start, uint64_t ticks, int64_t kb, base::ProcIo io = {}) {
    return {pid, start, "p" + std::to_string(pid), ticks, kb, io};
}

std::vector<int> Pids(const std::vector<Consumer>& consumers) {
    std::vector<int> out;
    for (const Consumer& consumer : consumers) out.push_back(consumer.pid);
    return out;
}

TEST(TopConsumersTest, OrdersByWhatIsShort) {
    const std::vector<ProcessUse> before{Use(1, 1, 100, 500), Use(2, 1, 100, 400, {1 << 20, 0}), Use(3, 1, 0, 300)};
    const std::vector<ProcessUse> after{Use(1, 1, 150, 500), Use(2, 1, 200, 400, {1 << 20, 1 << 20}),
                                        Use(3, 1, 0, 600, {0, 4096})};
    EXPECT_EQ(Pids(FindTopConsumers(before, after, {0, 1000, 100}, PressureResource::kCpu, 5)),
              (std::vector<int>{2, 1}));
    EXPECT_EQ(Pids(FindTopConsumers(before, after, {0, 1000, 100}, PressureResource::kMemory, 2)),
              (std::vector<int>{3, 1}));
    const auto io = FindTopConsumers(before, after, {0, 2000, 100}, PressureResource::kIo, 5);
    ASSERT_EQ(Pids(io), (std::vector<int>{2, 3}));
    EXPECT_EQ(io[0].writeKbps, 512);
    EXPECT_EQ(io[0].readKbps, 0);
    EXPECT_EQ(io[0].cpu100Times, 5000) << "100 ticks of a 100th second in 2 s are half a CPU";
}

TEST(TopConsumersTest, ALaterProcessOfTheSameNumberIsAnother) {
    const std::vector<ProcessUse> before{Use(7, 1, 1000, 10)};
    const std::vector<ProcessUse> after{Use(7, 2, 1050, 10)};
    const auto found = FindTopConsumers(before, after, {0, 1000, 100}, PressureResource::kCpu, 5);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].cpu100Times, 105000) << "since its start";
}

TEST(TopConsumersTest, OfOneMissedAtFirstOnlyItsMemoryIsKnown) {
    const std::vector<ProcessUse> after{Use(7, 499, 1000, 10), Use(8, 500, 50, 10)};
    const auto busy = FindTopConsumers({}, after, {5000, 1000, 100}, PressureResource::kCpu, 5);
    EXPECT_EQ(Pids(busy), (std::vector<int>{8})) << "the other one had run before";
    EXPECT_EQ(FindTopConsumers({}, after, {5000, 1000, 100}, PressureResource::kMemory, 5).size(), 2U);
}

TEST(TopConsumersTest, CountersThatWentBackAreNothing) {
    const auto found =
        FindTopConsumers({Use(7, 1, 1000, 0)}, {Use(7, 1, 900, 0)}, {0, 1000, 100}, PressureResource::kCpu, 5);
    EXPECT_TRUE(found.empty());
}

TEST(TopConsumersTest, FindsThisProcess) {
    const std::vector<ProcessUse> all = agent::LookAtProcesses(true, 100000);
    bool self = false;
    for (const ProcessUse& use : all) self = self || (use.pid == getpid() && use.residentKb > 0 && !use.name.empty());
    EXPECT_TRUE(self);
}

TEST(StallEpisodeTest, ARefusalIsTriedAgainEveryMinute) {
    StallEpisode episode;
    for (int64_t second = 1000; second < 1000 + 5 * kPause; second += kPause) {
        episode.Refused(second);
        EXPECT_EQ(episode.ArmAt(), second + kPause);
        EXPECT_FALSE(episode.TakeArming(second + kPause - 1));
        EXPECT_TRUE(episode.TakeArming(second + kPause));
        EXPECT_FALSE(episode.TakeArming(second + kPause)) << "once";
        EXPECT_EQ(episode.ArmAt(), 0) << "nothing is due while the kernel is asked";
    }
    EXPECT_EQ(episode.Stalls(), 0U) << "a refusal is no stall";
}

/// The real kernel, asked for stalls for memory alone.
class HostPressureTest : public testing::Test {
protected:
    void SetUp() override {
        if (!base::ReadFileMark("/proc/pressure/memory").exists) GTEST_SKIP() << "this kernel has no pressure figures";
        std::string problem;
        m_loop = zel::JoinProcessLoop(problem);  // its start writes, too
        ASSERT_NE(m_loop, nullptr) << problem;
    }
    void FollowRefused(int error) {
        const faults::Failing refused(faults::Call::kWrite, error);
        m_pressure.Follow(Thresholds(95));
        ASSERT_EQ(refused.Calls(), 1);
    }
    void Tick(int64_t second) {
        m_pressure.Tick(second, [] { return std::vector<zel::CgroupMember>(); });
    }
    agent::PressureStatus Memory() const { return m_pressure.Status().at(0); }
    agent::PressureStatus Io() const { return m_pressure.Status().at(1); }
    static agent::PressureThresholds Thresholds(int memory) {
        agent::PressureThresholds thresholds;
        thresholds.memory = memory;
        thresholds.io = thresholds.cpu = 0;
        return thresholds;
    }
    std::shared_ptr<base::IoLoop> m_loop;
    static std::atomic<int> s_words;  // of the kernel
    agent::HostPressure m_pressure{[] { ++s_words; }};
};

std::atomic<int> HostPressureTest::s_words{0};

TEST_F(HostPressureTest, WhatTheKernelRefusedIsAskedAgain) {
    for (const int error : {EBUSY, ENOMEM, EINTR}) {
        m_pressure.Follow(Thresholds(0));
        FollowRefused(error);
        EXPECT_FALSE(Memory().watched) << error;
        EXPECT_THAT(Memory().reason, testing::HasSubstr("; it is asked again every minute"));
        const int64_t due = m_pressure.NextDue();
        EXPECT_GT(due, agent::SecondsSinceBoot());
        EXPECT_LE(due, agent::SecondsSinceBoot() + kPause);
        Tick(due - 1);
        EXPECT_FALSE(Memory().watched) << "not at once";
        Tick(due);
        EXPECT_TRUE(Memory().watched) << Memory().reason;
        EXPECT_EQ(Memory().reason, "");
        EXPECT_EQ(m_pressure.NextDue(), 0) << "nothing is done while it holds";
    }
}

TEST_F(HostPressureTest, AKernelThatStaysWithItsRefusalIsAskedOn) {
    FollowRefused(EBUSY);
    const int64_t due = m_pressure.NextDue();
    {
        const faults::Failing refused(faults::Call::kWrite, ENOMEM, 1, 100);
        Tick(due);
    }
    EXPECT_FALSE(Memory().watched);
    EXPECT_THAT(Memory().reason, testing::HasSubstr("Cannot allocate memory"));
    EXPECT_EQ(m_pressure.NextDue(), due + kPause);
    Tick(due + kPause);
    EXPECT_TRUE(Memory().watched) << Memory().reason;
}

TEST_F(HostPressureTest, WhatCannotPassIsNotAskedAgain) {
    const struct {
        int error;
        const char* reason;
    } rows[] = {
        {ENOENT, "the kernel was built without pressure figures"},
        {EOPNOTSUPP, "switched off in this kernel: boot it with psi=1"},
        {EPERM, "before Linux 6.4 it takes the right CAP_SYS_RESOURCE: give it, and start the agent again"},
        {EACCES,
         "cannot write some 1900000 2000000 /proc/pressure/memory: Permission denied: let the agent write that file, "
         "and start the agent again"}};
    for (const auto& row : rows) {
        m_pressure.Follow(Thresholds(0));
        FollowRefused(row.error);
        EXPECT_FALSE(Memory().watched) << row.error;
        EXPECT_EQ(Memory().reason, row.reason);
        EXPECT_EQ(m_pressure.NextDue(), 0) << row.error;
        const faults::Failing asked(faults::Call::kWrite, row.error, 1, 100);
        Tick(agent::SecondsSinceBoot() + 10 * kPause);
        EXPECT_EQ(asked.Calls(), 0) << row.error;
    }
}

TEST_F(HostPressureTest, ANewConfigurationAsksAgainWhatWasFinal) {
    FollowRefused(EPERM);
    m_pressure.Follow(Thresholds(90));
    EXPECT_TRUE(Memory().watched) << Memory().reason;
}

TEST_F(HostPressureTest, ARefusalThatTurnsFinalEndsTheAsking) {
    FollowRefused(EBUSY);
    const faults::Failing refused(faults::Call::kWrite, EOPNOTSUPP, 1, 100);
    Tick(m_pressure.NextDue());
    EXPECT_EQ(refused.Calls(), 1);
    EXPECT_EQ(Memory().reason, "switched off in this kernel: boot it with psi=1");
    EXPECT_EQ(m_pressure.NextDue(), 0);
}

TEST(SteadyTimeTest, AgesStayWhenTheWallClockIsSet) {
    constexpr int64_t kDay = 86400;
    constexpr int64_t kAt = 1000;  // since boot
    int64_t now = kAt;
    int64_t wall = 1700000000;
    const struct {
        int64_t passes;
        int64_t step;
    } script[] = {{0, 0}, {7, 0}, {3, kDay}, {5, -2 * kDay}, {100, -wall + 5}, {1, wall}};
    for (const auto& [passes, step] : script) {
        now += passes;
        wall += passes + step;
        EXPECT_EQ(wall - agent::WallTimeOf(kAt, now, wall), now - kAt) << step;
        EXPECT_EQ(agent::WallTimeOf(0, now, wall), 0) << "never";
    }
}

TEST(StallWindowTest, CountsWhatTheTriggerAsksFor) {
    const base::PressureTrigger trigger{false, 60};
    EXPECT_FALSE(agent::HasStalled(0, 1199999, trigger));
    EXPECT_TRUE(agent::HasStalled(0, 1200000, trigger));
    EXPECT_FALSE(agent::HasStalled(5000000000000, 5000000000000, trigger)) << "a stall of long ago";
    EXPECT_FALSE(agent::HasStalled(5000000000000, 5000001199999, trigger));
    EXPECT_TRUE(agent::HasStalled(5000000000000, 5000001200000, trigger));
    EXPECT_TRUE(agent::HasStalled(7, 20007, {true, 1}));
    EXPECT_TRUE(agent::HasStalled(0, 2000000, {true, 100}));
    EXPECT_FALSE(agent::HasStalled(0, 1999999, {true, 100}));
}

/// A new trigger tells of what was counted before it was set, in most of its first windows.
TEST_F(HostPressureTest, TheKernelsWordAloneIsNoStall) {
    constexpr int kRounds = 6;
    constexpr int kLooks = 30;
    for (int round = 0; round < kRounds; ++round) {
        m_pressure.Follow(Thresholds(0));
        agent::PressureThresholds storage = Thresholds(0);
        storage.io = 95;
        const uint64_t before = base::ReadPressure(PressureResource::kIo)->full->totalUs;
        const uint64_t stalls = Io().stalls;
        m_pressure.Follow(storage);
        ASSERT_TRUE(Io().watched) << Io().reason;
        for (int look = 0; look < kLooks && Io().stalls == stalls; ++look) {
            usleep(50000);
            Tick(agent::SecondsSinceBoot());
        }
        if (Io().stalls == stalls) {
            EXPECT_EQ(m_pressure.NextDue(), 0);
            EXPECT_TRUE(Io().watched) << "it is waited for the next word";
        } else {
            EXPECT_GE(base::ReadPressure(PressureResource::kIo)->full->totalUs - before, 1900000U);
        }
    }
}

/// After a word that was none, one that is a stall is told of.
TEST_F(HostPressureTest, AStallIsCountedWhateverWasToldBefore) {
    agent::PressureThresholds busy = Thresholds(0);
    busy.cpu = 60;
    const auto look = [&] {
        Tick(agent::SecondsSinceBoot());
        return m_pressure.Status().at(2).stalls;
    };
    constexpr int kRounds = 5;
    s_words = 0;
    for (int round = 0; round < kRounds && s_words == 0; ++round) {
        m_pressure.Follow(Thresholds(0));
        m_pressure.Follow(busy);
        for (int i = 0; i < kRounds && s_words == 0; ++i) support::SleepMs(500);
    }
    look();  // takes the word, if there was one
    std::vector<pid_t> burners;
    for (long i = 2 * sysconf(_SC_NPROCESSORS_ONLN); i > 0; --i) {
        burners.push_back(fork());
        if (burners.back() != 0) continue;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (volatile unsigned int spent = 0;; spent = spent + 1) continue;
    }
    // Seldom: who reads the kernel's figures more often than its clock ticks makes it lose what lies between.
    const bool told = support::Poll(60, [&] { return look() == 1; });
    EXPECT_NEAR(static_cast<double>(m_pressure.Status().at(2).lastAt), static_cast<double>(time(nullptr)), 60);
    for (const pid_t burner : burners) {
        kill(burner, SIGKILL);
        waitpid(burner, nullptr, 0);
    }
    EXPECT_TRUE(told);
}

TEST_F(HostPressureTest, WhatIsSwitchedOffMeanwhileIsNotAskedAgain) {
    FollowRefused(EBUSY);
    m_pressure.Follow(Thresholds(0));
    EXPECT_EQ(m_pressure.NextDue(), 0);
    EXPECT_EQ(Memory().reason, "switched off in the configuration");
}

TEST(StallTextTest, FormatsAStall) {
    agent::StallFacts facts;
    facts.resource = PressureResource::kIo;
    facts.trigger = {true, 60};
    facts.goesOn = true;
    facts.stalled100Times = 7512;
    facts.line.avg10_100times = 6400;
    facts.line.avg60_100times = 1200;
    facts.consumers = {{42, "backup", 150, 2048, 1000, 20000}, {43, "tervane", 10, 4096, 0, 12}};
    const auto body = agent::ParseJson(agent::FormatStall(facts, {{"QorNet", 43}}, 1700000000));
    ASSERT_TRUE(body);
    EXPECT_EQ((*body)["detect_time"].asInt64(), 1700000000);
    EXPECT_EQ((*body)["resource"].asString(), "io");
    EXPECT_EQ((*body)["kind"].asString(), "full");
    EXPECT_EQ((*body)["threshold_percent"].asInt(), 60);
    EXPECT_TRUE((*body)["goes_on"].asBool());
    EXPECT_EQ((*body)["stalled_100times"].asInt(), 7512);
    EXPECT_EQ((*body)["avg10_100times"].asInt(), 6400);
    EXPECT_EQ((*body)["avg60_100times"].asInt(), 1200);
    ASSERT_EQ((*body)["consumers"].size(), 2U);
    const Json::Value& first = (*body)["consumers"][0];
    EXPECT_EQ(first["pid"].asInt(), 42);
    EXPECT_EQ(first["name"].asString(), "backup");
    EXPECT_EQ(first["component"].asString(), "");
    EXPECT_EQ(first["cpu_100times"].asInt(), 150);
    EXPECT_EQ(first["resident_kb"].asInt(), 2048);
    EXPECT_EQ(first["read_kbps"].asInt(), 1000);
    EXPECT_EQ(first["write_kbps"].asInt(), 20000);
    EXPECT_EQ((*body)["consumers"][1]["component"].asString(), "QorNet");
}

}  // namespace
