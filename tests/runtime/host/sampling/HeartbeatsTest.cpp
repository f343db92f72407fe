// The clock and the list of threads that report that they are alive.
#include "sampling/Heartbeats.h"

#include <vector>

#include "HostSupport.h"

TEST(HeartbeatsTest, AStoppedProcessIsNoStalledThread) {
    zelhost::CHeartbeats heartbeats;
    std::vector<ThreadStall> changes;
    heartbeats.Beat(7, "worker", 10);
    heartbeats.Round(3600 * 1000, 1000, changes);  // an hour in which no round could be made
    EXPECT_TRUE(changes.empty());
    for (int i = 0; i < 8; ++i) heartbeats.Round(1000, 1000, changes);
    EXPECT_TRUE(changes.empty());
    heartbeats.Round(1000, 1000, changes);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].silentMs, 11000);
    EXPECT_EQ(heartbeats.Stalled(), 1u);
    heartbeats.Remove(7);
    EXPECT_EQ(heartbeats.Stalled(), 0u);
    EXPECT_EQ(heartbeats.Count(), 0u);
}

TEST(HeartbeatsTest, ATimeoutOfZeroEndsTheSupervision) {
    zelhost::CHeartbeats heartbeats;
    std::vector<ThreadStall> changes;
    heartbeats.Beat(7, "worker", 1);
    heartbeats.Beat(7, "worker", 0);
    EXPECT_EQ(heartbeats.Count(), 0u);
    heartbeats.Round(2000, 1000, changes);
    heartbeats.Round(2000, 1000, changes);
    EXPECT_TRUE(changes.empty());
}

TEST(HeartbeatsTest, MoreThreadsThanTheBoundAreNotTaken) {
    support::TakeLog();
    zelhost::CHeartbeats heartbeats;
    for (unsigned int tid = 1; tid <= zelhost::CHeartbeats::kMaxThreads + 10; ++tid) heartbeats.Beat(tid, "w", 5);
    EXPECT_EQ(heartbeats.Count(), zelhost::CHeartbeats::kMaxThreads);
    EXPECT_EQ(support::TakeLog().size(), 1u) << "told once";
}
