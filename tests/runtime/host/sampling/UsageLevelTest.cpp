// Levels, averages and the stages of a breach, on plain numbers.
#include "sampling/UsageLevel.h"

#include "HostSupport.h"

using namespace zelhost;

TEST(UsageLevelTest, RisesAt80And100AndFallsBelow95And75Percent) {
    const struct {
        int before;
        int64_t value;
        int after;
    } cases[] = {
        {0, 0, 0},   {0, 799, 0}, {0, 800, 1}, {0, 999, 1},  {0, 1000, 2}, {0, 5000, 2},
        {1, 799, 1}, {1, 750, 1}, {1, 749, 0}, {1, 1000, 2}, {2, 999, 2},  {2, 950, 2},
        {2, 949, 1}, {2, 750, 1}, {2, 749, 0}, {2, 1000, 2}, {1, 0, 0},    {2, 0, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(NextLevel(c.before, c.value, 1000), c.after) << c.before << " " << c.value;
}

TEST(UsageLevelTest, WithoutAMaximumThereIsNoLevel) {
    for (int before : {0, 1, 2}) {
        EXPECT_EQ(NextLevel(before, 1000000, 0), 0);
        EXPECT_EQ(NextLevel(before, 1000000, -5), 0);
    }
    EXPECT_FALSE(IsBusy(100, 0));
}

TEST(UsageLevelTest, AveragesAreDifferencesOfSums) {
    Totals from, to;
    from.rounds = 10;
    from.cpuNs = 500;
    to.rounds = 12;
    to.wallNs = 2000000000;
    to.cpuNs = 500 + 1000000000;
    to.memKbSum = 300;
    to.fdSum = 14;
    to.readBytes = 4096;
    to.writeBytes = 2048000;
    const Averages a = AverageBetween(from, to);
    EXPECT_EQ(a.cpu100Times, 5000);
    EXPECT_EQ(a.memKb, 150);
    EXPECT_EQ(a.fds, 7);
    EXPECT_EQ(a.readKbps, 2);
    EXPECT_EQ(a.writeKbps, 1000);
    EXPECT_EQ(AverageBetween(to, to).cpu100Times, 0);
}

TEST(UsageLevelTest, TheRingKnowsHowFarBackItReaches) {
    TotalsRing<4> ring;
    for (uint64_t i = 0; i < 3; ++i) {
        Totals t;
        t.rounds = i;
        ring.Push(t);
    }
    EXPECT_EQ(ring.Back(0).rounds, 2u);
    EXPECT_EQ(ring.Back(2).rounds, 0u);
    EXPECT_EQ(ring.Back(3).rounds, 0u);
    EXPECT_FALSE(ring.Reaches(3));
    for (uint64_t i = 3; i < 10; ++i) {
        Totals t;
        t.rounds = i;
        ring.Push(t);
    }
    EXPECT_TRUE(ring.Reaches(3));
    EXPECT_EQ(ring.Back(3).rounds, 6u);
    EXPECT_EQ(ring.Back(99).rounds, 6u);
}

namespace {
std::string Steps(BreachTracker& tracker, const std::string& highs, uint64_t period) {
    std::string out;
    for (char c : highs) {
        switch (tracker.Round(c == 'h', period)) {
            case BreachStep::kNone: out += '.'; break;
            case BreachStep::kReached: out += 'r'; break;
            case BreachStep::kSustained: out += 'S'; break;
            case BreachStep::kKill: out += 'K'; break;
            case BreachStep::kRecovered: out += 'o'; break;
        }
    }
    return out;
}
}  // namespace

TEST(BreachTrackerTest, KillsOnlyAfterTwoWholePeriodsInARow) {
    const struct {
        const char *highs, *steps;
    } cases[] = {
        {"--hh-", "..r.o"},
        {"hhhhhhhhh", "r.S..K..K"},
        {"hhhhh-hhhhhh", "r.S..or.S..K"},
        {"hhh-hhh-hhh", "r.Sor.Sor.S"},
        {"-----", "....."},
    };
    for (const auto& c : cases) {
        BreachTracker tracker;
        EXPECT_EQ(Steps(tracker, c.highs, 3), c.steps) << c.highs;
    }
}

TEST(BreachTrackerTest, APeriodOfOneRoundWarnsBeforeItKills) {
    BreachTracker tracker;
    EXPECT_EQ(Steps(tracker, "hhh-h", 1), "SKKoS");
}

TEST(BreachTrackerTest, ARecoveryInEveryPeriodNeverEndsInAKill) {
    BreachTracker tracker;
    std::string highs;
    for (int i = 0; i < 100; ++i) highs += "hhhhh-";
    EXPECT_EQ(Steps(tracker, highs, 3).find('K'), std::string::npos);
}
