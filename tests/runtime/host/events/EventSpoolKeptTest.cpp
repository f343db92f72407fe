// What the spool does for a sink whose receiver may lose what it has confirmed: it keeps that for a while, and goes
// back.
#include <filesystem>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/NoGrowth.h"
#include "events/SpoolMessages.h"
#include "support/SmallDisk.h"

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
    /// With messages kept for the sink fleet.
    void OpenKeeping(CEventSpool& spool, uint64_t maxBytes = 1 << 20) {
        spool.SetClock([this] { return CEventSpool::Clock::time_point(m_now); });
        ASSERT_TRUE(support::IsOk(spool.Open(m_dir / "spool/e.db", maxBytes, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"fleet", "other"}, {"fleet", kTime})));
    }
    static void ConfirmAll(CEventSpool& spool, int64_t last) {
        ASSERT_TRUE(support::IsOk(spool.Confirm("other", last)));
        ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", last)));
    }
    static void RemoveAllExpired(CEventSpool& spool) {
        while (spool.RemoveExpired()) {
        }
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
    static constexpr std::chrono::seconds kTime{300};
    static constexpr std::chrono::milliseconds kWhole{kTime + kTime / CEventSpool::kKeepParts +
                                                      std::chrono::seconds(1)};
    support::TempDir m_dir;
    std::chrono::milliseconds m_now{1000000};
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

TEST_F(EventSpoolKeptTest, ConfirmedOnesStayAndCanBeHadAgain) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 5);
    ConfirmAll(spool, 5);
    EXPECT_EQ(spool.GetFigures().kept, 5u);
    EXPECT_EQ(spool.GetFigures().messages, 0u) << "nobody waits for them";
    EXPECT_EQ(spool.Waiting("fleet"), 0u);
    EXPECT_THAT(Numbers(spool, "other"), IsEmpty());
    m_now += kTime - std::chrono::seconds(1);
    RemoveAllExpired(spool);
    ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 2)));
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(3, 4, 5));
    EXPECT_EQ(spool.GetFigures().messages, 3u);
    EXPECT_EQ(spool.GetFigures().kept, 2u);
    EXPECT_THAT(Numbers(spool, "other"), IsEmpty()) << "a repeat is for nobody else";
}

TEST_F(EventSpoolKeptTest, TheyGoWhenTheTimeIsOver) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 3);
    ConfirmAll(spool, 3);
    m_now += kTime / 2;
    Append(spool, 600);  // more than go at a time
    ConfirmAll(spool, 603);
    m_now += kWhole - kTime / 2;
    RemoveAllExpired(spool);
    EXPECT_EQ(spool.GetFigures().kept, 600u);
    EXPECT_GT(spool.KeptUntil().time_since_epoch(), m_now);
    m_now += kTime / 2;
    EXPECT_LE(spool.KeptUntil().time_since_epoch(), m_now);
    RemoveAllExpired(spool);
    EXPECT_EQ(spool.GetFigures().kept, 0u);
    EXPECT_EQ(spool.GetFigures().bytes, 0u);
    EXPECT_EQ(spool.GetFigures().dropped, 0u);
    EXPECT_EQ(spool.KeptUntil(), CEventSpool::Clock::time_point::min());
    ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 0)));
    EXPECT_THAT(Numbers(spool, "fleet"), IsEmpty());
}

TEST_F(EventSpoolKeptTest, WithoutSuchASinkNothingIsKept) {
    CEventSpool spool;
    Open(spool);
    Append(spool, 5);
    ConfirmAll(spool, 5);
    EXPECT_EQ(spool.GetFigures().bytes, 0u);
    EXPECT_EQ(spool.KeptUntil(), CEventSpool::Clock::time_point::min());
    EXPECT_FALSE(spool.RemoveExpired());
    EXPECT_TRUE(spool.Rest());
}

