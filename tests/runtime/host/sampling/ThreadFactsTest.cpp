// CPU figures of this process's threads.
#include "sampling/ThreadFacts.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "HostSupport.h"
#include "base/ProcFiles.h"
#include "support/SystemCalls.h"
#include "platform/zel/ThreadUtil.h"
#include "sampling/Clock.h"

using std::chrono::milliseconds;
using zel::CThreadUtil;
using zelhost::CThreadFacts;

namespace {
class Worker {
public:
    Worker(const char* name, bool busy) {
        m_thread = std::thread([this, name, busy] {
            pthread_setname_np(pthread_self(), name);
            m_tid = gettid();
            while (!m_stop.load()) {
                if (busy)
                    support::Burn(milliseconds(1));
                else
                    std::this_thread::sleep_for(milliseconds(2));
            }
        });
        while (m_tid.load() == 0) std::this_thread::yield();
    }
    ~Worker() {
        m_stop = true;
        m_thread.join();
    }
    long Tid() const { return m_tid.load(); }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_tid{0};
    std::thread m_thread;
};

const CSysThreadsCpuUsage* Find(const std::list<CSysThreadsCpuUsage>& list, long tid) {
    for (const auto& entry : list) {
        if (entry.tid == tid) return &entry;
    }
    return nullptr;
}
}  // namespace

TEST(ThreadFactsTest, TheBusyThreadIsFoundAmongIdleOnes) {
    std::vector<std::unique_ptr<Worker>> idle;
    for (int i = 0; i < 20; ++i) idle.push_back(std::make_unique<Worker>("idle", false));
    Worker busy("busy", true);
    std::this_thread::sleep_for(milliseconds(200));
    long tid = 0;
    unsigned int usage = 0;
    CThreadFacts::Instance().GetHighCpuUsageThread(tid, usage);
    EXPECT_EQ(tid, busy.Tid());
    EXPECT_GT(usage, 0u);
    EXPECT_LE(usage, 10000u);
    std::list<CSysThreadsCpuUsage> list;
    CThreadFacts::Instance().GetThreadsCpuUsage(list);
    EXPECT_GE(list.size(), 22u);
    ASSERT_NE(Find(list, busy.Tid()), nullptr);
    EXPECT_EQ(CThreadFacts::Instance().Busiest(1).at(0).name, "busy");
    ASSERT_NE(Find(list, idle[3]->Tid()), nullptr);
    EXPECT_GT(Find(list, busy.Tid())->avgLoad, Find(list, idle[3]->Tid())->avgLoad);
}

TEST(ThreadFactsTest, SamplesAndHitsAreCounted) {
    Worker busy("busy", true), idle("idle", false);
    for (int i = 0; i < 10; ++i) {
        CThreadFacts::Instance().Sample();
        std::this_thread::sleep_for(milliseconds(30));
    }
    std::list<CSysThreadsCpuUsage> list;
    CThreadFacts::Instance().GetThreadsCpuUsage(list);
    const auto* entry = Find(list, busy.Tid());
    ASSERT_NE(entry, nullptr);
    EXPECT_GE(entry->statCnt, 10u);
    EXPECT_GT(entry->hit, 0u);
    EXPECT_LE(entry->hit, entry->statCnt);
    EXPECT_LE(entry->sysLoad, entry->avgLoad);
}

TEST(ThreadFactsTest, AThreadThatIsNewIsCountedFromItsStart) {
    CThreadFacts::Instance().Sample();
    Worker busy("late", true);
    std::this_thread::sleep_for(milliseconds(300));
    std::list<CSysThreadsCpuUsage> list;
    CThreadFacts::Instance().GetThreadsCpuUsage(list);
    const auto* entry = Find(list, busy.Tid());
    ASSERT_NE(entry, nullptr);
    EXPECT_GT(entry->avgLoad, 0u);
    EXPECT_EQ(entry->statCnt, 1u);
}

TEST(ThreadFactsTest, WhoBeganInOrderToAskIsNotTheBusiest) {
    CThreadFacts::Instance().MarkBaseline();
    Worker busy("busy", true);
    std::this_thread::sleep_for(milliseconds(1500));
    long tid = 0;
    unsigned int usage = 0;
    std::thread asker([&] {
        support::Burn(milliseconds(15));
        CThreadFacts::Instance().GetHighCpuUsageThread(tid, usage);
    });
    asker.join();
    EXPECT_EQ(tid, busy.Tid());
    std::list<CSysThreadsCpuUsage> list;
    std::this_thread::sleep_for(milliseconds(30));
    Worker young("young", true);
    support::Burn(milliseconds(15));
    CThreadFacts::Instance().GetThreadsCpuUsage(list);
    ASSERT_NE(Find(list, young.Tid()), nullptr);
    EXPECT_LT(Find(list, young.Tid())->avgLoad, 1000u) << "15 ms of work are not a busy second";
}

