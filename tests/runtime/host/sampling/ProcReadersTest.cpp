// Kernel texts, good and bad, and the counting of descriptors.
#include "sampling/ProcReaders.h"

#include <fcntl.h>
#include <unistd.h>

#include "HostSupport.h"

using namespace zelhost;

TEST(ProcReadersTest, StatmGivesTheResidentPages) {
    int64_t pages = -1;
    EXPECT_TRUE(ParseStatmResident("1000 123 45 1 0 60 0\n", pages));
    EXPECT_EQ(pages, 123);
    for (const char* bad : {"", "1000", "1000 ", "x 1", "1000 -3", "1000 99999999999999999999", "\n1 2"}) {
        pages = 7;
        EXPECT_FALSE(ParseStatmResident(bad, pages)) << bad;
        EXPECT_EQ(pages, 7);
    }
}

TEST(ProcReadersTest, IoTakesTheStorageCounters) {
    ProcIo io;
    EXPECT_TRUE(
        ParseProcIo("rchar: 1\nwchar: 2\nsyscr: 3\nsyscw: 4\nread_bytes: 4096\nwrite_bytes: 8192\n"
                    "cancelled_write_bytes: 1\n",
                    io));
    EXPECT_EQ(io.readBytes, 4096u);
    EXPECT_EQ(io.writeBytes, 8192u);
    for (const char* bad : {"", "rchar: 1\n", "\nread_bytes: 1\n", "\nread_bytes: x\nwrite_bytes: 1\n",
                            "\nread_bytes: 1\ncancelled_write_bytes: 5\n"}) {
        ProcIo untouched;
        untouched.readBytes = 5;
        EXPECT_FALSE(ParseProcIo(bad, untouched)) << bad;
        EXPECT_EQ(untouched.readBytes, 5u);
    }
}

TEST(ProcReadersTest, LoadTakesTheFirstNumber) {
    float load = 0;
    EXPECT_TRUE(ParseLoadAvg("12.05 1.00 0.50 2/300 4711\n", load));
    EXPECT_NEAR(load, 12.05, 0.001);
    for (const char* bad : {"", "x", "12", "12.", ".5", "-1.0", "99999999999.0"}) {
        load = 3;
        EXPECT_FALSE(ParseLoadAvg(bad, load)) << bad;
        EXPECT_EQ(load, 3);
    }
}

TEST(ProcReadersTest, StatBearsHostileNames) {
    const std::string rest =
        " S 1 2 3 0 -1 4194304 10 0 0 0 150 25 0 0 20 0 1 0 98765 1000000 321 "
        "18446744073709551615";
    for (const std::string name : {"plain", "with blank", "a) R 1 2 3", ")))", ""}) {
        ProcStat stat;
        ASSERT_TRUE(ParseProcStat(("42 (" + name + ")" + rest).c_str(), stat)) << name;
        EXPECT_EQ(stat.state, 'S');
        EXPECT_EQ(stat.userTicks, 150u);
        EXPECT_EQ(stat.systemTicks, 25u);
        EXPECT_EQ(stat.startTicks, 98765u);
        EXPECT_EQ(stat.residentPages, 321);
    }
    for (const char* bad : {"", "42", "42 (x", "42 (x)", "42 (x) ", "42 (x) S", "42 (x) S 1 2 3", "42 (x) S a b c"}) {
        ProcStat stat;
        EXPECT_FALSE(ParseProcStat(bad, stat)) << bad;
    }
}

TEST(ProcReadersTest, EveryTruncationOfARealStatIsBorne) {
    CKeptFile file;
    char text[1024];
    ASSERT_TRUE(file.Open("/proc/self/stat"));
    ASSERT_GT(file.Read(text, sizeof(text)), 0);
    ProcStat whole;
    ASSERT_TRUE(ParseProcStat(text, whole));
    const std::string all = text;
    for (size_t length = 0; length < all.size(); ++length) {
        ProcStat part;
        ParseProcStat(all.substr(0, length).c_str(), part);
    }
}

TEST(ProcReadersTest, AKeptFileGivesFreshContentWithoutAnotherOpen) {
    support::TempDir dir;
    support::WriteText(dir / "f", "first");
    CKeptFile file;
    ASSERT_TRUE(file.Open((dir / "f").c_str()));
    char text[16];
    EXPECT_EQ(file.Read(text, sizeof(text)), 5);
    EXPECT_STREQ(text, "first");
    support::WriteText(dir / "f", "second");
    EXPECT_EQ(file.Read(text, sizeof(text)), 6);
    EXPECT_STREQ(text, "second");
    EXPECT_EQ(file.Read(text, 3), 2);
    EXPECT_STREQ(text, "se");
    EXPECT_FALSE(file.Open((dir / "none").c_str()));
}

TEST(ProcReadersTest, DescriptorsAreCountedOneByOne) {
    CDescriptorCounter counter;
    ASSERT_TRUE(counter.Open());
    const int64_t before = counter.Count();
    ASSERT_GT(before, 2);
    std::vector<base::Fd> fds;
    for (int i = 0; i < 20; ++i) fds.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(counter.Count(), before + 20);
    fds.clear();
    EXPECT_EQ(counter.Count(), before);
}