TEST_F(EventSpoolKeptTest, WhatAnotherSinkHasNotStaysForIt) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 5);
    ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 5)));
    ASSERT_TRUE(support::IsOk(spool.Confirm("other", 2)));
    m_now += kWhole;
    RemoveAllExpired(spool);
    EXPECT_EQ(spool.GetFigures().kept, 0u);
    EXPECT_THAT(Numbers(spool, "other"), ElementsAre(3, 4, 5));
}

TEST_F(EventSpoolKeptTest, WhatWasGoneBackFromIsKeptAnew) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 5);
    ConfirmAll(spool, 5);
    m_now += kTime - std::chrono::seconds(1);
    ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 1)));
    ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 5)));
    m_now += kTime - std::chrono::seconds(1);
    RemoveAllExpired(spool);
    EXPECT_EQ(spool.GetFigures().kept, 4u) << "the first is gone";
    ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 1)));
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(2, 3, 4, 5));
}

TEST_F(EventSpoolKeptTest, AStartKeepsThemForAsLongAgain) {
    {
        CEventSpool spool;
        OpenKeeping(spool);
        Append(spool, 5);
        ConfirmAll(spool, 5);
    }
    m_now = std::chrono::milliseconds(0);  // another boot
    {
        CEventSpool spool;
        OpenKeeping(spool);
        RemoveAllExpired(spool);
        EXPECT_EQ(spool.GetFigures().kept, 5u);
        EXPECT_GT(spool.KeptUntil().time_since_epoch(), m_now) << "or they would stay for ever";
        EXPECT_FALSE(spool.Rest());
        EXPECT_THAT(Numbers(spool, "fleet"), IsEmpty());
        ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 3)));
    }
    CEventSpool spool;
    OpenKeeping(spool);
    EXPECT_THAT(Numbers(spool, "fleet"), ElementsAre(4, 5));
    ConfirmAll(spool, 5);
    m_now += kWhole;
    RemoveAllExpired(spool);
    EXPECT_EQ(spool.GetFigures().kept, 0u);
}

TEST_F(EventSpoolKeptTest, TheSpoolRestsWhenTheTimeIsOver) {
    {
        CEventSpool spool;
        OpenKeeping(spool);
        Append(spool, 5);
        ConfirmAll(spool, 5);
        EXPECT_FALSE(spool.Rest()) << "it keeps some";
        m_now += kWhole;
        RemoveAllExpired(spool);
        EXPECT_TRUE(spool.Rest());
        Append(spool, 1);
        EXPECT_FALSE(spool.IsResting());
        ConfirmAll(spool, 6);
        EXPECT_EQ(spool.GetFigures().kept, 1u);
        m_now += kWhole;
        RemoveAllExpired(spool);
        EXPECT_TRUE(spool.Rest());
    }
    CEventSpool spool;
    OpenKeeping(spool);
    EXPECT_TRUE(spool.IsResting()) << "a start finds it so";
}

TEST_F(EventSpoolKeptTest, TheyGoWithTheSinkTheyAreKeptFor) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 20);
    ConfirmAll(spool, 20);
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"other"})));
    EXPECT_TRUE(spool.Rest());
}

