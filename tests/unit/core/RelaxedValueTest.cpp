// A pointer that others read while it is set.
#include "RelaxedValue.h"

#include <gtest/gtest.h>

TEST(PublishedPointerTest, IsTheObjectThatWasSet) {
    struct Thing {
        int value;
    };
    Thing one{1}, two{2};
    PublishedPointer<Thing> pointer;
    EXPECT_EQ(nullptr, pointer);
    pointer = &one;
    EXPECT_EQ(&one, pointer);
    EXPECT_EQ(1, pointer->value);
    EXPECT_EQ(&two, (pointer = &two));
    EXPECT_EQ(2, pointer->value);
}
