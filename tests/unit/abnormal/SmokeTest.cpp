#include <gtest/gtest.h>

#include "support/MonitorFixture.h"

using SmokeTest = MonitorFixture;

TEST_F(SmokeTest, ConstructsOnTheScriptedPlatform) { EXPECT_NE(nullptr, &pri()); }
