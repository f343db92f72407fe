// How long the spool's write-ahead log becomes and when it is moved, how large a file is left to rest, and what a spool
// that was closed is when it is opened again.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/NoGrowth.h"
#include "events/SpoolMessages.h"
#include "support/SqliteCheck.h"

using testing::HasSubstr;
using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

constexpr uintmax_t kLogHeader = 32, kLogPage = 4096 + 24;
constexpr uintmax_t kMegabyte = 1 << 20;
constexpr uintmax_t kCutTo = 1 << 20;  // what a log that begins anew is cut to

/// Another process that moves the log of a database, and never comes to an end: nobody else can, and learns so at once.
class Mover {
public:
    explicit Mover(const std::string& path) {
        int ready[2] = {};
        EXPECT_EQ(0, pipe(ready));
        m_child = fork();
        if (m_child == 0) {
            // Source: sqlite.org/walformat.html, "WAL Locks": the second of the locks from byte 120 on.
            struct flock lock {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            lock.l_start = 121;
            lock.l_len = 1;
            const int file = open((path + "-shm").c_str(), O_RDWR | O_CLOEXEC);
            const char held = fcntl(file, F_SETLKW, &lock) == 0 ? 'y' : 'n';
            if (write(ready[1], &held, 1) == 1) pause();
            _exit(0);
        }
        char held = 0;
        EXPECT_EQ(1, read(ready[0], &held, 1));
        EXPECT_EQ('y', held);
        for (const int end : ready) close(end);
    }
    ~Mover() { End(); }
    Mover(const Mover&) = delete;
    Mover& operator=(const Mover&) = delete;
    void End() {
        if (m_child <= 0) return;
        kill(m_child, SIGKILL);
        waitpid(m_child, nullptr, 0);
        m_child = -1;
    }

private:
    pid_t m_child = -1;
};

class SpoolLogTest : public ::testing::Test {
protected:
    void SetUp() override { support::TakeLog(); }
    void Open(uint64_t maxBytes = CEventSpool::kLeastLogBytes, size_t ring = 8) {
        ASSERT_TRUE(support::IsOk(m_spool.Open(m_path, maxBytes, ring)));
        ASSERT_TRUE(support::IsOk(m_spool.SetSinks({"one"})));
    }
    bool Append(size_t bytes) { return m_spool.Append(Message(std::string(bytes, 'x'))); }
    uintmax_t Log() const { return std::filesystem::file_size(m_path + "-wal"); }
    /// Appends small ones until one is refused. Returns: how long the log is then.
    uintmax_t LengthenUntilRefused() {
        for (int i = 0; i < 2000 && Append(12000); ++i) {
        }
        return Log();
    }
    /// Appends small ones until the log is so long or a little longer.
    void Lengthen(uintmax_t length) {
        while (Log() < length) ASSERT_TRUE(Append(4000));
    }
    void ConfirmAll() {
        const int64_t last = support::AskNumber(m_path, "SELECT max(seq) FROM messages;");
        ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", last)));
        ASSERT_EQ(m_spool.GetFigures().messages, 0u);
    }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "spool/e.db";
    CEventSpool m_spool;
};

TEST_F(SpoolLogTest, ALogThatCannotBeMovedGetsThreeQuartersLong) {
    Open(2 * CEventSpool::kLeastLogBytes);
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        Mover stranger(m_path);
        const uintmax_t length = LengthenUntilRefused();
        // Five attempts, a quarter and then eighths of it apart, each of them at a commit's end.
        EXPECT_GE(length, 6 * kMegabyte);
        EXPECT_LT(length, 6 * kMegabyte + 5 * 6 * kLogPage);
        EXPECT_TRUE(support::LogHolds("its write-ahead log is full: "));
        EXPECT_TRUE(support::LogHolds(m_path));
        EXPECT_TRUE(m_spool.GetFigures().broken);
        EXPECT_FALSE(Append(1)) << "nor is anything after it";
        EXPECT_EQ(Log(), length);
        stranger.End();
        // The next one moves it at once.
        EXPECT_TRUE(Append(1));
        EXPECT_EQ(m_spool.GetFigures().inMemory, 0u);
        EXPECT_LE(Log(), kCutTo + kLogHeader + kLogPage);
        EXPECT_FALSE(m_spool.GetFigures().broken);
        support::TakeLog();
    }
}

TEST_F(SpoolLogTest, AfterAnAttemptItGoesOnForAnEighth) {
    Open();
    Mover stranger(m_path);
    ASSERT_TRUE(Append(kMegabyte + 100000));
    const uintmax_t first = Log();
    ASSERT_TRUE(Append(1));  // tries to move it
    stranger.End();
    // An eighth is half a megabyte; that nobody is in the way any more is not tried before.
    ASSERT_NO_FATAL_FAILURE(Lengthen(first + kMegabyte / 2 - kLogPage * 5));
    EXPECT_GT(Log(), first + kMegabyte / 2 - kLogPage * 5);
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(Append(4000));
    EXPECT_LE(Log(), kCutTo + kLogHeader + kLogPage) << "it begins anew";
}

TEST_F(SpoolLogTest, AnotherFileBeginsItsLogAnew) {
    Open();
    {
        Mover stranger(m_path);
        ASSERT_TRUE(Append(3 * kMegabyte + 100000));
        ASSERT_FALSE(Append(1));
    }
    EXPECT_TRUE(m_spool.FlushMemory());
    m_spool.Close();
    Open(2 * CEventSpool::kLeastLogBytes);  // it may be longer now
    Mover stranger(m_path);
    const uintmax_t length = LengthenUntilRefused();
    EXPECT_GE(length, 6 * kMegabyte);
    EXPECT_LT(length, 6 * kMegabyte + 5 * 6 * kLogPage);
}

