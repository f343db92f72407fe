#include "EventTail.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "support/Files.h"

using namespace agent;

namespace {
class EventTailTest : public ::testing::Test {
protected:
    void Write(const std::string& text) { ASSERT_TRUE(support::WriteText(m_path, text)); }
    support::TempDir m_directory;
    const std::string m_path = m_directory / "events";
};
}  // namespace

TEST_F(EventTailTest, GivesTheLastLinesOldestFirstWithoutWhatIsNone) {
    Write(
        "{\"id\":\"a-1\",\"time\":1,\"type\":\"T\",\"body\":\"{}\"}\nnot "
        "json\n{\"id\":\"a-2\",\"time\":2,\"type\":\"T\"}\n"
        "[1]\n{\"id\":\"a-3\",\"time\":3,\"type\":\"T\"}\n{\"id\":\"a-4\",\"half");
    std::vector<TailEvent> events = ReadEventTail(m_path, 2);
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ("a-2", events[0].id);
    EXPECT_EQ("a-3", events[1].id);
}

TEST_F(EventTailTest, AMissingFileAndALinkGiveNothing) {
    EXPECT_TRUE(ReadEventTail("/nowhere/events", 5).empty());
    std::string link = m_path + ".link";
    ASSERT_EQ(0, symlink(m_path.c_str(), link.c_str()));
    Write("{\"id\":\"a-1\",\"time\":1,\"type\":\"T\",\"body\":\"{}\"}\n");
    EXPECT_TRUE(ReadEventTail(link, 5).empty());
    unlink(link.c_str());
    EXPECT_EQ(1u, ReadEventTail(m_path, 5).size());
}

TEST_F(EventTailTest, ReadsTheEndOfALongFileOnly) {
    std::string text;
    for (int i = 0; i < 20000; ++i)
        text += "{\"id\":\"a-" + std::to_string(i) + "\",\"time\":1,\"type\":\"T\",\"body\":\"\"}\n";
    Write(text);
    std::vector<TailEvent> events = ReadEventTail(m_path, 3);
    ASSERT_EQ(3u, events.size());
    EXPECT_EQ("a-19999", events[2].id);
}
