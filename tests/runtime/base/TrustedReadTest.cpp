// The verdict on what root reads and runs: each way in which somebody else could have had a hand in it.
#include "base/TrustedRead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <utility>

#include <gmock/gmock.h>

#include "base/FileIo.h"
#include "support/Faults.h"
#include "support/Files.h"

using base::ErrorKind;
using base::Fd;
using base::OpenTrusted;
using base::OpenTrustedDirectory;
using base::OpenTrustedProgram;
using base::ReadTrusted;
using base::Result;
using base::TrustedProgram;
using base::TrustScope;
using faults::Before;
using faults::Call;
using faults::Failing;
using support::TempDir;
using support::WriteText;
using testing::HasSubstr;

namespace {

constexpr uid_t kForeigner = 65534;
constexpr TrustScope kBoth[] = {TrustScope::kFile, TrustScope::kWithPlace};

class TrustedReadTest : public testing::Test {
protected:
    void SetUp() override {
        WriteText(m_file, "text");
        ASSERT_EQ(0, ::chmod(m_file.c_str(), 0640));
        ASSERT_EQ(0, ::mkdir(m_place.c_str(), 0755));
        WriteText(m_place + "/file", "below");
        ASSERT_EQ(0, ::chmod((m_place + "/file").c_str(), 0640));
    }
    void Refuses(const std::string& path, TrustScope scope, const std::string& why) {
        const Result<std::string> text = ReadTrusted(path, 100, scope);
        ASSERT_FALSE(text) << why;
        EXPECT_EQ(ErrorKind::kRefused, text.GetError().kind) << why;
        EXPECT_THAT(text.GetError().Reason(), HasSubstr(why));
    }

