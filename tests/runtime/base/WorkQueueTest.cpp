// Threads on demand: bounded in number, shared by jobs, ended with what they do.
#include "base/WorkQueue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/Faults.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace {

/// A thread that was joined is still listed for a moment: the kernel says that it has ended before it takes it away.
bool NoWorkers() {
    return support::Eventually([] { return support::ThreadsNamed("worker") == 0; });
}

class WorkQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto started = base::IoLoop::Start("loop");
        ASSERT_TRUE(started) << started.GetError().Text();
        loop = std::move(*started);
    }

    std::unique_ptr<base::IoLoop> loop;
};

TEST_F(WorkQueueTest, StartsNoThreadBeforeThereIsWork) {
    base::WorkQueue queue(*loop, "worker", 4);
    EXPECT_EQ(0u, support::ThreadsNamed("worker"));
    support::Signal done;
    ASSERT_TRUE(queue.Add([&] { done.Set(); }));
    ASSERT_TRUE(done.Wait());
    EXPECT_EQ(1u, support::ThreadsNamed("worker"));
}

TEST_F(WorkQueueTest, JobsRunAtATimeUpToItsBoundAndTheRestAfterwards) {
    base::WorkQueue queue(*loop, "worker", 2);
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::atomic<int> running{0};
    std::atomic<int> done{0};
    for (int count = 0; count < 5; ++count) {
        ASSERT_TRUE(queue.Add([&] {
            ++running;
            released.wait();
            ++done;
        }));
    }
    EXPECT_TRUE(support::Eventually([&] { return running == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(2, running);
    release.set_value();
    EXPECT_TRUE(support::Eventually([&] { return done == 5; }));
}

TEST_F(WorkQueueTest, JobsShareThreadsThatCarryItsName) {
    base::WorkQueue queue(*loop, "worker", 4);
    std::set<std::thread::id> threads;
    char name[16] = {};
    for (int count = 0; count < 10; ++count) {
        support::Signal done;
        ASSERT_TRUE(queue.Add([&] {
            threads.insert(std::this_thread::get_id());
            pthread_getname_np(pthread_self(), name, sizeof name);
            done.Set();
            throw 1;  // ends the job, not the thread
        }));
        ASSERT_TRUE(done.Wait());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(1u, threads.size());
    EXPECT_STREQ("worker", name);
}

TEST_F(WorkQueueTest, StopWaitsForWhatRunsAndDropsWhatWaits) {
    base::WorkQueue queue(*loop, "worker", 1);
    support::Signal begun;
    std::atomic<bool> ended{false};
    std::atomic<bool> second{false};
    ASSERT_TRUE(queue.Add([&] {
        begun.Set();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ended = true;
    }));
    const auto held = std::make_shared<int>();
    ASSERT_TRUE(queue.Add([&, held] { second = true; }));
    ASSERT_TRUE(begun.Wait());
    queue.Stop();
    EXPECT_EQ(1, held.use_count()) << "with what it holds";
    EXPECT_TRUE(ended);
    EXPECT_FALSE(second);
    EXPECT_FALSE(queue.Add([] {}));
}

TEST_F(WorkQueueTest, StopDoesNotWaitForThreadsWithoutWork) {
    const auto begin = std::chrono::steady_clock::now();
    for (int round = 0; round < 20; ++round) {  // a thread may still be on its way to where it waits
        base::WorkQueue queue(*loop, "worker", 1, std::chrono::minutes(2));
        const auto held = std::make_shared<int>();
        ASSERT_TRUE(queue.Add([held] {}));
        ASSERT_TRUE(support::Eventually([&] { return held.use_count() == 1; })) << "the job is gone";
        std::this_thread::yield();
        queue.Stop();
        EXPECT_TRUE(NoWorkers());
        ASSERT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(1));
    }
}

TEST_F(WorkQueueTest, RefusesMoreThanItsBoundOfWaitingJobs) {
    // Before the queue, whose end waits for the job that uses them.
    support::Signal begun;
    support::Signal release;
    base::WorkQueue queue(*loop, "worker", 1);
    ASSERT_TRUE(queue.Add([&] {
        begun.Set();
        EXPECT_TRUE(release.Wait());
    }));
    ASSERT_TRUE(begun.Wait());
    size_t taken = 0;
    while (taken < 1000 && queue.Add([] {})) ++taken;
    EXPECT_EQ(64u, taken);
    release.Set();
}

TEST_F(WorkQueueTest, ThreadsEndWithoutWorkAndBeginAgain) {
    base::WorkQueue queue(*loop, "worker", 2, std::chrono::milliseconds(30));
    std::set<std::thread::id> threads;
    for (int round = 0; round < 3; ++round) {
        support::Signal first;
        support::Signal second;
        // Each waits for the other: two threads.
        std::atomic<int> done{0};
        ASSERT_TRUE(queue.Add([&] {
            first.Set();
            EXPECT_TRUE(second.Wait());
            ++done;
        }));
        ASSERT_TRUE(queue.Add([&] {
            second.Set();
            EXPECT_TRUE(first.Wait());
            ++done;
        }));
        EXPECT_TRUE(support::Eventually([&] { return done == 2; }));
        EXPECT_TRUE(NoWorkers()) << "round " << round;
    }
}

TEST_F(WorkQueueTest, EndsWhileItsThreadsDo) {
    for (int round = 0; round < 200; ++round) {
        base::WorkQueue queue(*loop, "worker", 2, std::chrono::milliseconds(round % 3));
        std::atomic<int> done{0};
        for (int count = 0; count < 3; ++count) ASSERT_TRUE(queue.Add([&] { ++done; }));
        ASSERT_TRUE(support::Eventually([&] { return done == 3; }));
        if (round % 2 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(NoWorkers());
}

TEST_F(WorkQueueTest, JobsWaitForAThreadThatIsRefused) {
    base::WorkQueue queue(*loop, "worker", 1);
    std::string order;
    support::Signal done;
    {
        const faults::Failing refused(faults::Call::kThreadCreate, EAGAIN, 1, 3);
        ASSERT_TRUE(queue.Add([&] { order += "a"; }));
        ASSERT_TRUE(queue.Add([&] { order += "b"; }));
        ASSERT_TRUE(queue.Add([&] {
            order += "c";
            done.Set();
        }));
    }
    EXPECT_TRUE(NoWorkers());
    EXPECT_TRUE(done.Wait()) << "nobody adds a job, and it is tried again";
    queue.Stop();
    EXPECT_EQ("abc", order);
}

TEST_F(WorkQueueTest, ARefusedThreadIsTriedOnceAtATime) {
    base::WorkQueue queue(*loop, "worker", 2);
    std::unique_ptr<faults::Failing> refused;
    std::atomic<int> done{0};
    support::Signal retried;
    int calls = 0;
    loop->Run([&] {
        refused = std::make_unique<faults::Failing>(faults::Call::kThreadCreate, EAGAIN, 1, 1000);
        for (int count = 0; count < 3; ++count) EXPECT_TRUE(queue.Add([&] { ++done; }));
        EXPECT_EQ(3, refused->Calls());
        // Due right after the queue's own, and before what that one may ask for.
        loop->PostLater(base::WorkQueue::kAgain, [&] {
            calls = refused->Calls();
            refused.reset();
            retried.Set();
        });
    });
    ASSERT_TRUE(retried.Wait());
    EXPECT_EQ(6, calls) << "once for each job";
    EXPECT_TRUE(support::Eventually([&] { return done == 3; }));
}

TEST_F(WorkQueueTest, StopLosesNoThreadWhileOneIsRefused) {
    auto queue = std::make_unique<base::WorkQueue>(*loop, "worker", 1);
    const faults::Failing refused(faults::Call::kThreadCreate, EAGAIN);
    ASSERT_TRUE(queue->Add([] { ADD_FAILURE() << "it was dropped"; }));
    queue.reset();
    std::this_thread::sleep_for(2 * base::WorkQueue::kAgain);
    loop->Run([] {});
}

}  // namespace
