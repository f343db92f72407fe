// What the spool does for a sink whose receiver may lose what it has confirmed: it goes back.
#include <filesystem>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/NoGrowth.h"
#include "events/SpoolMessages.h"

using testing::ElementsAre;
using testing::IsEmpty;
using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

class EventSpoolKeptTest : public ::testing::Test {
protected:
    void Open(CEventSpool& spool) {
        ASSERT_TRUE(support::IsOk(spool.Open(m_dir / "spool/e.db", 1 << 20, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"fleet", "other"})));
    }
    static void Append(CEventSpool& spool, int count) {
        for (int i = 0; i < count; ++i) ASSERT_TRUE(spool.Append(Message("b")));
    }
    static std::vector<int64_t> Numbers(CEventSpool& spool, const std::string& sink) {
        std::vector<int64_t> numbers;
        auto messages = spool.Read(sink, 1000, 1 << 30);
        EXPECT_TRUE(messages) << messages.GetError().Text();
        for (const SpoolMessage& m : *messages) numbers.push_back(m.seq);
        return numbers;
    }
    /// Returns: what stands before the first message that the sink reads.
    static int64_t After(CEventSpool& spool, const std::string& sink) {
        auto messages = spool.Read(sink, 1, 1 << 30);
        return messages && !messages->empty() ? messages->front().after : -1;
    }
    support::TempDir m_dir;
};

}  // namespace

TEST_F(EventSpoolKeptTest, EachMessageNamesTheOneBefore) {
    CEventSpool spool;
    Open(spool);
    Append(spool, 4);
    ASSERT_TRUE(support::IsOk(spool.Confirm("other", 2)));
    auto messages = spool.Read("other", 10, 1 << 30);
    ASSERT_TRUE(messages);
    ASSERT_EQ(messages->size(), 2u);
    EXPECT_EQ((*messages)[0].after, 2);
    EXPECT_EQ((*messages)[1].after, 3);
    EXPECT_EQ(After(spool, "fleet"), 0);
}

TEST_F(EventSpoolKeptTest, ASinkGoesBackAndNobodyElse) {
    CEventSpool spool;
    Open(spool);
    Append(spool, 6);
    ASSERT_TRUE(support::IsOk(spool.Confirm("other", 1)));
    ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 5)));
    ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 3)));
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(4, 5, 6));
    EXPECT_EQ(spool.Waiting("fleet"), 3u);
    EXPECT_EQ(After(spool, "fleet"), 3);
    EXPECT_THAT(Numbers(spool, "other"), ElementsAre(2, 3, 4, 5, 6));
    ASSERT_TRUE(support::IsOk(spool.Confirm("other", 6)));
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(4, 5, 6)) << "they wait for it again";
    EXPECT_THAT(Numbers(spool, "other"), IsEmpty());
    ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 6)));
    EXPECT_EQ(spool.Waiting("fleet"), 0u);
}

TEST_F(EventSpoolKeptTest, WhatIsGoneIsNotInvented) {
    CEventSpool spool;
    Open(spool);
    Append(spool, 6);
    ASSERT_TRUE(support::IsOk(spool.Confirm("other", 4)));
    ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 5)));
    ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 1)));
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(5, 6));
    EXPECT_EQ(After(spool, "fleet"), 1) << "so that the receiver knows that nothing stands between";
}

TEST_F(EventSpoolKeptTest, GoingBackOutlivesTheProcess) {
    {
        CEventSpool spool;
        Open(spool);
        Append(spool, 6);
        ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 5)));
        ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 2)));
    }
    CEventSpool spool;
    Open(spool);
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(3, 4, 5, 6));
}

TEST_F(EventSpoolKeptTest, GoingBackHoldsWhereItCannotBeWritten) {
    CEventSpool spool;
    Open(spool);
    Append(spool, 6);
    ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 5)));
    {
        const support::NoGrowth full;
        EXPECT_FALSE(spool.GoBack("fleet", 2));
        EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(3, 4, 5, 6));
        EXPECT_EQ(spool.Waiting("fleet"), 4u);
        EXPECT_FALSE(spool.Confirm("fleet", 3));
        EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(4, 5, 6));
    }
    ASSERT_TRUE(spool.FlushMemory());
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(4, 5, 6));
    spool.Close();
    CEventSpool next;
    Open(next);
    EXPECT_THAT(Numbers(next, "fleet"), ElementsAre(4, 5, 6));
}