TEST_F(EventSpoolKeptTest, TheyStayForTheTimeAndAPartOfIt) {
    using Time = CEventSpool::Clock::time_point;
    const std::chrono::milliseconds part = std::chrono::milliseconds(kTime) / CEventSpool::kKeepParts;
    CEventSpool spool;
    OpenKeeping(spool);
    EXPECT_EQ(spool.KeptUntil(), Time::min());
    Append(spool, 3);
    ConfirmAll(spool, 1);
    const Time first = Time(m_now) + kTime + part;
    EXPECT_EQ(spool.KeptUntil(), first);
    m_now += part - std::chrono::milliseconds(1);
    ConfirmAll(spool, 2);
    EXPECT_EQ(spool.KeptUntil(), first) << "of one part of the time with the one before";
    m_now += std::chrono::milliseconds(1);
    ConfirmAll(spool, 3);
    const Time second = Time(m_now) + kTime + part;
    EXPECT_EQ(spool.KeptUntil(), second);
    EXPECT_EQ(spool.GetFigures().kept, 3u);
    m_now = std::chrono::ceil<std::chrono::milliseconds>(first.time_since_epoch()) - std::chrono::milliseconds(1);
    EXPECT_FALSE(spool.RemoveExpired());
    EXPECT_EQ(spool.GetFigures().kept, 3u);
    m_now += std::chrono::milliseconds(1);
    RemoveAllExpired(spool);
    EXPECT_EQ(spool.GetFigures().kept, 1u) << "those of the first part";
    EXPECT_EQ(spool.KeptUntil(), second);
    m_now = std::chrono::ceil<std::chrono::milliseconds>(second.time_since_epoch());
    RemoveAllExpired(spool);
    EXPECT_EQ(spool.GetFigures().kept, 0u);
    EXPECT_EQ(spool.GetFigures().bytes, 0u);
    EXPECT_EQ(spool.KeptUntil(), Time::min());
    EXPECT_EQ(spool.GetFigures().dropped, 0u);
}

TEST_F(EventSpoolKeptTest, TheyGoSomeAtATime) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 1100);
    ConfirmAll(spool, 1099);
    m_now += kWhole;
    for (const uint64_t left : {587u, 75u, 0u}) {
        EXPECT_TRUE(spool.RemoveExpired());
        EXPECT_EQ(spool.GetFigures().kept, left);
        EXPECT_EQ(spool.GetFigures().messages, 1u);
    }
    EXPECT_FALSE(spool.RemoveExpired());
    EXPECT_EQ(Numbers(spool, "fleet"), std::vector<int64_t>{1100});
}

TEST_F(EventSpoolKeptTest, OneThatGoesMayHaveOthersBehindIt) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 1);
    ConfirmAll(spool, 1);
    m_now += kWhole;
    EXPECT_TRUE(spool.RemoveExpired());
    EXPECT_FALSE(spool.RemoveExpired());
}

TEST_F(EventSpoolKeptTest, WhatIsKeptIsCountedApart) {
    CEventSpool spool;
    OpenKeeping(spool);
    Append(spool, 5);
    const uint64_t bytes = spool.GetFigures().bytes;
    EXPECT_EQ(spool.GetFigures().kept, 0u);
    ASSERT_TRUE(support::IsOk(spool.Confirm("fleet", 4)));
    EXPECT_EQ(spool.GetFigures().kept, 0u) << "the other sink waits for all";
    EXPECT_EQ(spool.GetFigures().messages, 5u);
    ASSERT_TRUE(support::IsOk(spool.Confirm("other", 2)));
    EXPECT_EQ(spool.GetFigures().kept, 2u);
    EXPECT_EQ(spool.GetFigures().messages, 3u);
    EXPECT_EQ(spool.GetFigures().bytes, bytes) << "of both";
    EXPECT_EQ(spool.Waiting("fleet"), 1u);
    EXPECT_EQ(spool.Waiting("other"), 3u);
    ASSERT_TRUE(support::IsOk(spool.GoBack("fleet", 1)));
    EXPECT_EQ(spool.GetFigures().kept, 1u);
    EXPECT_EQ(spool.GetFigures().messages, 4u);
    EXPECT_EQ(spool.Waiting("fleet"), 4u);
}

TEST_F(EventSpoolKeptTest, AFullSpoolLetsThemGoFirstAndCountsNone) {
    CEventSpool spool;
    OpenKeeping(spool, 100000);
    for (int i = 1; i <= 300; ++i) {
        ASSERT_TRUE(spool.Append(Message(std::string(1000, 'x'))));
        ConfirmAll(spool, i);
    }
    EXPECT_EQ(spool.GetFigures().dropped, 0u);
    EXPECT_LE(spool.GetFigures().bytes, 100000u);
    EXPECT_GT(spool.GetFigures().kept, 80u) << "what has room stays";
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(spool.Append(Message(std::string(1000, 'x'))));
    EXPECT_EQ(spool.GetFigures().dropped, 0u);
    EXPECT_EQ(spool.GetFigures().messages, 50u);
    EXPECT_EQ(spool.Waiting("fleet"), 50u);
    EXPECT_GT(spool.GetFigures().kept, 20u);
}

