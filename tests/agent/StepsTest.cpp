#include "Steps.h"

#include <gtest/gtest.h>

#include <string>

using namespace agent;

namespace {

/// An owner whose second step fails when told to.
struct Owner {
    std::string journal;
    int second = kExitClean;

    int First() { return Note("+1 ", kExitClean); }
    int Second() { return Note("+2 ", second); }
    int Third() { return Note("+3 ", kExitClean); }
    void UndoFirst() { journal += "-1 "; }
    void UndoSecond() { journal += "-2 "; }
    void UndoThird() { journal += "-3 "; }
    int Note(const char* text, int code) {
        journal += text;
        return code;
    }
};

Steps<Owner> Make(Owner& owner) {
    return Steps<Owner>(
        owner,
        {{&Owner::First, &Owner::UndoFirst}, {&Owner::Second, &Owner::UndoSecond}, {&Owner::Third, &Owner::UndoThird}});
}

}  // namespace

TEST(StepsTest, AreTakenBackInReverseOrderAndOnce) {
    Owner owner;
    Steps<Owner> steps = Make(owner);
    EXPECT_EQ(kExitClean, steps.Run());
    steps.TakeBack();
    steps.TakeBack();
    EXPECT_EQ("+1 +2 +3 -3 -2 -1 ", owner.journal);
}

TEST(StepsTest, AFailedStepIsTakenBackAndNoLaterOneIsBegun) {
    Owner owner;
    owner.second = kExitServices;
    Steps<Owner> steps = Make(owner);
    EXPECT_EQ(kExitServices, steps.Run());
    steps.TakeBack();
    EXPECT_EQ("+1 +2 -2 -1 ", owner.journal);
}

TEST(StepsTest, AStepWithNothingToTakeBackIsPassedOver) {
    Owner owner;
    Steps<Owner> steps(owner, {{&Owner::First, &Owner::UndoFirst}, {&Owner::Second, nullptr}});
    EXPECT_EQ(kExitClean, steps.Run());
    steps.TakeBack();
    EXPECT_EQ("+1 +2 -1 ", owner.journal);
}

TEST(StepsTest, NothingIsTakenBackBeforeAnythingRan) {
    Owner owner;
    Make(owner).TakeBack();
    EXPECT_EQ("", owner.journal);
}
