// Kernel releases, ranges and prefix lists as plain values.
#include "platform/zel/KernelVersion.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace zel;

namespace {

PackedKernelVersion Local(uint32_t majorPart, uint32_t minorPart, uint32_t patchPart, uint32_t build) {
    PackedKernelVersion local;
    local.packed = PackKernelVersion(majorPart, minorPart, patchPart);
    local.build = build;
    return local;
}

struct ReleaseCase {
    const char* release;
    bool ok;
    uint32_t majorPart, minorPart, patchPart, build;
};

struct RangeCase {
    const char* list;
    PackedKernelVersion local;
    bool inside;
};

struct PrefixCase {
    const char* list;
    const char* release;
    bool hit;
};

}  // namespace

TEST(KernelVersionTest, ReadsTheNumbersOfARelease) {
    const std::vector<ReleaseCase> cases = {
        {"4.9.93-010.x86_64", true, 4, 9, 93, 10},  // decimal, not octal
        {"4.9.151-014.x86_64", true, 4, 9, 151, 14},
        {"5.4.0-150-generic", true, 5, 4, 0, 150},  // the second piece alone
        {"6.1.0-13-cloud-amd64", true, 6, 1, 0, 13},
        {"6.1.0-13-cloud-arm64", true, 6, 1, 0, 13},
        {"6.12.43+deb13-arm64-16k", true, 6, 12, 43, 0},  // the page size of its kernel is no build
        {"5.10.0", true, 5, 10, 0, 0},                    // no build
        {"5.10.0+", true, 5, 10, 0, 0},
        {"5.10.0-", true, 5, 10, 0, 0},     // empty build
        {"5.10.0-rc1", true, 5, 10, 0, 0},  // a build that is no number
        {"5.10.0-.7", true, 5, 10, 0, 0},
        {"5.10.0-7", true, 5, 10, 0, 7},
        {"3.10.0-1160.el7.x86_64", true, 3, 10, 0, 1160},
        {"5.14.0-503.el9.aarch64+64k", true, 5, 14, 0, 503},
        {"4.300.2-1", true, 4, 300, 2, 1},
    };
    for (const ReleaseCase& c : cases) {
        KernelReleaseNumbers numbers;
        EXPECT_EQ(c.ok, ParseKernelRelease(c.release, numbers)) << c.release;
        EXPECT_EQ(c.majorPart, numbers.majorPart) << c.release;
        EXPECT_EQ(c.minorPart, numbers.minorPart) << c.release;
        EXPECT_EQ(c.patchPart, numbers.patchPart) << c.release;
        EXPECT_EQ(c.build, numbers.build) << c.release;
    }
}

TEST(KernelVersionTest, LeavesOutputAloneWithoutThreeNumbers) {
    for (const char* release : {"", "abc", "5", "5.10", "5.10.", "5.10-3", "5.x.1", ".5.10.1", "v5.10.1"}) {
        KernelReleaseNumbers numbers;
        numbers.majorPart = 71;
        numbers.build = 72;
        EXPECT_FALSE(ParseKernelRelease(release, numbers)) << release;
        EXPECT_EQ(71U, numbers.majorPart) << release;
        EXPECT_EQ(72U, numbers.build) << release;
    }
}

TEST(KernelVersionTest, PacksWithoutMasking) {
    EXPECT_EQ(0x0004095DU, PackKernelVersion(4, 9, 93));
    EXPECT_EQ(PackKernelVersion(5, 0, 0), PackKernelVersion(4, 256, 0));
    EXPECT_EQ(PackKernelVersion(4, 10, 0), PackKernelVersion(4, 9, 256));
    EXPECT_EQ(PackKernelVersion(4, 10, 44), PackKernelVersion(4, 9, 300));
    EXPECT_EQ(0U, PackKernelVersion(65536, 0, 0));  // and the major number wraps
}

