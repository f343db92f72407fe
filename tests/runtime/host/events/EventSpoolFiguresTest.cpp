// What the spool says of itself, and what of it outlasts the process: counts, cursors, a file that cannot be opened.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/NoGrowth.h"
#include "events/SpoolMessages.h"

using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

class EventSpoolFiguresTest : public ::testing::Test {
protected:
    void Open(CEventSpool& spool, const std::vector<std::string>& sinks = {"one"}) {
        ASSERT_TRUE(support::IsOk(spool.Open(m_path, 1 << 20, 3)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks(sinks)));
    }
    static Lines Bodies(CEventSpool& spool, const std::string& sink, size_t most = 100, size_t bytes = 1 << 30) {
        const auto messages = spool.Read(sink, most, bytes);
        Lines bodies;
        EXPECT_TRUE(messages);
        if (!messages) return bodies;
        for (const SpoolMessage& each : *messages) bodies.push_back(each.body);
        return bodies;
    }
    static int64_t SeqOf(CEventSpool& spool, const std::string& sink, size_t number) {
        const auto messages = spool.Read(sink, 100, 1 << 30);
        return messages && number < messages->size() ? messages->at(number).seq : -1;
    }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "spool/e.db";
};

TEST_F(EventSpoolFiguresTest, AFileThatCannotBeIsBrokenUntilItCan) {
    support::TakeLog();
    ASSERT_TRUE(support::WriteText(m_dir / "spool", "in the way"));
    CEventSpool spool;
    EXPECT_FALSE(spool.Open(m_path, 1 << 20, 3));
    EXPECT_TRUE(spool.SetSinks({"one"}));
    EXPECT_TRUE(spool.GetFigures().broken);
    for (const char* body : {"a", "b"}) EXPECT_FALSE(spool.Append(Message(body)));
    EXPECT_TRUE(Bodies(spool, "one").empty());
    EXPECT_FALSE(spool.FlushMemory());
    EXPECT_EQ(2U, spool.GetFigures().inMemory);
    ASSERT_EQ(0, unlink((m_dir / "spool").c_str()));
    EXPECT_TRUE(spool.FlushMemory());
    const auto figures = spool.GetFigures();
    EXPECT_FALSE(figures.broken);
    EXPECT_EQ(0U, figures.inMemory);
    EXPECT_EQ(2U, figures.refused);
    EXPECT_EQ(0U, figures.accepted);
    EXPECT_EQ(0U, figures.dropped);
    EXPECT_EQ(2U, figures.messages);
    EXPECT_TRUE(support::LogHolds("the event spool " + m_path + " can be written again"));
    EXPECT_EQ((Lines{"a", "b"}), Bodies(spool, "one"));
    spool.Close();
    EXPECT_FALSE(support::LogHolds("are lost"));
}

TEST_F(EventSpoolFiguresTest, WithoutAMessageItIsWholeAgainAsWell) {
    ASSERT_TRUE(support::WriteText(m_dir / "spool", "in the way"));
    CEventSpool spool;
    EXPECT_FALSE(spool.Open(m_path, 1 << 20, 3));
    EXPECT_FALSE(spool.FlushMemory());
    EXPECT_TRUE(spool.GetFigures().broken);
    ASSERT_EQ(0, unlink((m_dir / "spool").c_str()));
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_FALSE(spool.GetFigures().broken);
}

TEST_F(EventSpoolFiguresTest, WhatWaitsInMemoryAtTheEndIsToldAsLost) {
    support::TakeLog();
    ASSERT_TRUE(support::WriteText(m_dir / "spool", "in the way"));
    CEventSpool spool;
    EXPECT_FALSE(spool.Open(m_path, 1 << 20, 3));
    for (const char* body : {"a", "b"}) EXPECT_FALSE(spool.Append(Message(body)));
    spool.Close();
    EXPECT_TRUE(support::LogHolds("the event spool " + m_path + ": 2 messages that waited in memory are lost"));
}