namespace {

class EventSpoolSmallDiskTest : public EventSpoolKeptTest {
protected:
    void SetUp() override {
        if (!m_disk.Missing().empty()) GTEST_SKIP() << m_disk.Missing();
        m_spool.SetClock([this] { return m_time; });
        ASSERT_TRUE(support::IsOk(m_spool.Open(m_disk / "e.db", CEventSpool::kLeastLogBytes, 8)));
        ASSERT_TRUE(support::IsOk(m_spool.SetSinks({"fleet"}, {"fleet", kTime})));
        Send(500, true);
        ASSERT_EQ(m_spool.GetFigures().kept, 500u);
    }
    /// Returns: how many were not taken.
    int Send(int count, bool confirmed) {
        int refused = 0;
        for (int i = 0; i < count; ++i) {
            ++m_sent;
            refused += m_spool.Append(Message(std::string(1000, 'x'))) ? 0 : 1;
            // Ignoring a failure: it is confirmed all the same.
            if (confirmed) static_cast<void>(m_spool.Confirm("fleet", m_sent));
        }
        return refused;
    }
    support::SmallDisk m_disk{8192};
    CEventSpool::Clock::time_point m_time = CEventSpool::Clock::now();
    CEventSpool m_spool;
    void FillDisk() {
        m_spool.Checkpoint();  // as the delivery has done within the last second
        m_disk.Fill();
    }
    int64_t m_sent = 0;
};

}  // namespace

TEST_F(EventSpoolSmallDiskTest, TheyGoWhereTheDiskGetsShort) {
    ASSERT_TRUE(support::WriteText(m_disk / "others", std::string(3 << 20, 'x')));
    EXPECT_EQ(Send(2, true), 0);
    EXPECT_EQ(m_spool.GetFigures().kept, 0u);
    EXPECT_EQ(m_spool.KeptUntil(), CEventSpool::Clock::time_point::min()) << "nothing to wait for";
    FillDisk();
    EXPECT_EQ(Send(500, true), 0) << "what they have left has room for others";
    EXPECT_EQ(m_spool.GetFigures().dropped, 0u);
    EXPECT_TRUE(support::Exists(m_disk / "e.db.reserve")) << "it is for messages that nobody has";
}

TEST_F(EventSpoolSmallDiskTest, TheyMakeRoomWhereItIsFullAtOnce) {
    FillDisk();
    EXPECT_EQ(Send(450, false), 0);
    EXPECT_EQ(m_spool.GetFigures().dropped, 0u);
    EXPECT_EQ(m_spool.Waiting("fleet"), 450u);
    EXPECT_TRUE(support::Exists(m_disk / "e.db.reserve")) << "they go before it does";
}

TEST_F(EventSpoolSmallDiskTest, TheyMakeRoomAfterOthersHaveGone) {
    m_time += std::chrono::duration_cast<CEventSpool::Clock::duration>(2 * kTime);
    Send(200, true);
    while (m_spool.RemoveExpired()) {
    }
    ASSERT_EQ(m_spool.GetFigures().kept, 200u) << "the first have gone";
    FillDisk();
    EXPECT_EQ(Send(300, false), 0);
    EXPECT_EQ(m_spool.GetFigures().dropped, 0u);
    EXPECT_TRUE(support::Exists(m_disk / "e.db.reserve")) << "they go before it does";
}

TEST_F(EventSpoolSmallDiskTest, TheyMakeRoomWhereTheLogCannotBeMoved) {
    m_disk.Fill();  // what the log holds of new pages has no room in the file
    EXPECT_EQ(Send(400, false), 0);
    EXPECT_EQ(m_spool.GetFigures().dropped, 0u);
}
