// The journal's datagrams, byte for byte, and its socket.
#include "LogJournal.h"

#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "LogText.h"
#include "support/Files.h"

using support::TempDir;
using zel::FormatJournalEntry;
using zel::JournalEntry;
using zel::LogJournal;

namespace {

JournalEntry Example(std::string_view text) {
    JournalEntry entry;
    entry.priority = 4;
    entry.identifier = "Tervane";
    entry.source = "Monitor";
    entry.line = 7;
    entry.threadId = 12;
    entry.text = text;
    return entry;
}

constexpr char kHead[] = "PRIORITY=4\nSYSLOG_IDENTIFIER=Tervane\nCODE_FILE=Monitor\nCODE_LINE=7\nTID=12\n";

base::Fd Listen(const std::string& path) {
    ::unlink(path.c_str());
    base::Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fd.Reset();
    return fd;
}

TEST(LogJournalTest, AFieldIsNameAndValue) {
    EXPECT_EQ(std::string(kHead) + "MESSAGE=a=b\n", FormatJournalEntry(Example("a=b")));
}

TEST(LogJournalTest, AValueWithLineEndsCarriesItsLength) {
    EXPECT_EQ(kHead + std::string("MESSAGE\n\x05\0\0\0\0\0\0\0a\nb\nc\n", 22), FormatJournalEntry(Example("a\nb\nc")));
    // Nobody adds a field by way of a text.
    EXPECT_EQ(std::string::npos, FormatJournalEntry(Example("x\nPRIORITY=0")).find("MESSAGE=x"));
}

TEST(LogJournalTest, ALineWithoutSourceHasNoSourceFields) {
    JournalEntry entry = Example("text");
    entry.source = "";
    EXPECT_EQ("PRIORITY=4\nSYSLOG_IDENTIFIER=Tervane\nTID=12\nMESSAGE=text\n", FormatJournalEntry(entry));
}

TEST(LogJournalTest, EntriesArriveWholeAndAgainAfterARestart) {
    const TempDir dir;
    LogJournal journal(dir / "socket");
    EXPECT_FALSE(journal.Send(Example("nobody there")));
    for (int start = 0; start < 2; ++start) {
        const base::Fd listener = Listen(dir / "socket");
        ASSERT_TRUE(listener.IsOpen());
        EXPECT_TRUE(journal.Send(Example("text")));
        char buffer[512];
        const ssize_t got = ::recv(listener.Get(), buffer, sizeof buffer, MSG_DONTWAIT);
        ASSERT_GT(got, 0);
        EXPECT_EQ(std::string(kHead) + "MESSAGE=text\n", std::string(buffer, static_cast<size_t>(got)));
    }
}

TEST(LogJournalTest, TheLongestLineOfHostileBytesFitsADatagram) {
    const TempDir dir;
    const base::Fd listener = Listen(dir / "socket");
    LogJournal journal(dir / "socket");
    for (const char hostile : {'\x01', '\xff', '\n', '\x1b'}) {
        std::string text = std::string(zel::kMaxLogTextBytes - 1, hostile) + "b";
        const size_t cut = zel::CutLogText(text);
        EXPECT_TRUE(journal.Send(Example(zel::SanitizeLogText(text, cut)))) << static_cast<int>(hostile);
        std::string taken(1024 * 1024, '\0');
        EXPECT_GT(::recv(listener.Get(), taken.data(), taken.size(), MSG_DONTWAIT), 60000);
    }
}

TEST(LogJournalTest, AJournalThatDoesNotReadIsNotWaitedFor) {
    const TempDir dir;
    const base::Fd listener = Listen(dir / "socket");
    LogJournal journal(dir / "socket");
    const std::string text(60000, 'x');
    bool refused = false;
    for (int i = 0; i < 100000 && !refused; ++i) refused = !journal.Send(Example(text));
    EXPECT_TRUE(refused);
}

TEST(LogJournalTest, APathThatNoSocketCanHaveIsRefused) {
    EXPECT_FALSE(LogJournal(std::string(200, 'p')).Send(Example("text")));
}

}  // namespace