    static int ExitCode(const TrustedProgram& program, const std::vector<std::string>& words) {
        std::vector<std::string> copies = words;
        std::vector<char*> arguments;
        for (std::string& word : copies) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        const pid_t pid = ::fork();
        if (pid == 0) ::_exit(base::RunTrustedProgram(program, arguments.data(), environ) == 0 ? 125 : 126);
        int status = -1;
        return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    static int ExitCodeOf(const std::string& path, const std::vector<std::string>& words) {
        const Result<TrustedProgram> program = OpenTrustedProgram(path);
        if (program) return ExitCode(*program, words);
        ADD_FAILURE() << program.GetError().Text();
        return -1;
    }

    TempDir m_dir;
    const std::string m_file = m_dir / "file";
    const std::string m_place = m_dir / "place";
};

TEST_F(TrustedReadTest, WhatOnlyThisUserCanWriteIsRead) {
    for (const TrustScope scope : kBoth) {
        for (const mode_t mode : {0400U, 0600U, 0640U, 0644U, 0755U}) {
            ASSERT_EQ(0, ::chmod(m_file.c_str(), mode));
            const Result<std::string> text = ReadTrusted(m_file, 4, scope);
            ASSERT_TRUE(text) << text.GetError().Text();
            EXPECT_EQ("text", *text);
        }
        EXPECT_EQ(ErrorKind::kTooLarge, ReadTrusted(m_file, 3, scope).GetError().kind);
        EXPECT_EQ("longer than 3 bytes", ReadTrusted(m_file, 3, scope).GetError().Reason());
        EXPECT_EQ(ErrorKind::kNotFound, ReadTrusted(m_dir / "none", 100, scope).GetError().kind);
        EXPECT_EQ(ErrorKind::kNotFound, ReadTrusted(m_dir / "none/file", 100, scope).GetError().kind);
        EXPECT_FALSE(ReadTrusted(m_dir / "", 100, scope));
        EXPECT_FALSE(ReadTrusted("", 100, scope));
    }
}

TEST_F(TrustedReadTest, WhatIsNoRegularFileIsRefusedAtOnce) {
    ASSERT_EQ(0, ::symlink("file", (m_dir / "link").c_str()));
    ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
    for (const TrustScope scope : kBoth) {
        Refuses(m_dir / "link", scope, "a symbolic link is not followed");
        Refuses(m_dir / "pipe", scope, "not a regular file");
        Refuses(m_place, scope, "not a regular file");
        Refuses("/dev/null", scope, "not a regular file");
    }
}

TEST_F(TrustedReadTest, WhatOthersMayWriteIsRefusedWithItsRemedy) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: a user may let his group write";
    for (const TrustScope scope : kBoth) {
        for (const mode_t mode : {0666U, 0602U, 0662U}) {
            ASSERT_EQ(0, ::chmod(m_file.c_str(), mode));
            Refuses(m_file, scope, "writable by everybody, mode 0");
            Refuses(m_file, scope, "(chmod o-w)");
        }
        ASSERT_EQ(0, ::chmod(m_file.c_str(), 0660));
        Refuses(m_file, scope, "writable by its group, mode 0660 (chmod g-w)");
    }
}

TEST_F(TrustedReadTest, AFileOfAnotherUserIsRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: another user's file";
    ASSERT_EQ(0, ::chown(m_file.c_str(), kForeigner, kForeigner));
    for (const TrustScope scope : kBoth) Refuses(m_file, scope, "owned by user 65534, mode 0640");
}

// What a process of another user makes of files of root and of its own.
TEST_F(TrustedReadTest, AnotherUserTrustsRootAndItself) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: to become another user";
    ASSERT_EQ(0, ::chmod(m_dir.Path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(m_file.c_str(), 0644));
    const std::string own = m_dir / "own";
    WriteText(own, "own");
    ASSERT_EQ(0, ::chown(own.c_str(), kForeigner, kForeigner));
    const std::string third = m_dir / "third";
    WriteText(third, "third");
    ASSERT_EQ(0, ::chown(third.c_str(), kForeigner - 1, 0));
    ASSERT_EQ(0, ::chmod(third.c_str(), 0644));
    const std::string shared = m_dir / "shared";  // root's, and its group may write it
    WriteText(shared, "shared");
    ASSERT_EQ(0, ::chmod(shared.c_str(), 0664));
    const auto verdicts = [&] {
        std::string found;
        for (const TrustScope scope : kBoth) {
            for (const std::string& path : {m_file, own, third, shared}) {
                found += ReadTrusted(path, 100, scope) ? '+' : '-';
            }
        }
        return found;
    };
    ASSERT_EQ(0, ::chmod(own.c_str(), 0664));
    ASSERT_EQ(0, ::setegid(kForeigner));
    ASSERT_EQ(0, ::seteuid(kForeigner));
    const std::string found = verdicts();
    ASSERT_EQ(0, ::seteuid(0));
    ASSERT_EQ(0, ::setegid(0));
    EXPECT_EQ("++--++--", found);
    EXPECT_EQ("+---+---", verdicts()) << "root trusts no other user";
}

TEST_F(TrustedReadTest, ThePlaceCountsOnlyWhenItIsAskedFor) {
    ASSERT_EQ(0, ::chmod(m_place.c_str(), 0777));
    EXPECT_TRUE(ReadTrusted(m_place + "/file", 100, TrustScope::kFile));
    Refuses(m_place + "/file", TrustScope::kWithPlace, "writable by everybody, mode 0777 (chmod o-w)");
    EXPECT_EQ(m_place, ReadTrusted(m_place + "/file", 100, TrustScope::kWithPlace).GetError().path);
    ASSERT_EQ(0, ::mkdir((m_place + "/deep").c_str(), 0755));
    WriteText(m_place + "/deep/file", "deep");
    Refuses(m_place + "/deep/file", TrustScope::kWithPlace, "writable by everybody");
    ASSERT_EQ(0, ::chmod(m_place.c_str(), 01777));
    EXPECT_TRUE(ReadTrusted(m_place + "/deep/file", 100, TrustScope::kWithPlace)) << "sticky: it cannot be exchanged";
    // Where others can make names, a name says nothing: a second one of a file of root's could stand there.
    Refuses(m_place + "/file", TrustScope::kWithPlace, "writable by everybody, mode 1777 (chmod o-w)");
    EXPECT_FALSE(OpenTrustedDirectory(m_place));
    EXPECT_TRUE(OpenTrustedDirectory(m_place + "/deep"));
    ASSERT_EQ(0, ::chmod(m_place.c_str(), 0755));
    EXPECT_TRUE(ReadTrusted(m_place + "/deep/file", 100, TrustScope::kWithPlace));
}

TEST_F(TrustedReadTest, APlaceOfAnotherUserIsRefusedStickyOrNot) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: another user's folder";
    ASSERT_EQ(0, ::chown(m_place.c_str(), kForeigner, kForeigner));
    for (const mode_t mode : {0755U, 01777U}) {
        ASSERT_EQ(0, ::chmod(m_place.c_str(), mode));
        Refuses(m_place + "/file", TrustScope::kWithPlace, "owned by user 65534");
        EXPECT_FALSE(OpenTrustedDirectory(m_place));
    }
    ASSERT_EQ(0, ::chown(m_place.c_str(), 0, 0));
    ASSERT_EQ(0, ::chmod(m_place.c_str(), 0775));
    Refuses(m_place + "/file", TrustScope::kWithPlace, "writable by its group");
}