TEST(ThreadFactsTest, ThreadsThatWentAreNotListed) {
    long gone = 0;
    {
        Worker worker("gone", false);
        gone = worker.Tid();
        CThreadFacts::Instance().Sample();
    }
    std::this_thread::sleep_for(milliseconds(30));
    std::list<CSysThreadsCpuUsage> list;
    CThreadFacts::Instance().GetThreadsCpuUsage(list);
    EXPECT_EQ(Find(list, gone), nullptr);
}

TEST(ThreadFactsTest, AtRestOnlyThoseThatWorkHaveTheirFilesRead) {
    Worker idle("idle", false);
    const auto sample = [] { CThreadFacts::Instance().SampleAtRest(); };
    const auto before = [] {
        std::this_thread::sleep_for(milliseconds(30));  // a pass of its own
        CThreadFacts::Instance().Sample();
        std::this_thread::sleep_for(milliseconds(60));
    };
    const support::SystemCalls resting = support::CountSystemCalls(sample, before);
    if (!resting.counted) GTEST_SKIP() << "SKIP direct: this thread cannot be traced";
    EXPECT_EQ(0, resting.opens);
    Worker busy("busy", true);
    const auto worked = [&] {
        before();
        const int64_t from = base::ReadOwnThreadCpuNs(busy.Tid()).value_or(0);
        while (base::ReadOwnThreadCpuNs(busy.Tid()).value_or(INT64_MAX) < from + 2 * zelhost::TickNs()) {
            std::this_thread::sleep_for(milliseconds(5));
        }
    };
    EXPECT_EQ(1, support::CountSystemCalls(sample, worked).opens);
    std::list<CSysThreadsCpuUsage> list;
    CThreadFacts::Instance().GetThreadsCpuUsage(list);
    ASSERT_NE(Find(list, idle.Tid()), nullptr);
    EXPECT_GT(Find(list, idle.Tid())->statCnt, 1u) << "it was sampled for all that";
}

// What it would find in its own file it has from the kernel without a file, once it knows when it began.
TEST(ThreadFactsTest, WhoAsksSaysOfItselfWhatItsFileSays) {
    std::thread([] {
        const auto own = [] {
            std::list<CSysThreadsCpuUsage> list;
            CThreadFacts::Instance().GetThreadsCpuUsage(list);
            return *Find(list, gettid());
        };
        const auto systemTicks = [] { return base::ReadOwnThreadStat(gettid())->systemTicks; };
        const uint64_t before = systemTicks();
        const int64_t from = zelhost::ClockNs(CLOCK_MONOTONIC);
        std::vector<char> page(1 << 20);
        const int zeros = open("/dev/zero", O_RDONLY | O_CLOEXEC);
        while (systemTicks() < before + 20) ASSERT_GT(read(zeros, page.data(), page.size()), 0);
        close(zeros);
        const CSysThreadsCpuUsage usage = own();
        // A thread's first second counts as a whole one.
        const auto wallNs =
            static_cast<double>(std::max(zelhost::ClockNs(CLOCK_MONOTONIC) - from, zelhost::kNsPerSecond));
        const double ticks = usage.sysLoad / 10000.0 * wallNs / static_cast<double>(zelhost::TickNs());
        EXPECT_GE(ticks, 15) << "of 20";
        EXPECT_LE(usage.sysLoad, usage.avgLoad);
        EXPECT_EQ(0u, usage.hit) << "it runs because it asks";
        support::Burn(milliseconds(30));
        const support::SystemCalls again = support::CountSystemCalls([] { CThreadFacts::Instance().Sample(); }, [] {});
        EXPECT_EQ(0, again.counted ? again.opens : 0);
    }).join();
}

// As many as before are not the same as before.
TEST(ThreadFactsTest, OneThatTookTheOthersPlaceIsListed) {
    auto first = std::make_unique<Worker>("first", false);
    const long before = first->Tid();
    CThreadFacts::Instance().Sample();
    first.reset();
    const Worker second("second", false);
    std::this_thread::sleep_for(milliseconds(30));
    std::list<CSysThreadsCpuUsage> list;
    CThreadFacts::Instance().GetThreadsCpuUsage(list);
    EXPECT_EQ(Find(list, before), nullptr);
    ASSERT_NE(Find(list, second.Tid()), nullptr);
    EXPECT_EQ(Find(list, second.Tid())->statCnt, 1u);
    EXPECT_TRUE(std::is_sorted(list.begin(), list.end(), [](const auto& a, const auto& b) { return a.tid < b.tid; }));
}

