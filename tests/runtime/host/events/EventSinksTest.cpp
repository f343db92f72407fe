// The sinks by themselves: the text of a message, the file of lines as a crash leaves it, syslog's socket.
#include "events/EventSinks.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "HostSupport.h"
#include "base/Fd.h"
#include "support/Files.h"
#include "support/HostTricks.h"
#include "support/HttpServer.h"

using support::LinesOf;
using support::ReadText;
using support::WriteText;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using zelhost::Handover;
using zelhost::SpoolMessage;

namespace {

// The n-th next call of this thread fails with EIO; 0: none does.
thread_local int t_readFails = 0;
thread_local int t_cutFails = 0;
thread_local int t_statFails = 0;
thread_local int t_syncFails = 0;
thread_local int t_namesSynced = 0;  // directories that were synced

bool Fails(int& left) {
    if (left == 0 || --left > 0) return false;
    errno = EIO;
    return true;
}

}  // namespace

// As the sources name them, whose file offsets have 64 bits.
extern "C" __attribute__((visibility("default"))) ssize_t pread64(int fd, void* buffer, size_t size, off64_t from) {
    static const auto next = reinterpret_cast<decltype(&pread64)>(dlsym(RTLD_NEXT, "pread64"));
    return Fails(t_readFails) ? -1 : next(fd, buffer, size, from);
}

extern "C" __attribute__((visibility("default"))) int ftruncate64(int fd, off64_t size) noexcept {
    static const auto next = reinterpret_cast<int (*)(int, off64_t)>(dlsym(RTLD_NEXT, "ftruncate64"));
    return Fails(t_cutFails) ? -1 : next(fd, size);
}

extern "C" __attribute__((visibility("default"))) int fstat64(int fd, struct stat64* found) noexcept {
    static const auto next = reinterpret_cast<int (*)(int, struct stat64*)>(dlsym(RTLD_NEXT, "fstat64"));
    return Fails(t_statFails) ? -1 : next(fd, found);
}

extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
    struct stat64 found {};
    if (syscall(SYS_newfstatat, fd, "", &found, AT_EMPTY_PATH) == 0 && S_ISDIR(found.st_mode)) ++t_namesSynced;
    return Fails(t_syncFails) ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}