TEST_F(EventSpoolFiguresTest, WhatASinkGivesUpIsCountedForGood) {
    CEventSpool spool;
    Open(spool, {"one", "two"});
    for (const char* body : {"a", "b", "c", "d"}) ASSERT_TRUE(spool.Append(Message(body)));
    const int64_t first = SeqOf(spool, "one", 0);
    ASSERT_TRUE(spool.Confirm("one", first, 1));
    ASSERT_TRUE(spool.Confirm("one", first + 2, 2));
    ASSERT_TRUE(spool.Confirm("two", first));
    EXPECT_EQ(3U, spool.GivenUp("one"));
    EXPECT_EQ(0U, spool.GivenUp("two"));
    EXPECT_FALSE(spool.HasUnsaved());
    spool.Close();
    CEventSpool next;
    Open(next, {"one", "two"});
    EXPECT_EQ(3U, next.GivenUp("one"));
    ASSERT_TRUE(next.Confirm("one", first + 3, 1));
    EXPECT_EQ(4U, next.GivenUp("one"));
    EXPECT_EQ(0U, next.GivenUp("two"));
}

TEST_F(EventSpoolFiguresTest, ACursorGoesForwardOnly) {
    CEventSpool spool;
    Open(spool, {"one", "two"});
    for (const char* body : {"a", "b", "c", "d"}) ASSERT_TRUE(spool.Append(Message(body)));
    const int64_t first = SeqOf(spool, "one", 0);
    EXPECT_EQ(4U, spool.Waiting("one"));
    ASSERT_TRUE(spool.Confirm("one", first + 2));
    ASSERT_TRUE(spool.Confirm("one", first));
    EXPECT_EQ((Lines{"d"}), Bodies(spool, "one"));
    EXPECT_EQ(1U, spool.Waiting("one"));
    EXPECT_EQ(4U, spool.Waiting("two"));
    EXPECT_EQ(4U, spool.GetFigures().messages) << "the other sink needs them";
    ASSERT_TRUE(spool.Confirm("two", first + 1));
    EXPECT_EQ(2U, spool.GetFigures().messages);
    spool.Close();
    CEventSpool next;
    Open(next, {"one", "two"});
    EXPECT_EQ((Lines{"d"}), Bodies(next, "one"));
    EXPECT_EQ((Lines{"c", "d"}), Bodies(next, "two"));
    ASSERT_TRUE(support::IsOk(next.SetSinks({"one", "three"})));
    EXPECT_EQ((Lines{"c", "d"}), Bodies(next, "three")) << "a new one begins at the oldest";
    EXPECT_EQ(2U, next.Waiting("three"));
}

TEST_F(EventSpoolFiguresTest, AReadIsBoundedByNumberAndByBytes) {
    CEventSpool spool;
    Open(spool);
    for (const char* body : {"a", "b", "c"}) ASSERT_TRUE(spool.Append(Message(body + std::string(1000, '.'))));
    EXPECT_EQ(3U, Bodies(spool, "one").size());
    EXPECT_EQ(2U, Bodies(spool, "one", 2).size());
    EXPECT_EQ(1U, Bodies(spool, "one", 100, 1).size()) << "one at least";
    EXPECT_EQ(2U, Bodies(spool, "one", 100, 1500).size());
    EXPECT_EQ(0U, Bodies(spool, "one", 0).size());
}

TEST_F(EventSpoolFiguresTest, WhatIsRefusedIsCountedForGoodAndTold) {
    int heard = 0;
    CEventSpool spool;
    spool.SetListener([&] { ++heard; });
    Open(spool);
    ASSERT_TRUE(spool.Append(Message("a")));
    const int before = heard;
    spool.NoteRefused();
    spool.NoteRefused();
    EXPECT_EQ(before + 2, heard);
    auto figures = spool.GetFigures();
    EXPECT_EQ(2U, figures.refused);
    EXPECT_EQ(2U, figures.dropped);
    EXPECT_EQ(1U, figures.accepted);
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(2U, spool.GetFigures().dropped) << "written down, not counted again";
    EXPECT_TRUE(spool.FlushMemory());
    spool.Close();
    CEventSpool next;
    Open(next);
    figures = next.GetFigures();
    EXPECT_EQ(2U, figures.dropped);
    EXPECT_EQ(0U, figures.refused) << "of this process";
    EXPECT_EQ(1U, figures.messages);
}

