#include "JournalStream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

TEST(JournalStreamTest, OnlyTheDescriptorThatIsNamedIsTheJournals) {
    int ends[2];
    int others[2];
    ASSERT_EQ(0, pipe(ends));
    ASSERT_EQ(0, pipe(others));
    struct stat info {};
    ASSERT_EQ(0, fstat(ends[1], &info));
    const std::string name = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    EXPECT_TRUE(agent::IsJournalStream(name.c_str(), ends[1]));
    EXPECT_FALSE(agent::IsJournalStream(name.c_str(), others[1])) << "redirected since";
    EXPECT_FALSE(agent::IsJournalStream((name + "0").c_str(), ends[1]));
    for (const char* none : {"", ":", "0:0"}) EXPECT_FALSE(agent::IsJournalStream(none, ends[1])) << none;
    EXPECT_FALSE(agent::IsJournalStream(nullptr, ends[1]));
    for (const int fd : {ends[0], ends[1], others[0], others[1]}) close(fd);
    EXPECT_FALSE(agent::IsJournalStream(name.c_str(), ends[1]));
}
