#include "Pulse.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "SteadyTime.h"

using namespace agent;

namespace {

constexpr int kPid = 77;

/// One component of a main process that judges every second, or as seldom as it may.
class PulseTest : public testing::Test {
protected:
    /// Returns: for how long it counts as hung.
    int64_t JudgeAt(int64_t now) {
        if (m_listens) m_pulses.Listen();
        m_component.runsSeconds = now - kStarted;
        std::vector<ComponentStatus> all{m_component};
        m_nextJudgement = m_pulses.Judge(all, now);
        m_what = all[0].hungWhat;
        return all[0].hungSeconds;
    }
    /// The greatest that was seen on the way to `until`.
    int64_t JudgeEachSecond(int64_t from, int64_t until, bool beats) {
        int64_t most = 0;
        for (int64_t now = from; now <= until; ++now) {
            if (beats && now % kBeatSeconds == 0) m_pulses.Note(kPid, FormatBeat(0), now);
            most = std::max(most, JudgeAt(now));
        }
        return most;
    }

    static constexpr int64_t kStarted = 1000;
    ComponentStatus m_component{
        "QorNet", "", ComponentState::kRunning, kPid, 0, 0, false, 0, 0, 0, false, "", false, false, 0, ""};
    ComponentPulses m_pulses;
    bool m_listens = true;
    std::string m_what;
    int64_t m_nextJudgement = 0;
};

TEST_F(PulseTest, WhoCannotBeHeardIsNotBlamed) {
    m_listens = false;
    EXPECT_EQ(0, JudgeEachSecond(kStarted, kStarted + 300, false));
    m_listens = true;
    EXPECT_EQ(0, JudgeEachSecond(kStarted + 301, kStarted + 360, false)) << "it has just begun to listen";
    EXPECT_EQ(60, JudgeAt(kStarted + 361));
}

TEST_F(PulseTest, WhoBeatsDoesNotHang) {
    EXPECT_EQ(0, JudgeEachSecond(kStarted, kStarted + 300, true));
}

TEST_F(PulseTest, SilenceIsAHangUntilTheNextBeat) {
    JudgeEachSecond(kStarted, kStarted + 104, true);
    EXPECT_EQ(0, JudgeEachSecond(kStarted + 105, kStarted + 123, false));
    EXPECT_EQ(20, JudgeAt(kStarted + 124));
    EXPECT_EQ("its main thread does nothing", m_what);
    EXPECT_EQ(21, JudgeAt(kStarted + 125));
    m_pulses.Note(kPid, FormatBeat(0), kStarted + 126);
    EXPECT_EQ(0, JudgeAt(kStarted + 126));
}

TEST_F(PulseTest, SaysWhenSilenceBecomesAHang) {
    JudgeEachSecond(kStarted, kStarted + 7, true);
    m_pulses.Note(kPid, FormatBeat(0), kStarted + 8);
    EXPECT_EQ(0, JudgeAt(kStarted + 10));
    EXPECT_EQ(kStarted + 28, m_nextJudgement);
    EXPECT_EQ(0, JudgeAt(kStarted + 19));
    EXPECT_EQ(20, JudgeAt(m_nextJudgement));
    EXPECT_EQ(kStarted + 29, m_nextJudgement) << "it may go on at any moment";
    m_component.program = true;
    JudgeAt(kStarted + 30);
    EXPECT_EQ(INT64_MAX, m_nextJudgement) << "nobody to judge";
}

TEST_F(PulseTest, LooksAsRareAsTheMainProcessMakesThemBlame) {
    for (int64_t now = kStarted; now <= kStarted + 100; now += 5) {
        if (now <= kStarted + 40) m_pulses.Note(kPid, FormatBeat(0), now - now % kBeatSeconds);
        EXPECT_EQ(now >= kStarted + 60, JudgeAt(now) > 0) << now;
    }
}

TEST_F(PulseTest, OneThatNeverSpokeHasTimeToStart) {
    EXPECT_EQ(0, JudgeEachSecond(kStarted, kStarted + 59, false));
    EXPECT_EQ(60, JudgeAt(kStarted + 60));
}

TEST_F(PulseTest, SamplingThatStandsStillIsAHang) {
    JudgeEachSecond(kStarted, kStarted + 20, true);
    m_pulses.Note(kPid, FormatBeat(25), kStarted + 21);
    EXPECT_EQ(25, JudgeAt(kStarted + 21));
    EXPECT_EQ("its sampling stands still", m_what);
    m_pulses.Note(kPid, FormatBeat(0), kStarted + 22);
    EXPECT_EQ(0, JudgeAt(kStarted + 22));
}

TEST_F(PulseTest, AStoppedOneIsNoHungOneNorAfterItGoesOn) {
    JudgeEachSecond(kStarted, kStarted + 20, true);
    m_component.suspended = true;
    EXPECT_EQ(0, JudgeEachSecond(kStarted + 21, kStarted + 90, false));
    m_component.suspended = false;
    EXPECT_EQ(0, JudgeEachSecond(kStarted + 91, kStarted + 109, false));
    EXPECT_EQ(20, JudgeAt(kStarted + 110));
}

TEST_F(PulseTest, WhoDidNotRunItselfBlamesNobody) {
    JudgeEachSecond(kStarted, kStarted + 20, true);
    EXPECT_EQ(0, JudgeAt(kStarted + 500)) << "what was said meanwhile is still to be read";
    EXPECT_EQ(0, JudgeEachSecond(kStarted + 501, kStarted + 519, false));
    EXPECT_EQ(20, JudgeAt(kStarted + 520));
}

TEST_F(PulseTest, OtherProgramsAndOldProcessesAreNotJudged) {
    m_component.program = true;
    EXPECT_EQ(0, JudgeEachSecond(kStarted, kStarted + 200, false));
    m_component.program = false;
    m_component.state = ComponentState::kWaiting;
    EXPECT_EQ(0, JudgeEachSecond(kStarted + 201, kStarted + 400, false));
}

TEST(BeatTest, OnlyABeatIsOne) {
    int64_t silent = -1;
    EXPECT_TRUE(ParseBeat(FormatBeat(31), silent));
    EXPECT_EQ(31, silent);
    for (const char* text : {"", "alive", "alive ", "alive -1", "alive 1x", "alive 1234567890", " alive 1", "dead 1"}) {
        EXPECT_FALSE(ParseBeat(text, silent)) << text;
    }
    EXPECT_EQ(31, silent);
}

TEST(OwnPulseTest, EachHalfIsJudgedByItself) {
    OwnPulse pulse;
    zelhost::SamplerFigures figures;
    figures.roundMs = 1000;
    EXPECT_EQ(0, pulse.MainSilentSeconds(500)) << "before the first beat";
    EXPECT_FALSE(pulse.HasBegun());
    pulse.Beat(999, figures);
    EXPECT_FALSE(pulse.HasBegun()) << "nothing was sampled";
    for (int64_t now = 1000; now <= 1096; now += kBeatSeconds) {
        figures.rounds += kBeatSeconds - 1;
        ++figures.missedRounds;
        pulse.Beat(now, figures);
        EXPECT_TRUE(pulse.HasBegun());
        EXPECT_EQ(0, pulse.SamplingSilentSeconds(now));
        EXPECT_EQ(now + kBeatSeconds, pulse.NextBeat(now));
    }
    figures.rounds += 2;
    pulse.Beat(1104, figures);
    EXPECT_EQ(0, pulse.SamplingSilentSeconds(1104));
    EXPECT_EQ(1112, pulse.NextBeat(1104));
    pulse.Beat(1112, figures);
    EXPECT_EQ(0, pulse.SamplingSilentSeconds(1112));
    EXPECT_EQ(1118, pulse.NextBeat(1112)) << "the last round was at 1098";
    pulse.Beat(1118, figures);
    EXPECT_EQ(20, pulse.SamplingSilentSeconds(1118));
    EXPECT_EQ(1120, pulse.NextBeat(1118)) << "it is told, and the rhythm goes on";
    EXPECT_EQ(0, pulse.MainSilentSeconds(1137));
    EXPECT_EQ(20, pulse.MainSilentSeconds(1138));
    figures.roundMs = 60000;
    pulse.Beat(1200, figures);
    EXPECT_EQ(0, pulse.SamplingSilentSeconds(1200)) << "long rounds are no silence";
}

TEST(RhythmTest, AllProcessesMeetAtTheMultiples) {
    EXPECT_EQ(1005, NextOfRhythm(1000, 5));
    EXPECT_EQ(1005, NextOfRhythm(1004, 5));
    EXPECT_EQ(1008, NextOfRhythm(1000, 8));
    EXPECT_EQ(1001, NextOfRhythm(1000, 1));
    EXPECT_EQ(1001, NextOfRhythm(1000, 0));
}

}  // namespace
