#include "Pulse.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace agent;

namespace {

constexpr int kPid = 77;

/// One component of a main process that judges every second.
class PulseTest : public testing::Test {
protected:
    /// Returns: for how long it counts as hung.
    int64_t JudgeAt(int64_t now) {
        if (m_listens) m_pulses.Listen();
        m_component.runsSeconds = now - kStarted;
        std::vector<ComponentStatus> all{m_component};
        m_pulses.Judge(all, now);
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
    ComponentStatus m_component{"QorNet", "", ComponentState::kRunning, kPid, 0, 0, false, 0, 0, 0, false, "", false,
                                0,        ""};
    ComponentPulses m_pulses;
    bool m_listens = true;
    std::string m_what;
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
    JudgeEachSecond(kStarted, kStarted + 100, true);
    EXPECT_EQ(0, JudgeEachSecond(kStarted + 101, kStarted + 119, false));
    EXPECT_EQ(20, JudgeAt(kStarted + 120));
    EXPECT_EQ("its main thread does nothing", m_what);
    EXPECT_EQ(21, JudgeAt(kStarted + 121));
    m_pulses.Note(kPid, FormatBeat(0), kStarted + 122);
    EXPECT_EQ(0, JudgeAt(kStarted + 122));
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
    for (int64_t now = 1000; now <= 1100; now += kBeatSeconds) {
        ++figures.rounds;
        pulse.Beat(now, figures);
        EXPECT_TRUE(pulse.HasBegun());
        EXPECT_EQ(0, pulse.SamplingSilentSeconds(now));
    }
    for (int64_t now = 1105; now < 1120; now += kBeatSeconds) pulse.Beat(now, figures);
    EXPECT_EQ(0, pulse.SamplingSilentSeconds(1119));
    pulse.Beat(1120, figures);
    EXPECT_EQ(20, pulse.SamplingSilentSeconds(1120));
    EXPECT_EQ(0, pulse.MainSilentSeconds(1139));
    EXPECT_EQ(20, pulse.MainSilentSeconds(1140));
    figures.roundMs = 60000;
    pulse.Beat(1200, figures);
    EXPECT_EQ(0, pulse.SamplingSilentSeconds(1200)) << "long rounds are no silence";
}

}  // namespace
