// Timers: periods, ids, killing from inside and outside, lifetimes.
#include "platform/zel/TimerEvent.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Waiting.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/ThreadUtil.h"

using support::Eventually;
using support::Signal;
using zel::CThreadUtil;
using zel::CTimerEvent;

namespace {

constexpr unsigned long kSoonMs = 1;
constexpr unsigned long kNeverMs = 3600UL * 1000;

class Owner final : public CTimerEvent {
public:
    explicit Owner(std::function<void(unsigned long)> body) : m_body(std::move(body)) {}
    void timeEvent(unsigned long timerId) override { m_body(timerId); }

private:
    const std::function<void(unsigned long)> m_body;
};

TEST(TimerEventTest, NamesHaveStableDifferentNumbers) {
    const unsigned long heartbeat = CTimerEvent::StringToMagicNum("main_heartbeat");
    EXPECT_NE(0UL, heartbeat);
    EXPECT_EQ(heartbeat, CTimerEvent::StringToMagicNum("main_heartbeat"));
    EXPECT_NE(heartbeat, CTimerEvent::StringToMagicNum("main_heartbeaT"));
    EXPECT_NE(0UL, CTimerEvent::StringToMagicNum(""));
    EXPECT_EQ(0xaf63dc4c8601ec8cUL, CTimerEvent::StringToMagicNum("a"));
}

TEST(TimerEventTest, FiresPeriodicallyWithItsIdOnTheOneTimerThread) {
    std::atomic<int> count{0};
    std::atomic<unsigned long> seenId{0};
    std::atomic<unsigned int> tid{0};
    std::atomic<unsigned int> otherTid{0};
    Owner owner([&](unsigned long id) {
        seenId = id;
        tid = CThreadUtil::GetCurrentThreadId();
        ++count;
    });
    Owner other([&](unsigned long) { otherTid = CThreadUtil::GetCurrentThreadId(); });
    const unsigned long id = owner.startTimer(kSoonMs, 1);
    const unsigned long otherId = other.startTimer(kSoonMs, 1);
    EXPECT_NE(0UL, id);
    EXPECT_NE(id, otherId);
    EXPECT_TRUE(Eventually([&] { return count >= 5 && otherTid != 0; }));
    EXPECT_EQ(id, seenId);
    EXPECT_EQ(tid, otherTid);
    EXPECT_NE(CThreadUtil::GetCurrentThreadId(), tid);
    EXPECT_EQ("zel-timer", CThreadUtil::GetThreadName(static_cast<long>(tid)));
    EXPECT_TRUE(owner.killTimer(id));
    EXPECT_TRUE(other.killTimer(otherId));
}

TEST(TimerEventTest, FirstCallIsAfterOnePeriodAndGridDoesNotDrift) {
    constexpr int kCalls = 20;
    constexpr std::chrono::milliseconds kPeriod{10};
    std::atomic<int> count{0};
    Signal done;
    Owner owner([&](unsigned long) {
        // Each callback takes half a period; were the next one due a period after its end, 20 would take 300 ms.
        std::this_thread::sleep_for(kPeriod / 2);
        if (++count == kCalls) done.Set();
    });
    const auto start = std::chrono::steady_clock::now();
    const unsigned long id = owner.startTimer(static_cast<unsigned long>(kPeriod.count()), 1);
    ASSERT_TRUE(done.Wait());
    EXPECT_GE(std::chrono::steady_clock::now() - start, kPeriod * kCalls);
    owner.killTimer(id);
}

TEST(TimerEventTest, CallbackOverItsPeriodIsNotFollowedByBurst) {
    constexpr std::chrono::milliseconds kPeriod{20};
    std::atomic<int> count{0};
    Owner owner([&](unsigned long) {
        // After a long first call the missed points are skipped: at most the one that is next may be close.
        if (count == 0) std::this_thread::sleep_for(kPeriod * 5);
        ++count;
    });
    const auto start = std::chrono::steady_clock::now();
    const unsigned long id = owner.startTimer(static_cast<unsigned long>(kPeriod.count()), 1);
    EXPECT_TRUE(Eventually([&] { return count >= 3; }));
    // First call at 1 period, busy until 6; the next two fall on the grid after that: 7 and 8 at the earliest.
    EXPECT_GE(std::chrono::steady_clock::now() - start, kPeriod * 7);
    owner.killTimer(id);
}

TEST(TimerEventTest, PeriodZeroIsRefused) {
    Owner owner([](unsigned long) {});
    EXPECT_EQ(0UL, owner.startTimer(0, 1));
    EXPECT_FALSE(owner.killTimer(0));
}

TEST(TimerEventTest, AHugePeriodIsAccepted) {
    std::atomic<int> count{0};
    Owner owner([&](unsigned long) { ++count; });
    const unsigned long id = owner.startTimer(~0UL, 1);
    EXPECT_NE(0UL, id);
    EXPECT_TRUE(owner.killTimer(id));
    EXPECT_EQ(0, count);
}

TEST(TimerEventTest, OnlyItsOwnerKillsATimerAndOnlyOnce) {
    Owner owner([](unsigned long) {});
    Owner stranger([](unsigned long) {});
    const unsigned long id = owner.startTimer(kNeverMs, 1);
    EXPECT_FALSE(stranger.killTimer(id));
    EXPECT_TRUE(owner.killTimer(id));
    EXPECT_FALSE(owner.killTimer(id));
}

TEST(TimerEventTest, KillWaitsForTheCallbackUnderWay) {
    Signal entered;
    std::atomic<bool> ended{false};
    Owner owner([&](unsigned long) {
        entered.Set();
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ended = true;
    });
    const unsigned long id = owner.startTimer(kSoonMs, 1);
    ASSERT_TRUE(entered.Wait());
    EXPECT_TRUE(owner.killTimer(id));
    EXPECT_TRUE(ended);
}

TEST(TimerEventTest, AKilledTimerIsNotEnteredAgain) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<bool> killed{false};
        std::atomic<bool> late{false};
        Owner owner([&](unsigned long) { late = late || killed; });
        const unsigned long id = owner.startTimer(kSoonMs, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));
        EXPECT_TRUE(owner.killTimer(id));
        killed = true;
        EXPECT_FALSE(late);
    }
}

