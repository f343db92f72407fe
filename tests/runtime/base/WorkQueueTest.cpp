// Threads on demand: bounded in number, shared by jobs, ended with what they do.
#include "base/WorkQueue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/Files.h"
#include "support/Waiting.h"

namespace {

// By name: a checker of threads keeps one of its own.
int ThreadsNamed(const std::string& name) {
    int count = 0;
    for (const std::string& thread : support::NamesIn("/proc/self/task")) {
        count += support::ReadText("/proc/self/task/" + thread + "/comm") == name + "\n" ? 1 : 0;
    }
    return count;
}

TEST(WorkQueueTest, StartsNoThreadBeforeThereIsWork) {
    base::WorkQueue queue("worker", 4);
    EXPECT_EQ(0, ThreadsNamed("worker"));
    support::Signal done;
    ASSERT_TRUE(queue.Add([&] { done.Set(); }));
    ASSERT_TRUE(done.Wait());
    EXPECT_EQ(1, ThreadsNamed("worker"));
}

TEST(WorkQueueTest, JobsRunAtATimeUpToItsBoundAndTheRestAfterwards) {
    base::WorkQueue queue("worker", 2);
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

TEST(WorkQueueTest, JobsShareThreadsThatCarryItsName) {
    base::WorkQueue queue("worker", 4);
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

TEST(WorkQueueTest, StopWaitsForWhatRunsAndDropsWhatWaits) {
    base::WorkQueue queue("worker", 1);
    support::Signal begun;
    std::atomic<bool> ended{false};
    std::atomic<bool> second{false};
    ASSERT_TRUE(queue.Add([&] {
        begun.Set();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ended = true;
    }));
    ASSERT_TRUE(queue.Add([&] { second = true; }));
    ASSERT_TRUE(begun.Wait());
    queue.Stop();
    EXPECT_TRUE(ended);
    EXPECT_FALSE(second);
    EXPECT_FALSE(queue.Add([] {}));
}

TEST(WorkQueueTest, RefusesMoreThanItsBoundOfWaitingJobs) {
    base::WorkQueue queue("worker", 1);
    support::Signal begun;
    std::promise<void> release;
    ASSERT_TRUE(queue.Add([&] {
        begun.Set();
        release.get_future().wait();
    }));
    ASSERT_TRUE(begun.Wait());
    size_t taken = 0;
    while (taken < 1000 && queue.Add([] {})) ++taken;
    EXPECT_EQ(64u, taken);
    release.set_value();
}

}  // namespace