namespace {

SpoolMessage Message(const std::string& body, int64_t seq = 1) {
    SpoolMessage message;
    message.seq = seq;
    message.id = "id-" + std::to_string(seq);
    message.type = "T";
    message.body = body;
    return message;
}

/// A character's UTF-8 as Unicode's definition has it (D92): shortest form, no surrogates, up to 10FFFF.
std::string Encode(unsigned int point) {
    const auto tail = [&](unsigned int shift) { return static_cast<char>(0x80 | ((point >> shift) & 0x3f)); };
    if (point < 0x80) return {static_cast<char>(point)};
    if (point < 0x800) return {static_cast<char>(0xc0 | (point >> 6)), tail(0)};
    if (point < 0x10000) return {static_cast<char>(0xe0 | (point >> 12)), tail(6), tail(0)};
    return {static_cast<char>(0xf0 | (point >> 18)), tail(12), tail(6), tail(0)};
}

/// The body of a message as it stands in its line.
std::string BodyOf(const std::string& body) {
    const std::string line = zelhost::MessageJson(Message(body), "p");
    const std::string before = "\"body\":\"";
    const size_t from = line.find(before) + before.size();
    return line.substr(from, line.find("\",\"extra\"") - from);
}

const std::string kNoText = "\\ufffd";

TEST(MessageJsonTest, EveryCharacterStandsAsItIs) {
    for (unsigned int point = 0x20; point <= 0x10ffff; point += point < 0x3000 ? 1 : 61) {
        if (point >= 0xd800 && point <= 0xdfff) continue;
        const std::string text = Encode(point);
        const bool isEscaped = point == '"' || point == '\\';
        ASSERT_EQ((isEscaped ? "\\" : "") + text + "|", BodyOf(text + "|")) << std::hex << point;
    }
    for (const unsigned int edge : {0x7fU, 0x80U, 0x7ffU, 0x800U, 0xfffU, 0x1000U, 0xcfffU, 0xd000U, 0xd7ffU, 0xe000U,
                                    0xffffU, 0x10000U, 0x3ffffU, 0x40000U, 0xfffffU, 0x100000U, 0x10ffffU}) {
        EXPECT_EQ(Encode(edge) + "|", BodyOf(Encode(edge) + "|")) << std::hex << edge;
    }
}

TEST(MessageJsonTest, ControlCharactersAreEscaped) {
    for (int byte = 0; byte < 0x20; ++byte) {
        char wanted[8];
        snprintf(wanted, sizeof wanted, "\\u%04x", static_cast<unsigned int>(byte));
        const std::string special = byte == '\n' ? "\\n" : byte == '\t' ? "\\t" : wanted;
        EXPECT_EQ("a" + special + "b", BodyOf("a" + std::string(1, static_cast<char>(byte)) + "b"));
    }
}

TEST(MessageJsonTest, EachByteThatIsNoTextIsOneReplacement) {
    // First bytes that nothing begins with.
    for (unsigned int byte = 0x80; byte <= 0xff; ++byte) {
        if (byte >= 0xc2 && byte <= 0xf4) continue;
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(kNoText + "x", BodyOf(text + "x")) << byte;
        EXPECT_EQ(kNoText + kNoText, BodyOf(text + "\x80")) << byte;
    }
    // Characters that are cut off, by the end or by another one; each byte that is left is one replacement.
    for (const unsigned int point : {0x80U, 0x7ffU, 0x800U, 0x1000U, 0xd7ffU, 0xffffU, 0x10000U, 0x40000U, 0x10ffffU}) {
        const std::string whole = Encode(point);
        for (size_t length = 1; length < whole.size(); ++length) {
            std::string wanted;
            for (size_t i = 0; i < length; ++i) wanted += kNoText;
            EXPECT_EQ(wanted, BodyOf(whole.substr(0, length))) << point;
            EXPECT_EQ(wanted + "x", BodyOf(whole.substr(0, length) + "x")) << point;
            EXPECT_EQ(wanted + "\xc3\xa4", BodyOf(whole.substr(0, length) + "\xc3\xa4")) << point;
        }
    }
    // Longer than need be, surrogates, beyond the last character; each right beside one that is a character.
    const std::string three = kNoText + kNoText + kNoText;
    EXPECT_EQ(three, BodyOf("\xe0\x9f\xbf"));
    EXPECT_EQ("\xe0\xa0\x80", BodyOf("\xe0\xa0\x80"));
    EXPECT_EQ(three, BodyOf("\xed\xa0\x80"));
    EXPECT_EQ("\xed\x9f\xbf", BodyOf("\xed\x9f\xbf"));
    EXPECT_EQ(three + kNoText, BodyOf("\xf0\x8f\xbf\xbf"));
    EXPECT_EQ(three + kNoText, BodyOf("\xf4\x90\x80\x80"));
    EXPECT_EQ("\xf4\x8f\xbf\xbf", BodyOf("\xf4\x8f\xbf\xbf"));
}

TEST(MessageJsonTest, EachTwoBytesBeginWhatUnicodeSays) {
    std::set<std::string> characters;  // those whose last bytes, from the third on, are 0x80
    for (unsigned int point = 0; point <= 0x10ffff; point += point < 0x800 ? 1 : point < 0x10000 ? 0x40 : 0x1000) {
        if (point < 0xd800 || point > 0xdfff) characters.insert(Encode(point));
    }
    for (unsigned int pair = 0x8000; pair <= 0xffff; ++pair) {
        const std::string text = {static_cast<char>(pair >> 8), static_cast<char>(pair & 0xff), '\x80', '\x80', '|'};
        if ((pair & 0xff) < 0x20 || (pair & 0xff) == '"' || (pair & 0xff) == '\\') continue;  // escaped, see above
        std::string wanted;
        for (size_t at = 0; at < text.size();) {
            size_t length = 4;
            while (length > 0 && characters.count(text.substr(at, length)) == 0) --length;
            wanted += length == 0 ? kNoText : text.substr(at, length);
            at += std::max<size_t>(1, length);
        }
        ASSERT_EQ(wanted, BodyOf(text)) << std::hex << pair;
    }
}

TEST(MessageJsonTest, WhatIsCutFillsItsRoom) {
    constexpr size_t kMostDigits = 20;  // room for a count of what is missing
    SpoolMessage message = Message("");
    const size_t frame = zelhost::MessageJson(message, "p").size() + std::string(",\"cut\":").size() + kMostDigits;
    struct Case {
        size_t body, extra, room;  // of the texts, for them
        size_t keptBody, keptExtra;
        const char* missing;
    };
    const Case cases[] = {
        {1000, 0, 990, 990, 0, "10"},      {1000, 0, 999, 999, 0, "1"},       {1000, 0, 0, 0, 0, "1000"},
        {1000, 500, 1000, 1000, 0, "500"}, {1000, 500, 1001, 1000, 1, "499"}, {1000, 500, 1499, 1000, 499, "1"},
        {0, 500, 1, 0, 1, "499"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.room);
        message.body = std::string(each.body, 'b');
        message.extra = std::string(each.extra, 'e');
        const std::string cut = zelhost::MessageJsonWithin(message, "p", frame + each.room);
        // Where all would fit but for the room of the count, nothing is cut.
        if (frame + each.room >= zelhost::MessageJson(message, "p").size()) {
            EXPECT_EQ(cut, zelhost::MessageJson(message, "p"));
            continue;
        }
        EXPECT_THAT(cut, HasSubstr('"' + std::string(each.keptBody, 'b') + "\",\"extra\":\"" +
                                   std::string(each.keptExtra, 'e') + '"'));
        EXPECT_THAT(cut, testing::EndsWith(std::string(",\"cut\":") + each.missing + "}"));
    }
}

TEST(MessageJsonTest, NumbersKeepTheirWholeWidth) {
    SpoolMessage message = Message("b");
    message.time = 5000000000LL;
    message.arg1 = -2147483647 - 1;
    message.arg2 = 2147483647;
    const std::string line = zelhost::MessageJson(message, "p");
    EXPECT_THAT(line, HasSubstr("\"time\":5000000000,"));
    EXPECT_THAT(line, EndsWith("\"arg1\":-2147483648,\"arg2\":2147483647}"));
}

class JsonLinesTest : public testing::Test {
protected:
    Handover Deliver(zelhost::CJsonLinesSink& sink, const std::string& body) {
        return sink.Deliver({Message(body)}, m_goOn);
    }
    Handover DeliverOnce(const std::string& body) {
        zelhost::CJsonLinesSink sink(m_path, 1 << 20, 2, "p");
        return Deliver(sink, body);
    }
    static std::string LineOf(const std::string& body) { return zelhost::MessageJson(Message(body), "p") + "\n"; }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "log/e.jsonl";
    const std::atomic<bool> m_goOn{false};
};

TEST_F(JsonLinesTest, WhatACrashLeftOfALineGoesHoweverLongItIs) {
    // Around the size of the pieces in which the end is looked for.
    for (const size_t whole : {0U, 1U, 100U, 4095U, 4096U, 4097U, 9000U}) {
        for (const size_t torn : {0U, 1U, 4095U, 4096U, 4097U, 12288U, 20000U}) {
            const std::string kept = whole == 0 ? "" : std::string(whole - 1, 'k') + "\n";
            ASSERT_TRUE(WriteText(m_path, "first\n" + kept + std::string(torn, 't')));
            ASSERT_EQ(1U, DeliverOnce("next").safe);
            ASSERT_EQ("first\n" + kept + LineOf("next"), ReadText(m_path)) << whole << " " << torn;
        }
    }
    ASSERT_TRUE(WriteText(m_path, std::string(10000, 't')));
    ASSERT_EQ(1U, DeliverOnce("next").safe);
    EXPECT_EQ(LineOf("next"), ReadText(m_path)) << "all of it was torn";
}

TEST_F(JsonLinesTest, BehindHalfALineNothingIsWrittenWhateverFails) {
    const std::string torn(10000, 't');
    for (int* const fails : {&t_readFails, &t_cutFails}) {
        for (const int nth : {1, 2}) {
            if (fails == &t_cutFails && nth == 2) continue;  // it is cut once
            ASSERT_TRUE(WriteText(m_path, "first\n" + torn));
            zelhost::CJsonLinesSink sink(m_path, 1 << 20, 2, "p");
            *fails = nth;
            const Handover failed = Deliver(sink, "next");
            EXPECT_EQ(0, *fails) << "it was asked";
            EXPECT_EQ(0U, failed.safe);
            ASSERT_FALSE(failed.rest);
            EXPECT_EQ(EIO, failed.rest.GetError().error);
            EXPECT_THAT(failed.rest.GetError().Text(), HasSubstr(m_path));
            EXPECT_EQ("first\n" + torn, ReadText(m_path));
            EXPECT_EQ(1U, Deliver(sink, "next").safe);
            EXPECT_EQ("first\n" + LineOf("next"), ReadText(m_path));
        }
    }
}

TEST_F(JsonLinesTest, TheSizeGoesOnFromWhatStandsThere) {
    const std::string line = LineOf("x");
    WriteText(m_path, line + line + "torn");
    zelhost::CJsonLinesSink sink(m_path, line.size() * 3, 1, "p");
    ASSERT_EQ(1U, Deliver(sink, "x").safe);
    EXPECT_EQ(line + line + line, ReadText(m_path)) << "the torn line does not count";
    ASSERT_EQ(1U, Deliver(sink, "x").safe);
    EXPECT_EQ(line, ReadText(m_path));
    EXPECT_EQ(line + line + line, ReadText(m_path + ".1"));
}

namespace {

/// Lifts the bound on the length of files while it lives.
class LongFiles {
public:
    LongFiles() {
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit none{RLIM_INFINITY, RLIM_INFINITY};
        m_lifted = setrlimit(RLIMIT_FSIZE, &none) == 0;
    }
    ~LongFiles() { setrlimit(RLIMIT_FSIZE, &m_old); }
    LongFiles(const LongFiles&) = delete;
    LongFiles& operator=(const LongFiles&) = delete;
    explicit operator bool() const { return m_lifted; }

private:
    rlimit m_old{};
    bool m_lifted = false;
};

}  // namespace

TEST_F(JsonLinesTest, AFileBeyondFourGigabytesIsCutAndTurnedWhole) {
    const LongFiles lifted;
    if (!lifted) GTEST_SKIP() << "files may not be that long here";
    const off_t whole = (off_t{1} << 32) + 10000;  // of which the lower 32 bits are a place of their own
    ASSERT_TRUE(WriteText(m_path, ""));
    const base::Fd file(open(m_path.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(5, pwrite(file.Get(), "\ntorn", 5, whole - 1));  // what stands before it takes no room
    const uint64_t most = static_cast<uint64_t>(whole) + LineOf("x").size();
    {
        zelhost::CJsonLinesSink sink(m_path, most, 1, "p");
        EXPECT_EQ(1U, Deliver(sink, "x").safe);
        EXPECT_EQ(most, std::filesystem::file_size(m_path)) << "the torn line is gone, nothing else is";
        EXPECT_FALSE(support::Exists(m_path + ".1"));
        EXPECT_EQ(1U, Deliver(sink, "y").safe);
        EXPECT_EQ(most, std::filesystem::file_size(m_path + ".1")) << "it was full";
        EXPECT_EQ(LineOf("y"), ReadText(m_path));
    }
    char last[64] = {};
    const std::string line = LineOf("x");
    ASSERT_LE(line.size(), 256U);
    EXPECT_EQ(static_cast<ssize_t>(sizeof(last)),
              pread(file.Get(), last, sizeof(last), static_cast<off_t>(most - sizeof(last))));
    EXPECT_EQ(line.substr(line.size() - sizeof(last)), std::string(last, sizeof(last)));
}

TEST_F(JsonLinesTest, AFileOfFourGigabytesIsNotTakenForEmpty) {
    const LongFiles lifted;
    if (!lifted) GTEST_SKIP() << "files may not be that long here";
    ASSERT_TRUE(WriteText(m_path, ""));
    const off_t whole = off_t{1} << 32;
    {
        const base::Fd file(open(m_path.c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(1, pwrite(file.Get(), "\n", 1, whole - 1));
    }
    zelhost::CJsonLinesSink sink(m_path, 1000, 1, "p");
    EXPECT_EQ(1U, Deliver(sink, "x").safe);
    EXPECT_EQ(static_cast<uintmax_t>(whole), std::filesystem::file_size(m_path + ".1"));
    EXPECT_EQ(LineOf("x"), ReadText(m_path));
}

TEST_F(JsonLinesTest, TheFileStaysOpenUntilItsNameIsAnothers) {
    zelhost::CJsonLinesSink sink(m_path, 1 << 20, 1, "p");
    EXPECT_EQ(1U, Deliver(sink, "a").safe);
    const base::Fd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_GE(inotify_add_watch(watch.Get(), std::filesystem::path(m_path).parent_path().c_str(), IN_OPEN), 0);
    char told[4096];
    EXPECT_EQ(1U, Deliver(sink, "b").safe);
    EXPECT_EQ(-1, read(watch.Get(), told, sizeof(told))) << "it is not opened again";
    std::filesystem::rename(m_path, m_path + ".moved");
    EXPECT_EQ(1U, Deliver(sink, "c").safe);
    EXPECT_GT(read(watch.Get(), told, sizeof(told)), 0);
    EXPECT_EQ(LineOf("a") + LineOf("b"), ReadText(m_path + ".moved"));
    EXPECT_EQ(LineOf("c"), ReadText(m_path));
}

TEST_F(JsonLinesTest, ALineIsSafeOnceTheNameOfItsFileIs) {
    zelhost::CJsonLinesSink sink(m_path, 2 * LineOf("a").size(), 1, "p");
    t_namesSynced = 0;
    t_syncFails = 1;
    const Handover failed = Deliver(sink, "a");
    EXPECT_EQ(0U, failed.safe);
    ASSERT_FALSE(failed.rest);
    EXPECT_THAT(failed.rest.GetError().Text(), HasSubstr("sync"));
    EXPECT_EQ("", ReadText(m_path));
    EXPECT_EQ(1U, Deliver(sink, "a").safe);
    EXPECT_EQ(2, t_namesSynced);
    EXPECT_EQ(1U, Deliver(sink, "b").safe);
    EXPECT_EQ(2, t_namesSynced) << "it has its name";
    EXPECT_EQ(1U, Deliver(sink, "c").safe);
    EXPECT_EQ(3, t_namesSynced) << "turned, and a new one made";
    EXPECT_EQ(LineOf("c"), ReadText(m_path));
}

TEST_F(JsonLinesTest, OneHandoverIsDividedAmongTheFiles) {
    const std::string line = LineOf("x");
    zelhost::CJsonLinesSink sink(m_path, line.size() * 2, 2, "p");
    const Handover handed = sink.Deliver(std::vector<SpoolMessage>(7, Message("x")), m_goOn);
    EXPECT_EQ(7U, handed.safe);
    EXPECT_TRUE(handed.rest);
    EXPECT_EQ(1U, LinesOf(ReadText(m_path)).size());
    EXPECT_EQ(2U, LinesOf(ReadText(m_path + ".1")).size());
    EXPECT_EQ(2U, LinesOf(ReadText(m_path + ".2")).size());
    EXPECT_FALSE(support::Exists(m_path + ".3"));
}

TEST_F(JsonLinesTest, AFileHoldsOneMessageHoweverSmallItsBound) {
    for (const uint64_t most : {uint64_t{0}, uint64_t{1}, uint64_t{LineOf("a").size()}}) {
        zelhost::CJsonLinesSink sink(m_path, most, 2, "p");
        EXPECT_EQ(3U, sink.Deliver({Message("a"), Message("b"), Message("c")}, m_goOn).safe);
        EXPECT_EQ(LineOf("c"), ReadText(m_path)) << most;
        EXPECT_EQ(LineOf("b"), ReadText(m_path + ".1"));
        EXPECT_EQ(LineOf("a"), ReadText(m_path + ".2"));
        for (const char* generation : {"", ".1", ".2"}) std::filesystem::remove(m_path + generation);
    }
}

TEST_F(JsonLinesTest, AMissingGenerationHoldsNoOtherBack) {
    zelhost::CJsonLinesSink sink(m_path, 1, 4, "p");
    ASSERT_EQ(1U, Deliver(sink, "now").safe);
    ASSERT_TRUE(WriteText(m_path + ".2", "two"));
    ASSERT_TRUE(WriteText(m_path + ".4", "four"));
    EXPECT_EQ(1U, Deliver(sink, "next").safe);
    EXPECT_EQ(LineOf("next"), ReadText(m_path));
    EXPECT_EQ(LineOf("now"), ReadText(m_path + ".1"));
    EXPECT_FALSE(support::Exists(m_path + ".2"));
    EXPECT_EQ("two", ReadText(m_path + ".3"));
    EXPECT_EQ("four", ReadText(m_path + ".4")) << "nothing has come in its place";
}

TEST_F(JsonLinesTest, WithoutGenerationsAFullFileGoes) {
    const std::string line = LineOf("x");
    zelhost::CJsonLinesSink sink(m_path, line.size(), 0, "p");
    EXPECT_EQ(3U, sink.Deliver(std::vector<SpoolMessage>(3, Message("x")), m_goOn).safe);
    EXPECT_EQ(line, ReadText(m_path));
    EXPECT_EQ(std::vector<std::string>{"e.jsonl"}, support::NamesIn(m_dir / "log"));
    EXPECT_EQ(0640, support::ModeOf(m_path));
}

TEST_F(JsonLinesTest, WhatIsToStopHandsOverNothingMore) {
    zelhost::CJsonLinesSink sink(m_path, 1 << 20, 1, "p");
    const std::atomic<bool> stop{true};
    const Handover handed = sink.Deliver({Message("x")}, stop);
    EXPECT_EQ(0U, handed.safe);
    EXPECT_EQ("the process stops", handed.rest.GetError().Text());
    EXPECT_FALSE(support::Exists(m_path));
}

TEST_F(JsonLinesTest, WhatIsNoFileOfItsOwnIsNamed) {
    ASSERT_TRUE(WriteText(m_dir / "target", ""));
    ASSERT_EQ(0, mkdir((m_dir / "log").c_str(), 0755));
    ASSERT_EQ(0, symlink("../target", m_path.c_str()));
    const Handover handed = DeliverOnce("x");
    EXPECT_EQ(0U, handed.safe);
    ASSERT_FALSE(handed.rest);
    EXPECT_THAT(handed.rest.GetError().Text(), HasSubstr(m_path));
    EXPECT_EQ(ELOOP, handed.rest.GetError().error) << handed.rest.GetError().Text();
    EXPECT_EQ("", ReadText(m_dir / "target"));
}

TEST_F(JsonLinesTest, AFileOfUnknownSizeIsNotWrittenTo) {
    ASSERT_TRUE(WriteText(m_path, "first\n"));
    bool failed = false;
    for (int nth = 1; nth < 10; ++nth) {
        zelhost::CJsonLinesSink sink(m_path, 1 << 20, 2, "p");
        t_statFails = nth;
        const Handover handed = Deliver(sink, "next");
        if (std::exchange(t_statFails, 0) != 0) break;  // it is not asked so often
        failed = true;
        EXPECT_EQ(0U, handed.safe) << nth;
        ASSERT_FALSE(handed.rest) << nth;
        EXPECT_EQ(EIO, handed.rest.GetError().error) << nth << ": " << handed.rest.GetError().Text();
        EXPECT_EQ("first\n", ReadText(m_path).substr(0, 6)) << nth;
        EXPECT_EQ(1U, LinesOf(ReadText(m_path)).size()) << nth;
    }
    EXPECT_TRUE(failed);
}

TEST_F(JsonLinesTest, OnAFullDiskNoHalfLineStays) {
    const std::string reason = OnSmallDisk(m_dir.Path(), "size=64k", [&] {
        ASSERT_EQ(1U, DeliverOnce("before").safe);
        zelhost::CJsonLinesSink sink(m_path, 1 << 20, 2, "p");
        ASSERT_EQ(1U, Deliver(sink, "open").safe);
        const std::string before = ReadText(m_path);
        const Handover full = Deliver(sink, std::string(100000, 'x'));
        EXPECT_EQ(0U, full.safe);
        ASSERT_FALSE(full.rest);
        EXPECT_EQ(base::ErrorKind::kNoSpace, full.rest.GetError().kind);
        EXPECT_EQ(before, ReadText(m_path));
        EXPECT_EQ(1U, Deliver(sink, "after").safe);
        EXPECT_EQ(before + LineOf("after"), ReadText(m_path));
    });
    if (!reason.empty()) GTEST_SKIP() << reason;
}

/// What a daemon at /dev/log is told, on a /dev of the test's own.
class SyslogDaemon {
public:
    SyslogDaemon() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        unlink("/dev/log");
        EXPECT_EQ(0, bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    std::string Next() {
        char text[65536];
        const ssize_t got = recv(m_socket.Get(), text, sizeof text, 0);
        return got < 0 ? std::string() : std::string(text, static_cast<size_t>(got));
    }

private:
    base::Fd m_socket;
};

class SyslogSinkTest : public testing::Test {
protected:
    void WithOwnDev(const std::function<void()>& body) {
        const std::string reason = OnSmallDisk("/dev", "size=64k", body);
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
    const std::atomic<bool> m_goOn{false};
    zelhost::CSyslogSink m_sink{"tervane"};
};

TEST_F(SyslogSinkTest, AMessageIsOneLineOfTheDaemonsFacility) {
    WithOwnDev([&] {
        SyslogDaemon daemon;
        const Handover handed =
            m_sink.Deliver({Message("two\n  lines\tand  \x01 blanks "), Message("next", 2)}, m_goOn);
        SpoolMessage odd = Message("body", 3);
        odd.type = "T\nX";
        EXPECT_EQ(1U, m_sink.Deliver({odd}, m_goOn).safe);
        EXPECT_EQ(2U, handed.safe);
        EXPECT_TRUE(handed.rest);
        EXPECT_EQ(0U, handed.givenUp);
        const std::string who = "<28>tervane[" + std::to_string(getpid()) + "]: ";
        EXPECT_EQ(who + "id-1 T two lines and blanks ", daemon.Next());
        EXPECT_EQ(who + "id-2 T next", daemon.Next());
        EXPECT_EQ(who + "id-3 T X body", daemon.Next());
        EXPECT_EQ("", daemon.Next());
    });
}

TEST_F(SyslogSinkTest, ALineIsNoLongerThanDaemonsTake) {
    WithOwnDev([&] {
        SyslogDaemon daemon;
        ASSERT_EQ(1U, m_sink.Deliver({Message(std::string(9000, 'x'))}, m_goOn).safe);
        const std::string line = daemon.Next();
        EXPECT_EQ(8000U, line.size());
        EXPECT_THAT(line, StartsWith("<28>tervane["));
        EXPECT_THAT(line, EndsWith("xxx"));
    });
}

TEST_F(SyslogSinkTest, ALineIsWholeUpToTheBound) {
    WithOwnDev([&] {
        SyslogDaemon daemon;
        ASSERT_EQ(1U, m_sink.Deliver({Message("")}, m_goOn).safe);
        const size_t rest = 8000 - daemon.Next().size();
        for (const size_t body : {rest - 1, rest, rest + 1}) {
            ASSERT_EQ(1U, m_sink.Deliver({Message(std::string(body, 'x'))}, m_goOn).safe);
            EXPECT_EQ(8000 - rest + std::min(body, rest), daemon.Next().size());
        }
    });
}

TEST_F(SyslogSinkTest, ADaemonThatDoesNotReadHasWhatItTook) {
    WithOwnDev([&] {
        SyslogDaemon daemon;
        const Handover handed = m_sink.Deliver(std::vector<SpoolMessage>(20000, Message("x")), m_goOn);
        EXPECT_GT(handed.safe, 0U);
        EXPECT_LT(handed.safe, 20000U);
        ASSERT_FALSE(handed.rest);
        EXPECT_THAT(handed.rest.GetError().Text(), StartsWith("syslog: "));
        size_t read = 0;
        while (!daemon.Next().empty()) ++read;
        EXPECT_EQ(handed.safe, read);
        EXPECT_EQ(1U, m_sink.Deliver({Message("again")}, m_goOn).safe);
        EXPECT_THAT(daemon.Next(), EndsWith(" T again"));
    });
}

TEST_F(SyslogSinkTest, WithoutADaemonNothingIsSafeUntilOneIsThere) {
    WithOwnDev([&] {
        Handover handed = m_sink.Deliver({Message("x")}, m_goOn);
        EXPECT_EQ(0U, handed.safe);
        ASSERT_FALSE(handed.rest);
        EXPECT_THAT(handed.rest.GetError().Text(), StartsWith("no syslog daemon at /dev/log: "));
        {
            SyslogDaemon daemon;
            EXPECT_EQ(1U, m_sink.Deliver({Message("x")}, m_goOn).safe);
            EXPECT_THAT(daemon.Next(), EndsWith(" T x"));
        }
        handed = m_sink.Deliver({Message("lost", 2), Message("lost", 3)}, m_goOn);
        EXPECT_EQ(0U, handed.safe);
        EXPECT_THAT(handed.rest.GetError().Text(), StartsWith("syslog: "));
        SyslogDaemon restarted;
        EXPECT_EQ(1U, m_sink.Deliver({Message("again", 2)}, m_goOn).safe) << "a restarted one is found";
        EXPECT_THAT(restarted.Next(), EndsWith(" T again"));
    });
}

TEST_F(SyslogSinkTest, WhatIsToStopHandsOverNothingMore) {
    WithOwnDev([&] {
        SyslogDaemon daemon;
        const std::atomic<bool> stop{true};
        const Handover handed = m_sink.Deliver({Message("x")}, stop);
        EXPECT_EQ(0U, handed.safe);
        EXPECT_FALSE(handed.rest);
        EXPECT_EQ("", daemon.Next());
    });
}

TEST(HttpUrlTest, IsAHostByOneOfTwoProtocols) {
    for (const char* good : {"http://h", "https://h", "http://h:1/p?q=1#f", "https://[::1]/", "http://h/~"}) {
        EXPECT_TRUE(zelhost::IsHttpUrl(good)) << good;
    }
    for (const char* bad :
         {"", "http://", "https://", "http:/h", "ttp://h", "https:/h/", "ftp://h", "HTTP://h", "httpss://h",
          "http://h ", "http://h\n", "http://h\x7f", "http://\xc3\xa4", " http://h", "http://a b"}) {
        EXPECT_FALSE(zelhost::IsHttpUrl(bad)) << bad;
    }
}

}  // namespace

// --- HTTP ---

namespace {

zelhost::SpoolMessage HttpMessage(int64_t seq, const std::string& body) {
    zelhost::SpoolMessage m;
    m.seq = seq;
    m.id = "c5f103700d05934b-" + std::to_string(seq);
    m.type = "T";
    m.body = body;
    return m;
}

}  // namespace

TEST(HttpSinkTest, WhatIsRefusedAsWrongThreeTimesIsGivenUp) {
    const std::atomic<bool> stop{false};
    for (const int status : {400, 413, 415, 422}) {
        support::TakeLog();
        support::HttpServer server;
        server.Refuse("poison", status);
        zelhost::DeliveryOptions options;
        options.httpUrl = server.Url();
        zelhost::CHttpSink sink(options, "p");
        const std::vector<zelhost::SpoolMessage> messages = {
            HttpMessage(5000000001, "a"), HttpMessage(5000000002, "poison"), HttpMessage(5000000003, "b")};
        const auto first = sink.Deliver(messages, stop);
        EXPECT_EQ(first.safe, 1u);
        EXPECT_EQ(first.givenUp, 0u);
        ASSERT_FALSE(first.rest);
        EXPECT_EQ(first.rest.GetError().Text(), options.httpUrl + ": the server answered " + std::to_string(status));
        const std::vector<zelhost::SpoolMessage> rest(messages.begin() + 1, messages.end());
        EXPECT_EQ(sink.Deliver(rest, stop).safe, 0u);
        EXPECT_TRUE(support::TakeLog().empty());
        const auto third = sink.Deliver(rest, stop);
        EXPECT_EQ(third.safe, 2u);
        EXPECT_EQ(third.givenUp, 1u);
        EXPECT_TRUE(third.rest);
        EXPECT_EQ(support::TakeLog(), (Lines{"2 message c5f103700d05934b-5000000002 is given up: " + options.httpUrl +
                                             " refuses it with " + std::to_string(status)}));
        EXPECT_EQ(server.Connections(), 5);
    }
}

TEST(HttpSinkTest, WhatMayGetBetterIsNeverGivenUp) {
    const std::atomic<bool> stop{false};
    support::HttpServer server;
    zelhost::DeliveryOptions options;
    options.httpUrl = server.Url();
    zelhost::CHttpSink sink(options, "p");
    for (const int status : {401, 403, 404, 408, 414, 429, 500, 503}) {
        server.AnswerWith(status);
        for (int i = 0; i < 4; ++i) {
            const auto handed = sink.Deliver({HttpMessage(1, "a")}, stop);
            EXPECT_EQ(handed.safe, 0u) << status;
            EXPECT_EQ(handed.givenUp, 0u) << status;
        }
    }
}

TEST(HttpSinkTest, EachMessageHasItsOwnRefusals) {
    const std::atomic<bool> stop{false};
    support::HttpServer server;
    server.AnswerWith(400);
    zelhost::DeliveryOptions options;
    options.httpUrl = server.Url();
    zelhost::CHttpSink sink(options, "p");
    // Their numbers differ beyond 32 bits only.
    for (int i = 0; i < 2; ++i) EXPECT_EQ(sink.Deliver({HttpMessage(1, "a")}, stop).safe, 0u);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(sink.Deliver({HttpMessage(4294967297, "b")}, stop).safe, 0u) << i;
    EXPECT_EQ(sink.Deliver({HttpMessage(4294967297, "b")}, stop).givenUp, 1u);
    EXPECT_EQ(sink.Deliver({HttpMessage(2, "c")}, stop).safe, 0u) << "a new one begins anew";
}

TEST(HttpSinkTest, AMessageIsOneLineWithItsIdBesideIt) {
    const std::atomic<bool> stop{false};
    support::HttpServer server;
    zelhost::DeliveryOptions options;
    options.httpUrl = server.Url();
    for (const char* header : {"", "Authorization: Bearer x"}) {
        options.httpHeader = header;
        zelhost::CHttpSink sink(options, "proc");
        const auto message = HttpMessage(7, "a");
        EXPECT_EQ(sink.Deliver({message}, stop).safe, 1u);
        const auto request = server.Accepted().back();
        EXPECT_EQ(request.body, MessageJson(message, "proc") + "\n");
        EXPECT_THAT(request.head, testing::HasSubstr("\r\nIdempotency-Key: c5f103700d05934b-7"));
        EXPECT_THAT(request.head, testing::HasSubstr("\r\nContent-Type: application/json"));
        EXPECT_EQ(request.head.find("Authorization: Bearer x") != std::string::npos, header[0] != '\0');
    }
}

TEST(HttpSinkTest, ASilentServerIsLeftAfterItsTime) {
    const std::atomic<bool> stop{false};
    support::HttpServer server;
    server.Hang(true);
    zelhost::DeliveryOptions options;
    options.httpUrl = server.Url();
    options.httpTimeoutMs = 250;
    zelhost::CHttpSink sink(options, "p");
    const auto handed = sink.Deliver({HttpMessage(1, "a")}, stop);
    EXPECT_EQ(handed.safe, 0u);
    ASSERT_FALSE(handed.rest);
    const std::string said = handed.rest.GetError().Text();
    const size_t at = said.find("timed out after ");
    ASSERT_NE(at, std::string::npos) << said;
    const int took = std::atoi(said.c_str() + at + std::string("timed out after ").size());
    EXPECT_GE(took, 250);
    EXPECT_LT(took, 5000) << "a request's own time, where nobody names one";
    server.Hang(false);
}

TEST(HttpSinkTest, WhatIsToStopHandsOverNothingMore) {
    const std::atomic<bool> stop{true};
    support::HttpServer server;
    zelhost::DeliveryOptions options;
    options.httpUrl = server.Url();
    zelhost::CHttpSink sink(options, "p");
    const auto handed = sink.Deliver({HttpMessage(1, "a")}, stop);
    EXPECT_EQ(handed.safe, 0u);
    ASSERT_FALSE(handed.rest);
    EXPECT_EQ(handed.rest.GetError().Text(), "the process stops");
    EXPECT_EQ(server.Connections(), 0);
}

// --- all of them ---

// The spool's file has their cursors under these names.
TEST(EventSinkTest, EachHasItsNameAndTakesManyAtATime) {
    zelhost::CJsonLinesSink lines("unused", 1, 1, "p");
    zelhost::CSyslogSink syslog("p");
    zelhost::CHttpSink http({}, "p");
    const struct {
        const zelhost::IEventSink& sink;
        const char* name;
        size_t batch;
    } cases[] = {{lines, "jsonl", 256}, {syslog, "syslog", 64}, {http, "http", 16}};
    for (const auto& each : cases) {
        EXPECT_EQ(each.name, each.sink.Name());
        EXPECT_EQ(each.batch, each.sink.BatchSize()) << each.name;
        EXPECT_FALSE(each.sink.KeepsConfirmed()) << each.name << " goes forward only";
    }
}