TEST(TimerEventTest, ACallbackMayKillItsOwnTimer) {
    std::atomic<int> count{0};
    std::atomic<bool> killed{false};
    std::unique_ptr<Owner> owner;
    owner = std::make_unique<Owner>([&](unsigned long id) {
        ++count;
        killed = owner->killTimer(id);
    });
    const unsigned long id = owner->startTimer(kSoonMs, 1);
    EXPECT_TRUE(Eventually([&] { return killed.load(); }));
    EXPECT_FALSE(owner->killTimer(id));
    EXPECT_EQ(1, count);
}

TEST(TimerEventTest, ACallbackMayStartAnotherTimer) {
    std::atomic<unsigned long> second{0};
    std::atomic<bool> secondRan{false};
    std::unique_ptr<Owner> owner;
    owner = std::make_unique<Owner>([&](unsigned long id) {
        if (second == 0) {
            second = owner->startTimer(kSoonMs, 2);
        } else if (id == second) {
            secondRan = true;
        }
    });
    owner->startTimer(kSoonMs, 1);
    EXPECT_TRUE(Eventually([&] { return secondRan.load(); }));
}

TEST(TimerEventTest, TheSameMagicReplacesAndAnotherDoesNot) {
    std::atomic<int> count{0};
    Owner owner([&](unsigned long) { ++count; });
    const unsigned long first = owner.startTimer(kNeverMs, 1);
    const unsigned long second = owner.startTimer(kSoonMs, 1);
    const unsigned long third = owner.startTimer(kNeverMs, 2);
    EXPECT_NE(first, second);
    EXPECT_FALSE(owner.killTimer(first));
    EXPECT_TRUE(Eventually([&] { return count > 0; }));
    EXPECT_TRUE(owner.killTimer(second));
    EXPECT_TRUE(owner.killTimer(third));
}

TEST(TimerEventTest, DestructionEndsTheTimersAndWaits) {
    for (int round = 0; round < 50; ++round) {
        const auto alive = std::make_shared<std::atomic<bool>>(true);
        const auto touched = std::make_shared<std::atomic<bool>>(false);
        auto body = [alive, touched](unsigned long) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            if (!*alive) *touched = true;
        };
        {
            // The owner's own callback is gone when the base class's destructor runs, so the timers end first.
            Owner owner(body);
            const unsigned long one = owner.startTimer(kSoonMs, 1);
            const unsigned long two = owner.startTimer(kSoonMs, 2);
            std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));
            EXPECT_TRUE(owner.killTimer(one));
            EXPECT_TRUE(owner.killTimer(two));
        }
        *alive = false;
        EXPECT_FALSE(*touched);
    }
    Owner unstarted([](unsigned long) {});
    {
        Owner pending([](unsigned long) {});
        pending.startTimer(kNeverMs, 1);  // ended by the destructor
    }
}

TEST(TimerEventTest, AnObjectMayBeDestroyedInItsOwnCallback) {
    Signal destroyed;
    auto* owner = new std::unique_ptr<Owner>;
    *owner = std::make_unique<Owner>([owner, &destroyed](unsigned long) {
        const std::unique_ptr<std::unique_ptr<Owner>> holder(owner);
        auto* const doomed = holder->release();
        Signal* const signal = &destroyed;
        delete doomed;  // with it goes this very function object: only locals from here on
        signal->Set();
    });
    (*owner)->startTimer(kSoonMs, 1);
    EXPECT_TRUE(destroyed.Wait());
}

TEST(TimerEventTest, AnExceptionEndsOneCallAndNotTheTimer) {
    zel::LogOptions silent;
    silent.file = false;
    zel::ConfigureLog(silent);
    std::atomic<int> count{0};
    Owner owner([&](unsigned long) {
        if (++count == 1) throw std::runtime_error("deliberate");
        if (count == 2) throw 2;
    });
    const unsigned long id = owner.startTimer(kSoonMs, 1);
    EXPECT_TRUE(Eventually([&] { return count >= 4; }));
    EXPECT_TRUE(owner.killTimer(id));
    EXPECT_TRUE(zel::FlushLog());
}

TEST(TimerEventTest, ManyThreadsStartAndKill) {
    std::atomic<int> count{0};
    Owner owner([&](unsigned long) { ++count; });
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (unsigned long thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < 100; ++round) {
                const unsigned long id = owner.startTimer(kSoonMs, thread);
                if (id == 0 || !owner.killTimer(id)) ++lost;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, lost);
}

}  // namespace
