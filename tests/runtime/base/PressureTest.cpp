// The kernel's pressure texts and triggers.
#include "base/Pressure.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using base::FormatPressureTrigger;
using base::ParsePressure;

constexpr char kText[] =
    "some avg10=1.50 avg60=20.07 avg300=100.00 total=17572293\n"
    "full avg10=0.00 avg60=0.01 avg300=0.00 total=4294967296\n";

TEST(PressureTest, ReadsBothLines) {
    const auto pressure = ParsePressure(kText);
    ASSERT_TRUE(pressure && pressure->full);
    EXPECT_EQ(pressure->some.avg10_100times, 150);
    EXPECT_EQ(pressure->some.avg60_100times, 2007);
    EXPECT_EQ(pressure->some.avg300_100times, 10000);
    EXPECT_EQ(pressure->some.totalUs, 17572293U);
    EXPECT_EQ(pressure->full->avg60_100times, 1);
    EXPECT_EQ(pressure->full->totalUs, 4294967296U);
}

TEST(PressureTest, LivesWithoutTheSecondLine) {
    const auto pressure = ParsePressure("some avg10=0.00 avg60=0.00 avg300=0.00 total=7");
    ASSERT_TRUE(pressure);
    EXPECT_FALSE(pressure->full);
    EXPECT_EQ(pressure->some.totalUs, 7U);
}

TEST(PressureTest, TakesNothingElse) {
    for (const char* text :
         {"", "full avg10=0.00 avg60=0.00 avg300=0.00 total=7", "some avg10=0.00 avg60=0.00 total=7",
          "some xavg10=0.00 avg60=0.00 avg300=0.00 total=7", "some avg10x=0.00 avg60=0.00 avg300=0.00 total=7",
          "some avg10=0.0 avg60=0.00 avg300=0.00 total=7",
          "some avg10=-1.00 avg60=0.00 avg300=0.00 "
          "total=7",
          "some avg10=0.00 avg60=0.00 avg300=0.00 total=", "some avg10=0.00 avg60=0.00 avg300=0.00 total=7x",
          "some avg10=101.00 avg60=0.00 "
          "avg300=0.00 total=7",
          "some avg10=0.00 avg60=0.00 avg300=0.00 total=99999999999999999999",
          "sometimes avg10=0.00 avg60=0.00 avg300=0.00 total=7"}) {
        EXPECT_FALSE(ParsePressure(text)) << text;
    }
}

TEST(PressureTest, NoFigureMayBeMissingOrBad) {
    const std::string figures[] = {" avg10=1.00", " avg60=2.00", " avg300=3.00", " total=4"};
    const auto line = [&](size_t which, const std::string& instead) {
        std::string text = "some";
        for (size_t i = 0; i < 4; ++i) text += i == which ? instead : figures[i];
        return text;
    };
    ASSERT_TRUE(ParsePressure(line(4, "")));
    for (size_t which = 0; which < 4; ++which) {
        const std::string name = figures[which].substr(0, figures[which].find('=') + 1);
        for (const std::string& bad :
             {std::string(), name, name + "x", name + "-1.00", name + "1.000", name + "1.x0"}) {
            EXPECT_FALSE(ParsePressure(line(which, bad))) << line(which, bad);
        }
    }
}

TEST(PressureTest, ABadSecondLineIsNone) {
    const auto pressure = ParsePressure("some avg10=0.00 avg60=0.00 avg300=0.00 total=7\nfull avg10=x total=8\n");
    ASSERT_TRUE(pressure);
    EXPECT_FALSE(pressure->full);
}

TEST(PressureTest, TriggerIsInMicrosecondsOfTwoSeconds) {
    EXPECT_EQ(FormatPressureTrigger({false, 20}), "some 400000 2000000");
    EXPECT_EQ(FormatPressureTrigger({true, 100}), "full 2000000 2000000");
    EXPECT_EQ(FormatPressureTrigger({false, 1}), "some 20000 2000000");
}

TEST(PressureTest, TheKernelTakesATrigger) {
    if (!base::ReadPressure(base::PressureResource::kMemory)) GTEST_SKIP() << "this kernel has no pressure figures";
    for (const base::PressureResource resource : base::kAllPressureResources) {
        const auto armed = base::OpenPressureTrigger(resource, {false, 50});
        EXPECT_TRUE(armed) << base::PressureName(resource) << ": " << (armed ? "" : armed.GetError().Text());
    }
    EXPECT_FALSE(base::OpenPressureTrigger(base::PressureResource::kMemory, {false, 0})) << "no stall at all";
}

}  // namespace