TEST(ThreadFactsTest, AskersThatFollowEachOtherShareAPass) {
    const auto samples = [] {
        std::list<CSysThreadsCpuUsage> list;
        CThreadFacts::Instance().GetThreadsCpuUsage(list);
        const auto* own = Find(list, gettid());
        return own != nullptr ? own->statCnt : 0u;
    };
    const uint32_t before = samples();
    uint32_t after = before;
    for (int i = 0; i < 100; ++i) after = samples();
    EXPECT_GT(before, 0u);
    EXPECT_LT(after - before, 100u);
}

TEST(ThreadFactsTest, ThreadsMayComeAndGoWhileOthersAsk) {
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop.load()) std::thread([] {}).join();
    });
    std::vector<std::thread> askers;
    for (int i = 0; i < 2; ++i) {
        askers.emplace_back([&] {
            while (!stop.load()) {
                std::list<CSysThreadsCpuUsage> list;
                CThreadFacts::Instance().GetThreadsCpuUsage(list);
                EXPECT_GE(list.size(), 1u);
                std::this_thread::sleep_for(milliseconds(1));
            }
        });
    }
    std::this_thread::sleep_for(milliseconds(300));
    stop = true;
    churn.join();
    for (auto& asker : askers) asker.join();
}

TEST(ThreadFactsTest, TheCallersOwnIdIsTheKernels) {
    EXPECT_EQ(CThreadFacts::Instance().GetCurrThreadId(), static_cast<unsigned long>(gettid()));
}

TEST(ThreadFactsTest, AThreadThatRanAgainIsReadAgain) {
    std::atomic<int> step{0};
    std::atomic<long> tid{0};
    std::thread worker([&] {
        pthread_setname_np(pthread_self(), "before");
        tid = gettid();
        while (step.load() == 0) std::this_thread::sleep_for(milliseconds(1));
        pthread_setname_np(pthread_self(), "after");
        support::Burn(milliseconds(50));
        step = 2;
        while (step.load() == 2) std::this_thread::sleep_for(milliseconds(1));
    });
    while (tid.load() == 0) std::this_thread::yield();
    const auto entry = [&] {
        std::list<CSysThreadsCpuUsage> list;
        CThreadFacts::Instance().GetThreadsCpuUsage(list);
        return *Find(list, tid.load());
    };
    std::this_thread::sleep_for(milliseconds(30));
    const CSysThreadsCpuUsage before = entry();
    EXPECT_EQ("before", CThreadUtil::GetThreadName(tid.load()));
    step = 1;
    while (step.load() != 2) std::this_thread::sleep_for(milliseconds(5));
    std::this_thread::sleep_for(milliseconds(30));
    const CSysThreadsCpuUsage after = entry();
    EXPECT_EQ("after", CThreadUtil::GetThreadName(tid.load()));
    step = 3;
    worker.join();
    EXPECT_GT(after.avgLoad, before.avgLoad);
    EXPECT_EQ(before.statCnt + 1, after.statCnt);
}

// A pass over sleeping threads is a question to each one's clock: no file, and no list of those that are known.
TEST(ThreadFactsTest, SleepingThreadsCostLittleMoreThanTheirClocks) {
    constexpr int kThreads = 500;
    std::vector<std::thread> sleepers;
    std::vector<clockid_t> clocks;
    std::atomic<bool> stop{false};
    std::mutex lock;
    std::condition_variable end;
    for (int i = 0; i < kThreads; ++i) {
        sleepers.emplace_back([&] {
            std::unique_lock<std::mutex> held(lock);
            end.wait(held, [&] { return stop.load(); });
        });
        clocks.emplace_back();
        ASSERT_EQ(0, pthread_getcpuclockid(sleepers.back().native_handle(), &clocks.back()));
    }
    std::vector<double> ratios;
    for (int round = 0; round < 9; ++round) {
        std::this_thread::sleep_for(milliseconds(25));  // beyond what askers share
        CThreadFacts::Instance().Sample();
        const int64_t pass = CThreadFacts::Instance().LastPassNs();
        const int64_t from = zelhost::ClockNs(CLOCK_THREAD_CPUTIME_ID);
        for (const clockid_t clock : clocks) zelhost::ClockNs(clock);
        ratios.push_back(static_cast<double>(pass) /
                         static_cast<double>(zelhost::ClockNs(CLOCK_THREAD_CPUTIME_ID) - from));
    }
    {
        const std::lock_guard<std::mutex> held(lock);
        stop = true;
    }
    end.notify_all();
    for (std::thread& sleeper : sleepers) sleeper.join();
    std::sort(ratios.begin(), ratios.end());
    EXPECT_LT(ratios[ratios.size() / 2], 4.0);
    printf("a pass costs %.1f times its clocks\n", ratios[ratios.size() / 2]);
}
