// The durable spool where damage, changed sinks and confirmed messages meet a disk that takes nothing.
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/NoGrowth.h"
#include "events/SpoolMessages.h"
#include "support/SmallDisk.h"

using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

std::vector<std::string> Bodies(CEventSpool& spool, const std::string& sink) {
    const auto messages = spool.Read(sink, 10000, 1 << 30);
    if (!messages) {
        ADD_FAILURE() << messages.GetError().Text();
        return {};
    }
    std::vector<std::string> bodies;
    for (const SpoolMessage& message : *messages) bodies.push_back(message.body);
    return bodies;
}

void Fill(CEventSpool& spool, int messages) {
    for (int i = 0; i < messages; ++i) ASSERT_TRUE(spool.Append(Message("old" + std::string(1000, '.'))));
}

/// Overwrites pages of the file, as a bad block would.
void Damage(const std::string& path, int firstPage, int pages) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(firstPage * 4096L);
    file << std::string(static_cast<size_t>(pages) * 4096, 'x');
    ASSERT_TRUE(file.flush().good());
}

class EventSpoolFullDiskTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!m_disk.Missing().empty()) GTEST_SKIP() << m_disk.Missing();
    }
    /// One sink has much of what there is, another nothing; then the file is damaged and the disk full.
    void FillAndDamage() {
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(Path(), 8 << 20, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
        Fill(spool, 800);
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", 700)));
        spool.Close();
        Damage(Path(), 30, 6);
        support::TakeLog();
    }
    void SendAndExpect(CEventSpool& spool, const std::string& body) {
        EXPECT_TRUE(spool.Append(Message(body)));
        for (const char* sink : {"one", "two"}) {
            const std::vector<std::string> bodies = Bodies(spool, sink);
            EXPECT_EQ(std::count(bodies.begin(), bodies.end(), body), 1) << sink << " never gets it";
        }
    }
    std::string Path() const { return m_disk / "e.db"; }
    support::SmallDisk m_disk{4096};
};

}  // namespace

TEST_F(EventSpoolFullDiskTest, DamageWithoutRoomSwallowsNothingNew) {
    ASSERT_NO_FATAL_FAILURE(FillAndDamage());
    m_disk.Fill();
    CEventSpool spool;
    static_cast<void>(spool.Open(Path(), 8 << 20, 8));  // the reserve has room for a new file, not for what there was
    static_cast<void>(spool.SetSinks({"one", "two"}));
    EXPECT_TRUE(support::LogHolds(" cannot be written again: "));
    EXPECT_TRUE(support::LogHolds(" is full")) << "the first reason is told, not what it led to";
    unlink((m_disk / "filler").c_str());
    EXPECT_TRUE(support::Eventually([&] { return spool.FlushMemory(); }));
    SendAndExpect(spool, "new");
    EXPECT_EQ(spool.GetFigures().dropped, 800u) << "what is lost is counted";
}

TEST_F(EventSpoolFullDiskTest, DamageWithoutAnyRoomIsSavedLater) {
    ASSERT_NO_FATAL_FAILURE(FillAndDamage());
    unlink((Path() + ".reserve").c_str());
    m_disk.Fill();
    CEventSpool spool;
    EXPECT_FALSE(spool.Open(Path(), 8 << 20, 8));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    EXPECT_FALSE(spool.Append(Message("waits")));
    unlink((m_disk / "filler").c_str());
    ASSERT_TRUE(spool.FlushMemory());
    const size_t saved = Bodies(spool, "two").size();
    EXPECT_GT(saved, 750u);
    EXPECT_EQ(saved - 1 + spool.GetFigures().dropped, 800u);
    EXPECT_TRUE(support::LogHolds(" messages saved, "));
    EXPECT_EQ(Bodies(spool, "one").back(), "waits");
    SendAndExpect(spool, "new");
}

TEST_F(EventSpoolFullDiskTest, AFileThatIsGoneSwallowsNothingNew) {
    CEventSpool spool;
    ASSERT_TRUE(support::IsOk(spool.Open(Path(), 1 << 20, 8)));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    Fill(spool, 20);
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 20)));
    ASSERT_TRUE(support::IsOk(spool.Confirm("two", 20)));
    spool.Close();
    for (const char* part : {"", "-wal", "-shm"}) unlink((Path() + part).c_str());
    ASSERT_TRUE(support::IsOk(spool.Open(Path(), 1 << 20, 8)));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    SendAndExpect(spool, "new");
}

TEST_F(EventSpoolFullDiskTest, ASinkThatCouldNotBeNotedMissesNothing) {
    CEventSpool spool;
    ASSERT_TRUE(support::IsOk(spool.Open(Path(), 1 << 20, 8)));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
    Fill(spool, 3);
    {
        const support::NoGrowth full;
        EXPECT_FALSE(spool.SetSinks({"one", "two"}));
    }
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 3)));
    EXPECT_EQ(Bodies(spool, "two").size(), 3u);
    EXPECT_TRUE(spool.FlushMemory());
    ASSERT_TRUE(support::IsOk(spool.Confirm("two", 3)));
    EXPECT_EQ(spool.GetFigures().messages, 0u);
}

TEST_F(EventSpoolFullDiskTest, ASinkNotForgottenHoldsNothing) {
    CEventSpool spool;
    ASSERT_TRUE(support::IsOk(spool.Open(Path(), 1 << 20, 8)));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    Fill(spool, 3);
    {
        const support::NoGrowth full;
        EXPECT_FALSE(spool.SetSinks({"one"}));
    }
    EXPECT_TRUE(spool.FlushMemory());
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 3)));
    EXPECT_EQ(spool.GetFigures().messages, 0u);
}

TEST_F(EventSpoolFullDiskTest, AnUnwrittenCursorIsWrittenWithoutNews) {
    for (const bool atClose : {false, true}) {
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(Path(), 1 << 20, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
        Fill(spool, 3);
        const int64_t last = spool.Read("one", 10, 1 << 30)->back().seq;
        {
            const support::NoGrowth full;
            EXPECT_FALSE(spool.Confirm("one", last));
        }
        if (!atClose) {
            EXPECT_TRUE(spool.FlushMemory());
            EXPECT_EQ(spool.GetFigures().messages, 0u);
        }
        spool.Close();
        CEventSpool next;
        ASSERT_TRUE(support::IsOk(next.Open(Path(), 1 << 20, 8)));
        ASSERT_TRUE(support::IsOk(next.SetSinks({"one"})));
        EXPECT_TRUE(Bodies(next, "one").empty()) << "delivered twice after a clean stop";
        EXPECT_EQ(next.GetFigures().messages, 0u);
    }
}
