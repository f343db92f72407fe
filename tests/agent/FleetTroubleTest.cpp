// What the relay says of the fleet, as the main process keeps it.
#include "FleetTrouble.h"

#include <gtest/gtest.h>

namespace agent {
namespace {

TEST(FleetTroubleTest, IsWhatWasSaidLastForThreeMinutes) {
    FleetTrouble trouble;
    EXPECT_EQ(trouble.Get(1000000), "");
    trouble.Note("no right", 500);
    EXPECT_EQ(trouble.Get(500), "no right");
    EXPECT_EQ(trouble.Get(680), "no right");
    EXPECT_EQ(trouble.Get(681), "") << "the relay would have said it again";
    trouble.Note("no right", 681);
    EXPECT_EQ(trouble.Get(861), "no right");
    trouble.Note("", 700);
    EXPECT_EQ(trouble.Get(700), "");
}

TEST(FleetTroubleTest, MovesNoCursorAndHasAnEnd) {
    FleetTrouble trouble;
    trouble.Note("a\x1b[31m\nb", 1);
    EXPECT_EQ(trouble.Get(1), "a\\x1B[31m\\x0Ab");
    trouble.Note(std::string(5000, 'x'), 1);
    EXPECT_EQ(trouble.Get(1), std::string(400, 'x'));
}

}  // namespace
}  // namespace agent