// --- resting ---

TEST_F(SpoolLogTest, AFileOfAQuarterMegabyteRestsAsItIs) {
    struct Case {
        uintmax_t least, most;
        bool stays;
    };
    constexpr uintmax_t kKilobyte = 1024;
    for (const Case& each : {Case{200, 256, true}, Case{240, 256, true}, Case{257, 300, false}}) {
        SCOPED_TRACE(each.least);
        Open();
        uintmax_t size = 0;
        while (size < each.least * kKilobyte) {
            ASSERT_TRUE(Append(3900));
            m_spool.Checkpoint();
            size = std::filesystem::file_size(m_path);
        }
        ASSERT_LE(size, each.most * kKilobyte);
        ASSERT_NO_FATAL_FAILURE(ConfirmAll());
        EXPECT_TRUE(m_spool.Rest());
        if (each.stays) {
            EXPECT_EQ(std::filesystem::file_size(m_path), size);
        } else {
            EXPECT_LT(std::filesystem::file_size(m_path), 60 * kKilobyte);
        }
        m_spool.Close();
        EXPECT_EQ(support::AskNumber(m_path, "PRAGMA user_version;"), 1);
        for (const char* part : {"", "-wal", "-shm"}) unlink((m_path + part).c_str());
    }
}

TEST_F(SpoolLogTest, OnlyASettledFileStaysClosed) {
    struct Case {
        const char* name;
        const char* statements;
        bool reserve, rests;
    };
    const Case cases[] = {
        {"as it is", "", true, true},
        {"not said so", "PRAGMA user_version=0;", true, false},
        {"another number", "PRAGMA user_version=2;", true, false},
        {"a number of more bytes", "PRAGMA user_version=257;", true, false},
        {"a far number", "PRAGMA user_version=16777217;", true, false},
        {"no reserve", "", false, false},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        Open();
        m_spool.Close();
        ASSERT_EQ("", support::RunStatements(m_path, each.statements));
        if (!each.reserve) {
            ASSERT_EQ(0, truncate((m_path + ".reserve").c_str(), 512 * 1024 - 1));
        }
        Open();
        EXPECT_EQ(m_spool.IsResting(), each.rests);
        ASSERT_TRUE(Append(1));
        EXPECT_EQ(std::filesystem::file_size(m_path + ".reserve"), 512u * 1024);
        ASSERT_NO_FATAL_FAILURE(ConfirmAll());
        m_spool.Close();
    }
}

TEST_F(SpoolLogTest, WhatIsCountedKeepsItFromBeingSettled) {
    struct Case {
        const char* name;
        const char* statement;
    };
    const Case cases[] = {
        {"dropped", "UPDATE facts SET value = 1 WHERE name = 'dropped';"},
        {"far", "UPDATE facts SET value = 4294967296 WHERE name = 'dropped';"},
        {"given up",
         "UPDATE facts SET value = 0 WHERE name = 'dropped'; INSERT INTO facts VALUES('given up by x', 1);"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        Open();
        m_spool.Close();
        ASSERT_EQ("", support::RunStatements(m_path, std::string("PRAGMA user_version=0;") + each.statement));
        for (const bool atClose : {false, true}) {
            Open();
            EXPECT_FALSE(m_spool.IsResting());
            EXPECT_TRUE(atClose || m_spool.Rest());
            m_spool.Close();
            EXPECT_EQ(support::AskNumber(m_path, "PRAGMA user_version;"), 0);
        }
    }
}

TEST_F(SpoolLogTest, ItDoesNotRestOnWhatWaits) {
    Open();
    ASSERT_TRUE(Append(1));
    {
        const support::NoGrowth full;
        EXPECT_FALSE(m_spool.Confirm("one", 1).Ok());
        EXPECT_FALSE(m_spool.Rest()) << "a confirmation that is not written";
    }
    EXPECT_TRUE(m_spool.FlushMemory());
    m_spool.NoteRefused();
    EXPECT_FALSE(m_spool.Rest()) << "a count that is not written";
    EXPECT_TRUE(m_spool.FlushMemory());
    {
        const support::NoGrowth full;
        EXPECT_FALSE(Append(1));
        EXPECT_FALSE(m_spool.Rest()) << "a message in memory";
    }
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_FALSE(m_spool.Rest()) << "a message in the file";
    ASSERT_NO_FATAL_FAILURE(ConfirmAll());
    EXPECT_TRUE(m_spool.Rest());
}

// --- closed and opened again ---

TEST_F(SpoolLogTest, OpenedAgainItHasTheWholeMemory) {
    Open(1 << 20, 100);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        {
            const support::NoGrowth full;
            for (int i = 0; i < 5; ++i) EXPECT_FALSE(Append(100000));
        }
        EXPECT_EQ(m_spool.GetFigures().inMemory, 5u);
        EXPECT_EQ(m_spool.GetFigures().dropped, 5u * static_cast<unsigned int>(round));
        m_spool.Close();
        EXPECT_TRUE(support::LogHolds("5 messages that waited in memory are lost"));
        support::TakeLog();
        EXPECT_EQ(m_spool.GetFigures().inMemory, 0u) << "they are no more";
        EXPECT_EQ(m_spool.GetFigures().dropped, 5u * static_cast<unsigned int>(round + 1));
        Open(1 << 20, 100);
        EXPECT_FALSE(m_spool.GetFigures().broken);
    }
    EXPECT_EQ(m_spool.GetFigures().dropped, 15u);
    EXPECT_EQ(m_spool.GetFigures().messages, 0u);
}

}  // namespace