TEST(KernelVersionTest, FindsTheKernelInARange) {
    const char* oneVersion = "4.9.93-010,4.9.93-012";
    const char* wide = "4.9.0-0,4.19.0-0";
    const char* several = "4.9.93-010,4.9.151-014 5.10.0-1,5.10.134-99";
    const std::vector<RangeCase> cases = {
        // the build decides at an equal end, each end on its own
        {oneVersion, Local(4, 9, 93, 9), false},
        {oneVersion, Local(4, 9, 93, 10), true},
        {oneVersion, Local(4, 9, 93, 11), true},
        {oneVersion, Local(4, 9, 93, 12), true},
        {oneVersion, Local(4, 9, 93, 13), false},
        {oneVersion, Local(4, 9, 92, 11), false},
        {oneVersion, Local(4, 9, 94, 11), false},
        // and nowhere else
        {wide, Local(4, 14, 7, 500), true},
        {wide, Local(4, 9, 0, 500), true},
        {wide, Local(4, 19, 0, 0), true},
        {wide, Local(4, 19, 0, 1), false},
        {"4.9.0-5,4.19.0-5", Local(4, 9, 0, 4), false},
        {"4.9.0-5,4.19.0-5", Local(4, 14, 0, 0), true},
        {"4.9.0-5,4.19.0-5", Local(4, 19, 0, 5), true},
        {"4.9.0-5,4.19.0-5", Local(4, 19, 0, 6), false},
        // several entries
        {several, Local(4, 9, 93, 10), true},
        {several, Local(4, 9, 100, 0), true},
        {several, Local(4, 9, 152, 0), false},
        {several, Local(5, 10, 0, 0), false},
        {several, Local(5, 10, 0, 1), true},
        {several, Local(5, 10, 134, 99), true},
        {several, Local(5, 10, 134, 100), false},
        // leading zeros are decimal
        {"4.9.93-010,4.9.93-010", Local(4, 9, 93, 10), true},
        {"4.9.93-010,4.9.93-010", Local(4, 9, 93, 8), false},
        {"04.009.093-1,04.009.093-1", Local(4, 9, 93, 1), true},
        // nothing lies in a range that is upside down
        {"5.10.0-1,4.9.0-1", Local(4, 14, 0, 1), false},
        // spilled numbers compare as they are, on both sides
        {"4.256.0-0,4.256.0-0", Local(5, 0, 0, 0), true},
        // unsigned: a version beyond 2^31 is large, not negative
        {"1.0.0-0,32768.0.0-0", Local(32768, 0, 0, 0), true},
        {"1.0.0-0,40000.0.0-0", Local(33000, 0, 0, 0), true},
        {"40000.0.0-0,50000.0.0-0", Local(33000, 0, 0, 0), false},
    };
    for (const RangeCase& c : cases) {
        EXPECT_EQ(c.inside, IsKernelInRangeList(c.list, c.local))
            << c.list << " packed " << c.local.packed << " build " << c.local.build;
    }
}

TEST(KernelVersionTest, SkipsMalformedRangeEntriesAndCountsTheNext) {
    const std::vector<std::string> malformed = {
        "",  // two blanks in a row
        ",",
        "4.9.93-1",                    // one bound
        "4.9.93-1,4.9.95-1,4.9.99-1",  // three bounds
        "4.9.93,4.9.151",              // no build
        "4.9.93-1,4.9.151",            // one build
        "4.9.93,4.9.151-1",
        "4.9.93-1-2,4.9.151-1",  // two builds
        "4.9-1,4.10-1",          // two numbers
        "4.9.90-1,4.10-1",
        "4.9.0.1-1,4.9.99.1-1",  // four numbers
        "4.9.90-1;4.9.99-1",
        "\t",
        "4.9.90-1\t4.9.99-1",  // a tab separates nothing
    };
    const PackedKernelVersion local = Local(4, 9, 93, 5);
    for (const std::string& entry : malformed) {
        EXPECT_FALSE(IsKernelInRangeList(entry, local)) << entry;
        EXPECT_FALSE(IsKernelInRangeList(entry, Local(0, 0, 0, 0))) << entry << " is none from 0 to 0";
        EXPECT_TRUE(IsKernelInRangeList(entry + " 4.9.90-1,4.9.99-1", local)) << entry;
        EXPECT_TRUE(IsKernelInRangeList("4.9.90-1,4.9.99-1 " + entry, local)) << entry;
    }
}

TEST(KernelVersionTest, LooksAtTheEntriesOfAPrefixList) {
    const char* blacklist = "4.9.93-010 4.9.93-012 4.9.135-013 4.9.151-014";
    const std::vector<PrefixCase> cases = {
        {blacklist, "4.9.93-010.x86_64", true},
        {blacklist, "4.9.93-0101", true},  // plain prefix
        {blacklist, "4.9.93-012.x86_64", true},
        {blacklist, "4.9.135-013.x86_64", true},
        {blacklist, "4.9.151-014.x86_64", true},
        {blacklist, "4.9.93-011.x86_64", false},
        {blacklist, "4.9.93-01", false},  // shorter than the entry
        {blacklist, " 4.9.93-010", false},
        {"4.9.93-010", "4.9.93-010", true},
        {"4.9", "4.90.1", true},
        {"5.4.0-Generic", "5.4.0-generic", false},  // case counts
        {"  4.9.93-010  ", "4.9.93-010.x86_64", true},
        {"5.4  4.9", "4.9.1", true},  // an empty entry between two blanks is no prefix of everything
        {" ", "4.9.1", false},
        {"   ", "4.9.1", false},
        {"\t4.9\r\n", "4.9.1", true},  // each entry is trimmed
        {"5.4\t4.9", "4.9.1", false},  // but only a blank separates
        {"", "4.9.1", false},
        {"4.9", "", false},
        {"", "", false},
    };
    for (const PrefixCase& c : cases) {
        EXPECT_EQ(c.hit, HasKernelPrefix(c.list, c.release)) << "[" << c.list << "] [" << c.release << "]";
    }
}