TEST_F(EventSpoolFiguresTest, NumbersAndNamesGoOnAfterAllWasTaken) {
    std::string before;
    int64_t last = 0;
    {
        CEventSpool spool;
        Open(spool);
        ASSERT_TRUE(spool.Append(Message("a")));
        const auto messages = spool.Read("one", 10, 1 << 20);
        ASSERT_TRUE(messages && messages->size() == 1);
        before = messages->at(0).id;
        last = messages->at(0).seq;
        ASSERT_TRUE(spool.Confirm("one", last));
        ASSERT_TRUE(spool.Rest());
        EXPECT_TRUE(spool.IsResting());
        ASSERT_TRUE(spool.Append(Message("b")));
        EXPECT_FALSE(spool.IsResting());
        EXPECT_EQ(last + 1, SeqOf(spool, "one", 0));
        EXPECT_FALSE(spool.Rest()) << "something waits";
    }
    CEventSpool spool;
    Open(spool);
    const auto messages = spool.Read("one", 10, 1 << 20);
    ASSERT_TRUE(messages && messages->size() == 1);
    const std::string name = before.substr(0, before.rfind('-'));
    EXPECT_EQ(name + "-" + std::to_string(last + 1), messages->at(0).id);
    EXPECT_EQ(16U, name.size()) << "of a random number of 64 bits";
    EXPECT_EQ(std::string::npos, name.find_first_not_of("0123456789abcdef"));
}

TEST_F(EventSpoolFiguresTest, WhatIsGivenUpCountsOnceWhateverFails) {
    CEventSpool spool;
    Open(spool, {"one", "two"});
    for (const char* body : {"a", "b", "c"}) ASSERT_TRUE(spool.Append(Message(body)));
    ASSERT_TRUE(support::IsOk(spool.Confirm("two", 3)));
    {
        const support::NoGrowth full;
        EXPECT_FALSE(spool.Confirm("one", 2, 2));
        EXPECT_TRUE(spool.HasUnsaved());
        EXPECT_EQ(2U, spool.GivenUp("one")) << "it holds at once";
        EXPECT_EQ(1U, spool.Waiting("one"));
        EXPECT_EQ((Lines{"c"}), Bodies(spool, "one"));
        EXPECT_EQ(3U, spool.GetFigures().messages) << "and what is in the file stays there";
        EXPECT_FALSE(spool.FlushMemory());
        EXPECT_TRUE(spool.HasUnsaved());
        EXPECT_FALSE(spool.Rest()) << "something is to be written";
    }
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_FALSE(spool.HasUnsaved());
    EXPECT_EQ(2U, spool.GivenUp("one"));
    EXPECT_EQ(1U, spool.GetFigures().messages);
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 3)));
    EXPECT_TRUE(spool.Rest());
    spool.Close();
    CEventSpool next;
    Open(next, {"one", "two"});
    EXPECT_EQ(2U, next.GivenUp("one")) << "an empty file is looked into for it";
    EXPECT_EQ(0U, next.GivenUp("two"));
    EXPECT_FALSE(next.IsResting());
}

TEST_F(EventSpoolFiguresTest, WhoListensHearsOfEachThingOnce) {
    int heard = 0;
    CEventSpool spool;
    spool.SetListener([&] { ++heard; });
    Open(spool);
    EXPECT_EQ(0, heard) << "whoever opens it looks for himself";
    ASSERT_TRUE(spool.Append(Message("a")));
    EXPECT_EQ(1, heard);
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(1, heard) << "there was nothing to bring to disk";
    {
        const support::NoGrowth full;
        EXPECT_FALSE(spool.Append(Message("b")));
        EXPECT_EQ(2, heard) << "somebody has to try again";
    }
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(3, heard);
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 2)));
    EXPECT_EQ(3, heard) << "nothing is to be delivered because of that";
}

