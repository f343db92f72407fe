// The conversions between configured maxima and applied limits, by table.
#include "core/LimitConversion.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

struct MemCase {
    int in, out;
};
struct CpuCase {
    long in, out;
};

}  // namespace

TEST(LimitConversionTest, WidensMemoryByHalfUpToHundredMegabytes) {
    const MemCase cases[] = {
        {INT_MIN, INT_MIN},
        {-5, -5},
        {0, 0},
        {1, 1},  // integer division
        {2, 3},
        {3, 4},
        {199, 298},
        {200, 300},
        {201, 301},
        {1024, 1124},
        {INT_MAX - 101, INT_MAX - 1},
        {INT_MAX - 100, INT_MAX},
        {INT_MAX - 99, INT_MAX},
        {INT_MAX, INT_MAX},
    };
    for (const MemCase& c : cases) {
        for (const bool cpuAll : {false, true}) {
            long cpu = 0;
            int mem = c.in;
            RelaxMultiCgroupLimits(cpu, mem, cpuAll);
            EXPECT_EQ(c.out, mem) << c.in << " cpuAll=" << cpuAll;
            EXPECT_EQ(0, cpu);
        }
    }
}

TEST(LimitConversionTest, WidensCpuByOneHalfUpToFivePercentPoints) {
    const CpuCase cases[] = {
        {LONG_MIN, LONG_MIN},
        {-10, -10},
        {0, 0},
        {1, 1},  // integer division
        {2, 3},
        {4, 6},
        {9, 13},
        {10, 15},
        {11, 16},
        {20, 25},
        {100, 105},
        {2147483641L, 2147483646L},
        {2147483642L, 2147483647L},
        {2147483643L, 2147483647L},
        {2147483647L, 2147483647L},
        {2147483648L, 2147483647L},
        {4294967296L, 2147483647L},
        {LONG_MAX / 2, 2147483647L},
        {LONG_MAX, 2147483647L},
    };
    for (const CpuCase& c : cases) {
        long cpu = c.in;
        int mem = 0;
        RelaxMultiCgroupLimits(cpu, mem, false);
        EXPECT_EQ(c.out, cpu) << c.in;
        EXPECT_EQ(0, mem);
    }
}

TEST(LimitConversionTest, LeavesCpuAloneWhenItIsOfTheWholeMachine) {
    for (const long in : {LONG_MIN, -1L, 0L, 1L, 10L, 2147483647L, 2147483648L, LONG_MAX}) {
        long cpu = in;
        int mem = 200;
        RelaxMultiCgroupLimits(cpu, mem, true);
        EXPECT_EQ(in, cpu);
        EXPECT_EQ(300, mem);
    }
}

TEST(LimitConversionTest, TurnsMegabytesIntoSaturatedKilobytes) {
    const MemCase cases[] = {
        {INT_MIN, 0},       {-5, 0}, {0, 0}, {1, 1024}, {200, 204800}, {2097151, 2147482624}, {2097152, INT_MAX},
        {INT_MAX, INT_MAX},
    };
    for (const MemCase& c : cases) EXPECT_EQ(c.out, MbToKb(c.in)) << c.in;
}

TEST(LimitConversionTest, AddsOneHalfToTheSaturatedKilobytes) {
    const MemCase cases[] = {
        {INT_MIN, 0},
        {-5, 0},
        {0, 0},
        {1, 1536},
        {200, 307200},
        {1398101, 2147483136},
        {1398102, INT_MAX},
        {2097152, INT_MAX},
        {INT_MAX, INT_MAX},
    };
    for (const MemCase& c : cases) EXPECT_EQ(c.out, MbToKbWithHeadroom(c.in)) << c.in;
}