TEST_F(TrustedReadTest, LinksOnTheWayAreFollowedWhenTheyAreTrusted) {
    ASSERT_EQ(0, ::symlink("place", (m_dir / "near").c_str()));
    ASSERT_EQ(0, ::symlink(m_place.c_str(), (m_dir / "far").c_str()));
    ASSERT_EQ(0, ::symlink("../place/.", (m_place + "/round").c_str()));
    for (const char* way : {"near", "far", "near/round", "far/round/round", "place/../near", "./near//."}) {
        const Result<std::string> text = ReadTrusted(m_dir / (std::string(way) + "/file"), 100, TrustScope::kWithPlace);
        ASSERT_TRUE(text) << way << ": " << text.GetError().Text();
        EXPECT_EQ("below", *text);
    }
    ASSERT_EQ(0, ::symlink("loop", (m_dir / "loop").c_str()));
    EXPECT_EQ(ELOOP, ReadTrusted(m_dir / "loop/file", 100, TrustScope::kWithPlace).GetError().error);
    EXPECT_EQ(ENOTDIR, ReadTrusted(m_dir / "file/file", 100, TrustScope::kWithPlace).GetError().error);
    if (::geteuid() != 0) return;
    ASSERT_EQ(0, ::lchown((m_dir / "near").c_str(), kForeigner, kForeigner));
    Refuses(m_dir / "near/file", TrustScope::kWithPlace, "owned by user 65534");
    // The way back up is judged as well: what a link leaves for is what others may have put there.
    ASSERT_EQ(0, ::mkdir((m_dir / "open").c_str(), 0777));
    ASSERT_EQ(0, ::chmod((m_dir / "open").c_str(), 0777));
    ASSERT_EQ(0, ::mkdir((m_dir / "open/in").c_str(), 0755));
    WriteText(m_dir / "open/in/file", "x");
    ASSERT_EQ(0, ::symlink("../open/in", (m_place + "/out").c_str()));
    Refuses(m_place + "/out/file", TrustScope::kWithPlace, "writable by everybody");
}