TEST_F(EventSpoolFiguresTest, WithoutSinksItRestsOnWhatItHas) {
    {
        CEventSpool spool;
        Open(spool, {});
        for (const char* body : {"a", "b"}) ASSERT_TRUE(spool.Append(Message(body)));
        EXPECT_EQ(2U, spool.GetFigures().messages);
        EXPECT_TRUE(spool.Rest());
        EXPECT_TRUE(spool.IsResting());
        ASSERT_TRUE(spool.Append(Message("c")));
        EXPECT_FALSE(spool.IsResting());
        EXPECT_EQ(3U, spool.GetFigures().messages);
        EXPECT_EQ(0U, spool.GetFigures().dropped);
    }
    CEventSpool spool;
    Open(spool);
    EXPECT_FALSE(spool.IsResting()) << "something waits in it";
    EXPECT_EQ((Lines{"a", "b", "c"}), Bodies(spool, "one")) << "whoever comes has all of it";
    EXPECT_FALSE(spool.Rest());
}

TEST_F(EventSpoolFiguresTest, WhoComesWhileItRestsHasWhatWaits) {
    CEventSpool spool;
    Open(spool, {});
    for (const char* body : {"a", "b"}) ASSERT_TRUE(spool.Append(Message(body)));
    ASSERT_TRUE(spool.Rest());
    int heard = 0;
    spool.SetListener([&heard] { ++heard; });
    ASSERT_TRUE(spool.FlushMemory());
    EXPECT_TRUE(spool.IsResting()) << "nobody wants it";
    EXPECT_EQ(0, heard);
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
    EXPECT_EQ(2U, spool.Waiting("one"));
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(1, heard) << "there is something to deliver";
    EXPECT_EQ((Lines{"a", "b"}), Bodies(spool, "one"));
    EXPECT_EQ(2U, spool.Waiting("one"));
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", SeqOf(spool, "one", 1))));
    ASSERT_TRUE(spool.Rest());
    // Nothing waits in it now, so another one has no reason to open it.
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_TRUE(spool.IsResting());
    EXPECT_EQ(0U, spool.Waiting("two"));
}

TEST_F(EventSpoolFiguresTest, SendersMoveALongLogIntoTheFile) {
    CEventSpool spool;
    ASSERT_TRUE(support::IsOk(spool.Open(m_path, 32 << 20, 3)));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
    uintmax_t longest = 0;
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(spool.Append(Message(std::string(100000, 'x'))));
        longest = std::max(longest, std::filesystem::file_size(m_path + "-wal"));
    }
    EXPECT_LT(longest, 1100000U) << "three quarters of a megabyte and one commit";
    EXPECT_GT(longest, 700000U) << "and not at each of them";
    EXPECT_GT(std::filesystem::file_size(m_path), 4800000U);
    EXPECT_EQ(60U, Bodies(spool, "one").size());
}

TEST_F(EventSpoolFiguresTest, OfGarbageNobodyKnowsWhatItWas) {
    support::TakeLog();
    ASSERT_TRUE(support::WriteText(m_path, std::string(8192, 'x')));
    CEventSpool spool;
    Open(spool);
    EXPECT_EQ(0U, spool.GetFigures().dropped);
    EXPECT_FALSE(spool.GetFigures().broken);
    const Lines log = support::TakeLog();
    ASSERT_EQ(1U, log.size()) << testing::PrintToString(log);
    EXPECT_THAT(log[0], testing::StartsWith("2 the event spool " + m_path + " is damaged ("));
    EXPECT_THAT(log[0], testing::HasSubstr("); put aside as " + m_path + ".corrupt-"));
    EXPECT_THAT(log[0], testing::EndsWith(": 0 messages saved, how many are lost is not known"));
}

}  // namespace
