// How long silence is believed: the default, and what the environment may say instead.
#include "kernel/Rhythm.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

struct QuietCase {
    const char* text;  ///< null: nothing is said
    int64_t seconds;
};

/// The lengths are read once in a process: each case has its own.
TEST(RhythmTest, SilenceLastsAMinuteOrWhatTheEnvironmentSays) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    for (const QuietCase& one : {QuietCase{nullptr, 60}, QuietCase{"1", 1}, QuietCase{"2", 2}, QuietCase{"59", 59},
                                 QuietCase{"60", 60}, QuietCase{"61", 60}, QuietCase{"0", 60}, QuietCase{"-1", 60},
                                 QuietCase{"", 60}, QuietCase{"x", 60}, QuietCase{"99999999999999999999", 60}}) {
        EXPECT_EXIT(
            {
                unsetenv("ZEL_QUIET_SECONDS");
                if (one.text != nullptr) setenv("ZEL_QUIET_SECONDS", one.text, 1);
                const bool quiet = zel::cgroup::MostQuietMs() == one.seconds * 1000;
                std::_Exit(quiet && zel::cgroup::MostBelievedMs() == one.seconds * 30000 ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << (one.text != nullptr ? one.text : "nothing");
    }
}

}  // namespace
