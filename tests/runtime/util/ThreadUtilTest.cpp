// Threads: start, stop, names, a sleep that is cut short, and threads that the system refuses.
#include "platform/zel/ThreadUtil.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Faults.h"
#include "support/Waiting.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/ToolUtil.h"

using support::Eventually;
using support::Signal;
using zel::CThreadUtil;
using zel::CToolUtil;

namespace {

class Worker final : public CThreadUtil {
public:
    explicit Worker(std::function<void()> body) : m_body(std::move(body)) {}
    void run() override { m_body(); }

private:
    const std::function<void()> m_body;
};

TEST(ThreadUtilTest, RunsItsBodyOnAThreadOfItsOwnUntilStopped) {
    Signal entered;
    Signal leave;
    unsigned int tid = 0;
    Worker worker([&] {
        tid = CThreadUtil::GetCurrentThreadId();
        entered.Set();
        leave.Wait();
    });
    EXPECT_FALSE(worker.IsThreadRunning());
    EXPECT_FALSE(worker.stopThread());
    EXPECT_TRUE(worker.startThread());
    EXPECT_TRUE(entered.Wait());
    EXPECT_TRUE(worker.IsThreadRunning());
    EXPECT_FALSE(worker.startThread());
    leave.Set();
    EXPECT_TRUE(worker.stopThread());
    EXPECT_FALSE(worker.IsThreadRunning());
    EXPECT_FALSE(worker.stopThread());
    EXPECT_NE(CThreadUtil::GetCurrentThreadId(), tid);
    EXPECT_EQ(static_cast<unsigned int>(::gettid()), CThreadUtil::GetCurrentThreadId());
}

TEST(ThreadUtilTest, StopWaitsForTheBody) {
    std::atomic<bool> stop{false};
    std::atomic<bool> ended{false};
    Worker worker([&] {
        while (!stop) CToolUtil::msleep(1);
        CToolUtil::msleep(20);
        ended = true;
    });
    ASSERT_TRUE(worker.startThread());
    stop = true;
    EXPECT_TRUE(worker.stopThread());
    EXPECT_TRUE(ended);
}

TEST(ThreadUtilTest, StopCutsASleepShortAndEverySleepAfterIt) {
    Signal entered;
    Worker worker([&] {
        entered.Set();
        CToolUtil::sleep(3600);
        CToolUtil::sleep(3600);
    });
    for (int round = 0; round < 2; ++round) {
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(worker.startThread());
        ASSERT_TRUE(entered.Wait());
        EXPECT_TRUE(worker.stopThread());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    }
}

TEST(ThreadUtilTest, ASleepThatNobodyCutsShortLastsItsTime) {
    std::chrono::steady_clock::duration slept{};
    Worker worker([&] {
        const auto start = std::chrono::steady_clock::now();
        CToolUtil::sleep(1);
        slept = std::chrono::steady_clock::now() - start;
    });
    ASSERT_TRUE(worker.startThread());
    EXPECT_TRUE(Eventually([&] { return !worker.IsThreadRunning(); }));
    worker.stopThread();
    EXPECT_GE(slept, std::chrono::seconds(1));
}

TEST(ThreadUtilTest, ABodyThatReturnedByItselfCanBeStartedAgain) {
    std::atomic<int> runs{0};
    Worker worker([&] { ++runs; });
    for (int round = 1; round <= 3; ++round) {
        EXPECT_TRUE(worker.startThread());
        EXPECT_TRUE(Eventually([&] { return !worker.IsThreadRunning(); }));
        EXPECT_EQ(round, runs);
    }
}

TEST(ThreadUtilTest, TwoStoppersBothReturn) {
    Signal entered;
    Worker worker([&] {
        entered.Set();
        CToolUtil::sleep(3600);
    });
    ASSERT_TRUE(worker.startThread());
    ASSERT_TRUE(entered.Wait());
    bool first = false;
    std::thread other([&] { first = worker.stopThread(); });
    const bool second = worker.stopThread();
    other.join();
    EXPECT_NE(first, second);
}

TEST(ThreadUtilTest, ABodyCannotWaitForItself) {
    bool result = true;
    std::unique_ptr<Worker> worker;
    worker = std::make_unique<Worker>([&] { result = worker->stopThread(); });
    ASSERT_TRUE(worker->startThread());
    EXPECT_TRUE(worker->stopThread());
    EXPECT_FALSE(result);
}

TEST(ThreadUtilTest, DestructionCollectsABodyThatReturned) {
    std::atomic<bool> ran{false};
    {
        Worker worker([&] { ran = true; });
        ASSERT_TRUE(worker.startThread());
        EXPECT_TRUE(Eventually([&] { return !worker.IsThreadRunning(); }));
    }
    EXPECT_TRUE(ran);
}

TEST(ThreadUtilTest, AnExceptionEndsTheBodyAndNotTheProcess) {
    zel::LogOptions silent;
    silent.file = false;
    zel::ConfigureLog(silent);
    Worker known([] { throw std::runtime_error("deliberate"); });
    Worker unknown([] { throw 1; });
    for (Worker* worker : {&known, &unknown}) {
        ASSERT_TRUE(worker->startThread());
        EXPECT_TRUE(Eventually([&] { return !worker->IsThreadRunning(); }));
        worker->stopThread();
    }
    EXPECT_TRUE(zel::FlushLog());
}

TEST(ThreadUtilTest, ARefusedThreadIsReported) {
    Worker worker([] {});
    {
        const faults::Failing refused(faults::Call::kThreadCreate, EAGAIN);
        EXPECT_FALSE(worker.startThread());
        EXPECT_EQ(1, refused.Calls());
    }
    EXPECT_FALSE(worker.IsThreadRunning());
    EXPECT_FALSE(worker.stopThread());
    EXPECT_TRUE(worker.startThread());
    EXPECT_TRUE(worker.stopThread());
}

TEST(ThreadUtilTest, NamesAreCutByTheKernelAndReadBack) {
    unsigned int tid = 0;
    Signal named;
    Signal leave;
    Worker worker([&] {
        CThreadUtil::SetThreadName("a name of more than fifteen");
        tid = CThreadUtil::GetCurrentThreadId();
        named.Set();
        leave.Wait();
    });
    ASSERT_TRUE(worker.startThread());
    ASSERT_TRUE(named.Wait());
    EXPECT_EQ("a name of more ", CThreadUtil::GetThreadName(static_cast<long>(tid)));
    leave.Set();
    worker.stopThread();
    EXPECT_EQ("", CThreadUtil::GetThreadName(static_cast<long>(tid)));
    EXPECT_EQ("", CThreadUtil::GetThreadName(0));
    EXPECT_EQ("", CThreadUtil::GetThreadName(-1));
    EXPECT_EQ("", CThreadUtil::GetThreadName(1));  // a thread of another process
}

TEST(ThreadUtilTest, ANameIsTheNewestThatTheThreadGaveItself) {
    std::atomic<int> step{0};
    std::atomic<long> tid{0};
    std::thread worker([&] {
        tid = gettid();
        for (int count = 1; count <= 20; ++count) {
            CThreadUtil::SetThreadName("name " + std::to_string(count));
            step = count;
            while (step == count) std::this_thread::yield();
        }
    });
    for (int count = 1; count <= 20; ++count) {
        while (step != count) std::this_thread::yield();
        const std::string name = "name " + std::to_string(count);
        EXPECT_EQ(name, CThreadUtil::GetThreadName(tid));
        EXPECT_EQ(name, CThreadUtil::GetThreadName(tid)) << "asked again";
        step = 0;
    }
    worker.join();
}

TEST(ThreadUtilTest, NamesAreRightInWhateverOrderTheyAreAsked) {
    constexpr int kThreads = 8;
    std::vector<std::thread> threads;
    std::vector<std::atomic<long>> tids(kThreads);
    std::atomic<bool> stop{false};
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            CThreadUtil::SetThreadName("thread " + std::to_string(i));
            tids[static_cast<size_t>(i)] = gettid();
            while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
    }
    for (auto& tid : tids) {
        while (tid == 0) std::this_thread::yield();
    }
    for (const size_t step : {3u, 1u, 7u, 5u}) {
        for (size_t asked = 0, at = step; asked < kThreads; ++asked, at = (at + step) % kThreads) {
            EXPECT_EQ("thread " + std::to_string(at), CThreadUtil::GetThreadName(tids[at])) << "in steps of " << step;
        }
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    for (const auto& tid : tids) EXPECT_EQ("", CThreadUtil::GetThreadName(tid));
}

TEST(ThreadUtilTest, StartsAndStopsFromManyThreadsLeaveNothing) {
    std::atomic<int> inside{0};
    std::atomic<bool> overlap{false};
    Worker worker([&] {
        if (++inside != 1) overlap = true;
        CToolUtil::sleep(3600);
        --inside;
    });
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                worker.startThread();
                worker.IsThreadRunning();
                worker.stopThread();
            }
        });
    }
    for (std::thread& user : users) user.join();
    EXPECT_FALSE(worker.stopThread());
    EXPECT_EQ(0, inside);
    EXPECT_FALSE(overlap);
}

}  // namespace