TEST_F(TrustedReadTest, ARelativePathIsJudgedFromTheRootToo) {
    const Fd before(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(0, ::chdir(m_place.c_str()));
    const Result<std::string> text = ReadTrusted("file", 100, TrustScope::kWithPlace);
    ASSERT_EQ(0, ::chmod(m_place.c_str(), 0777));
    const Result<std::string> refused = ReadTrusted("file", 100, TrustScope::kWithPlace);
    ASSERT_EQ(0, ::fchdir(before.Get()));
    ASSERT_TRUE(text) << text.GetError().Text();
    EXPECT_EQ("below", *text);
    EXPECT_FALSE(refused);
}

TEST_F(TrustedReadTest, ATrustedDirectoryIsOneToOpenBelow) {
    const Result<Fd> place = OpenTrustedDirectory(m_place);
    ASSERT_TRUE(place) << place.GetError().Text();
    const Fd file(::openat(place->Get(), "file", O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(file);
    EXPECT_TRUE(OpenTrustedDirectory("/"));
    EXPECT_TRUE(OpenTrustedDirectory(m_place + "/"));
    EXPECT_EQ(ENOTDIR, OpenTrustedDirectory(m_file).GetError().error);
    EXPECT_EQ(ErrorKind::kNotFound, OpenTrustedDirectory(m_dir / "none").GetError().kind);
}

TEST_F(TrustedReadTest, AProgramIsRunFromTheDescriptorThatWasJudged) {
    EXPECT_EQ(7, ExitCodeOf("/bin/sh", {"sh", "-c", "exit 7"}));
    EXPECT_EQ(0, ExitCodeOf("/bin/sh", {"sh", "-c", "read -r name < /proc/$$/comm; [ \"$name\" != \"${name#*sh}\" ]"}))
        << "it is named as its file is";
    EXPECT_TRUE(OpenTrustedProgram("/bin/sh")) << "a system's own links are followed";
    EXPECT_THAT(OpenTrustedProgram(m_file).GetError().Reason(), HasSubstr("not executable, mode 0640"));
    EXPECT_FALSE(OpenTrustedProgram(m_place));
    EXPECT_EQ(ErrorKind::kNotFound, OpenTrustedProgram(m_dir / "none").GetError().kind);
    ASSERT_EQ(0, ::chmod(m_file.c_str(), 0757));
    EXPECT_THAT(OpenTrustedProgram(m_file).GetError().Reason(), HasSubstr("writable by everybody"));
    ASSERT_EQ(0, ::chmod(m_file.c_str(), 0755));
    EXPECT_TRUE(OpenTrustedProgram(m_file));
    ASSERT_EQ(0, ::chmod(m_dir.Path().c_str(), 0777));
    EXPECT_EQ(m_dir.Path(), OpenTrustedProgram(m_file).GetError().path);
    ASSERT_EQ(0, ::chmod(m_dir.Path().c_str(), 0700));
}

TEST_F(TrustedReadTest, OneRightToExecuteMakesAProgram) {
    const std::string program = m_place + "/program";
    WriteText(program, "#!/bin/sh\nexit 5\n");
    for (const mode_t mode : {0700U, 0610U, 0601U}) {
        ASSERT_EQ(0, ::chmod(program.c_str(), mode));
        const Result<TrustedProgram> opened = OpenTrustedProgram(program);
        EXPECT_TRUE(opened) << std::oct << mode;
    }
    ASSERT_EQ(0, ::chmod(program.c_str(), 0644));
    EXPECT_THAT(OpenTrustedProgram(program).GetError().Reason(), HasSubstr("not executable, mode 0644"));
}

TEST_F(TrustedReadTest, AScriptIsRunByItsDescriptor) {
    const std::string script = m_place + "/script";
    WriteText(script, "#! /bin/sh -e\n[ \"$1\" = one ] && cd \"$(dirname \"$0\")\" && [ -f file ] && exit 5\n");
    ASSERT_EQ(0, ::chmod(script.c_str(), 0755));
    EXPECT_EQ(5, ExitCodeOf(script, {"script", "one"})) << "it finds itself and what stands beside it";
    // The place is exchanged after the verdict: what runs is what was judged.
    const Result<TrustedProgram> judged = OpenTrustedProgram(script);
    ASSERT_TRUE(judged) << judged.GetError().Text();
    ASSERT_EQ(0, ::rename(m_place.c_str(), (m_dir / "moved").c_str()));
    ASSERT_EQ(0, ::mkdir(m_place.c_str(), 0755));
    WriteText(script, "#!/bin/sh\nexit 6\n");
    ASSERT_EQ(0, ::chmod(script.c_str(), 0755));
    EXPECT_EQ(5, ExitCode(*judged, {"script", "one"}));
    EXPECT_EQ(6, ExitCodeOf(script, {"script"}));
}

TEST_F(TrustedReadTest, AnInterpreterThatOthersMayWriteIsRefused) {
    const std::string interpreter = m_place + "/interpreter";
    const std::string script = m_dir / "script";
    WriteText(interpreter, "#!/bin/sh\nexit 3\n");
    ASSERT_EQ(0, ::chmod(interpreter.c_str(), 0755));
    WriteText(script, "#!" + interpreter + " argument\n");
    ASSERT_EQ(0, ::chmod(script.c_str(), 0755));
    EXPECT_EQ(3, ExitCodeOf(script, {"script"}));
    ASSERT_EQ(0, ::chmod(interpreter.c_str(), 0757));
    const Result<TrustedProgram> refused = OpenTrustedProgram(script);
    ASSERT_FALSE(refused);
    EXPECT_EQ(interpreter + ": writable by everybody, mode 0757 (chmod o-w)",
              base::ReasonOf(refused.GetError(), script));
    ASSERT_EQ(0, ::chmod(interpreter.c_str(), 0755));
    WriteText(interpreter, "#!" + interpreter + "\n");
    EXPECT_THAT(OpenTrustedProgram(script).GetError().Reason(), HasSubstr("too many interpreters"));
}

TEST_F(TrustedReadTest, AProgramInASharedDirectoryIsRefused) {
    const std::string program = m_place + "/program";
    WriteText(program, "#!/bin/sh\n");
    ASSERT_EQ(0, ::chmod(program.c_str(), 0755));
    ASSERT_EQ(0, ::symlink("/bin/true", (m_place + "/link").c_str()));
    EXPECT_TRUE(OpenTrustedProgram(program));
    EXPECT_TRUE(OpenTrustedProgram(m_place + "/link"));
    for (const mode_t mode : {0777U, 01777U}) {
        ASSERT_EQ(0, ::chmod(m_place.c_str(), mode));
        for (const char* name : {"/program", "/link"}) {
            const Result<TrustedProgram> refused = OpenTrustedProgram(m_place + name);
            ASSERT_FALSE(refused) << name << " in " << std::oct << mode;
            EXPECT_EQ(m_place, refused.GetError().path);
        }
    }
}

TEST_F(TrustedReadTest, NoVerdictLeavesADescriptorOpen) {
    const size_t before = support::OpenDescriptors();
    for (const TrustScope scope : kBoth) {
        EXPECT_TRUE(ReadTrusted(m_file, 100, scope));
        EXPECT_FALSE(ReadTrusted(m_place, 100, scope));
        EXPECT_FALSE(ReadTrusted(m_dir / "none", 100, scope));
    }
    EXPECT_TRUE(OpenTrustedDirectory(m_place));
    EXPECT_EQ(before, support::OpenDescriptors());
}

// The name may lead elsewhere the next time: what was judged is what is opened, and nothing is looked up twice.
TEST_F(TrustedReadTest, EachElementIsOpenedOnce) {
    char real[PATH_MAX];
    ASSERT_NE(nullptr, ::realpath(m_place.c_str(), real));
    const std::string place = real;
    const int elements = static_cast<int>(std::count(place.begin(), place.end(), '/'));
    const auto opened = [](const auto& body) {
        const Failing counter(Call::kOpenat, 0, 0);
        EXPECT_TRUE(body());
        return counter.Calls();
    };
    EXPECT_EQ(elements, opened([&] { return OpenTrustedDirectory(place).Ok(); }));
    EXPECT_EQ(elements, opened([&] { return base::OpenNamedDirectory(place).Ok(); }));
    EXPECT_EQ(elements + 1, opened([&] { return OpenTrusted(place + "/file", TrustScope::kWithPlace).Ok(); }));
    const std::string interpreter = place + "/interpreter";
    const std::string script = place + "/script";
    WriteText(interpreter, "no script");
    WriteText(script, "#!" + interpreter + "\n");
    for (const std::string& path : {interpreter, script}) ASSERT_EQ(0, ::chmod(path.c_str(), 0755));
    // The file itself twice: to be judged, and to be read by its directory and name.
    const int each = elements + 2;
    EXPECT_EQ(each, opened([&] { return OpenTrustedProgram(interpreter).Ok(); }));
    EXPECT_EQ(2 * each, opened([&] { return OpenTrustedProgram(script).Ok(); }));
}

TEST_F(TrustedReadTest, AProgramThatIsExchangedMeanwhileIsRefused) {
    const std::string program = m_place + "/program";
    const std::string other = m_place + "/other";
    const auto make = [](const std::string& path) {
        ASSERT_TRUE(WriteText(path, "no script"));
        ASSERT_EQ(0, ::chmod(path.c_str(), 0755));
    };
    make(program);
    int opens = 0;
    {
        const Failing counter(Call::kOpenat, 0, 0);
        ASSERT_TRUE(OpenTrustedProgram(program));
        opens = counter.Calls();
    }
    make(other);
    {
        const Before last(Call::kOpenat, opens, [&] { EXPECT_EQ(0, ::rename(other.c_str(), program.c_str())); });
        const Result<TrustedProgram> refused = OpenTrustedProgram(program);
        ASSERT_FALSE(refused);
        EXPECT_EQ(program + ": it was exchanged meanwhile", base::ReasonOf(refused.GetError(), other));
        EXPECT_EQ(ErrorKind::kRefused, refused.GetError().kind);
    }
    {
        const Before last(Call::kOpenat, opens, [&] { EXPECT_EQ(0, ::rename(program.c_str(), other.c_str())); });
        EXPECT_EQ(ErrorKind::kNotFound, OpenTrustedProgram(program).GetError().kind);
    }
    make(program);
    const Before last(Call::kOpenat, opens, [&] {
        EXPECT_EQ(0, ::unlink(program.c_str()));
        EXPECT_EQ(0, ::symlink("other", program.c_str()));
    });
    EXPECT_EQ(ELOOP, OpenTrustedProgram(program).GetError().error);
}

TEST_F(TrustedReadTest, WhatCannotBeLookedAtIsToldAndNotTrusted) {
    const std::string script = m_place + "/script";
    WriteText(script, "#!/bin/sh\n");
    ASSERT_EQ(0, ::chmod(script.c_str(), 0755));
    const std::pair<const char*, std::function<base::Error()>> ways[] = {
        {"directory", [&] { return OpenTrustedDirectory(m_place).GetError(); }},
        {"named directory", [&] { return base::OpenNamedDirectory(m_place).GetError(); }},
        {"file", [&] { return OpenTrusted(m_file, TrustScope::kFile).GetError(); }},
        {"file in its place", [&] { return OpenTrusted(m_file, TrustScope::kWithPlace).GetError(); }},
        {"program", [&] { return OpenTrustedProgram(script).GetError(); }}};
    const size_t before = support::OpenDescriptors();
    for (const auto& [name, way] : ways) {
        for (const Call call : {Call::kOpenat, Call::kFstat}) {
            int calls = 0;
            {
                const Failing counter(call, 0, 0);
                way();
                calls = counter.Calls();
            }
            EXPECT_GT(calls, 0) << name;
            for (int nth = 1; nth <= calls; ++nth) {
                const Failing failing(call, EIO, nth);
                const base::Error error = way();
                EXPECT_EQ(EIO, error.error) << name << " " << nth << " of " << calls;
                EXPECT_FALSE(error.path.empty());
            }
        }
    }
    EXPECT_EQ(before, support::OpenDescriptors());
}

TEST_F(TrustedReadTest, OfSeveralFaultsOfAProgramTheGravestIsTold) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: a user may let his group write";
    const std::string script = m_place + "/script";
    const std::pair<mode_t, const char*> faults[] = {
        {0666, "writable by everybody"}, {0644, "not executable, mode 0644 (chmod +x)"}, {0755, "(chmod o-w)"}};
    const std::string interpreter = m_place + "/interpreter";
    WriteText(interpreter, "no script");
    ASSERT_EQ(0, ::chmod(interpreter.c_str(), 0757));
    WriteText(script, "#!" + interpreter + "\n");
    for (const auto& [mode, told] : faults) {
        ASSERT_EQ(0, ::chmod(script.c_str(), mode));
        const Result<TrustedProgram> refused = OpenTrustedProgram(script);
        ASSERT_FALSE(refused) << told;
        EXPECT_THAT(refused.GetError().Reason(), HasSubstr(told));
    }
}

TEST_F(TrustedReadTest, TheInterpreterIsTheFirstWordOfTheFirstLine) {
    struct Line {
        std::string text;
        std::string interpreter;  // empty: no script
    };
    const std::string longest(256 - 3, 'x');  // what the kernel looks at, without "#!/"
    const Line lines[] = {{"", ""},
                          {"#", ""},
                          {"!#/none", ""},
                          {" #!/none", ""},
                          {"\n#!/none", ""},
                          {"#?/none", ""},
                          {"#!", ""},
                          {"#! \t", ""},
                          {"#!\n/none", ""},
                          {"#!/none", "/none"},
                          {"#!/none\n", "/none"},
                          {"#! \t /none\t-e x\n/more", "/none"},
                          {"#!/none -e\t/more", "/none"},
                          {std::string("#!/none\0more", 12), "/none"},
                          {"#!/" + longest, "/" + longest},
                          {"#!/" + longest + "more\n", "/" + longest}};
    const std::string script = m_place + "/script";
    for (const Line& line : lines) {
        WriteText(script, line.text);
        ASSERT_EQ(0, ::chmod(script.c_str(), 0755));
        const Result<TrustedProgram> program = OpenTrustedProgram(script);
        ASSERT_EQ(line.interpreter.empty(), program.Ok()) << line.text;
        if (program) {
            EXPECT_FALSE(program->isScript) << line.text;
        } else {
            EXPECT_EQ(line.interpreter, program.GetError().path) << line.text;
        }
    }
    WriteText(script, "#!/bin/sh\n");
    const Result<TrustedProgram> program = OpenTrustedProgram(script);
    ASSERT_TRUE(program);
    EXPECT_TRUE(program->isScript);
}

TEST_F(TrustedReadTest, FourInterpretersAreFollowedAndNoMore) {
    WriteText(m_place + "/0", "no script");
    for (int number = 0; number <= 5; ++number) {
        const std::string path = m_place + "/" + std::to_string(number);
        if (number > 0) WriteText(path, "#!" + m_place + "/" + std::to_string(number - 1) + "\n");
        ASSERT_EQ(0, ::chmod(path.c_str(), 0755));
        const Result<TrustedProgram> program = OpenTrustedProgram(path);
        ASSERT_EQ(number <= 4, program.Ok()) << number;
        if (!program) {
            EXPECT_EQ("too many interpreters", program.GetError().Reason());
        }
    }
}

TEST_F(TrustedReadTest, LinksAndElementsAreFollowedUpToTheirBounds) {
    char real[PATH_MAX];
    ASSERT_NE(nullptr, ::realpath(m_dir.Path().c_str(), real));
    const std::string top = real;
    ASSERT_EQ(0, ::symlink("place", (top + "/1").c_str()));
    for (int number = 2; number <= 41; ++number) {
        ASSERT_EQ(0, ::symlink(std::to_string(number - 1).c_str(), (top + "/" + std::to_string(number)).c_str()));
    }
    EXPECT_TRUE(OpenTrustedDirectory(top + "/40"));
    EXPECT_EQ(ELOOP, OpenTrustedDirectory(top + "/41").GetError().error);
    std::string path = top;
    for (auto left = 256 - std::count(top.begin(), top.end(), '/'); left > 0; --left) path += "/..";
    EXPECT_TRUE(OpenTrustedDirectory(path + "/./")) << "above the root is the root";
    const Result<Fd> more = OpenTrustedDirectory(path + "/..");
    ASSERT_FALSE(more);
    EXPECT_EQ(ErrorKind::kTooLarge, more.GetError().kind);
}

}  // namespace
