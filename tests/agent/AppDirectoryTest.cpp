#include "AppDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "support/Files.h"

using namespace agent;

namespace {
class AppDirectoryTest : public ::testing::Test {
protected:
    support::TempDir m_directory;
    const std::string m_path = m_directory.Path();

    /// Opens the directory. Returns: what stood in the way, as words; empty when nothing did.
    std::string Open(AppDirectory& directory, const std::string& name = "tervane") {
        const base::Status opened = directory.Open(m_path, name);
        return opened ? "" : opened.GetError().Text();
    }
};
}  // namespace

TEST_F(AppDirectoryTest, MakesItsFoldersForNobodyElse) {
    AppDirectory directory;
    ASSERT_EQ("", Open(directory));
    EXPECT_EQ("", directory.Warning());
    for (const char* folder : {"conf", "log", "run", "data", "spool"}) {
        struct stat info {};
        ASSERT_EQ(0, stat((m_path + "/" + folder).c_str(), &info)) << folder;
        EXPECT_EQ(0u, info.st_mode & S_IRWXO) << folder;
    }
}

TEST_F(AppDirectoryTest, ASecondProcessOfTheSameNameIsToldWhoHoldsIt) {
    AppDirectory first;
    ASSERT_EQ("", Open(first));
    AppDirectory second;
    const base::Status opened = second.Open(m_path, "tervane");
    ASSERT_FALSE(opened);
    EXPECT_EQ(base::ErrorKind::kBusy, opened.GetError().kind);
    EXPECT_EQ("another tervane is running on " + m_path + " (process " + std::to_string(getpid()) +
                  "): stop it first, or give this one a directory of its own with --app-dir",
              opened.GetError().Text());
    AppDirectory component;
    EXPECT_EQ("", Open(component, "QorNet"));
}

TEST_F(AppDirectoryTest, TheLockEndsWithItsHolder) {
    {
        AppDirectory first;
        ASSERT_EQ("", Open(first));
    }
    AppDirectory second;
    EXPECT_EQ("", Open(second));
}

TEST_F(AppDirectoryTest, ADirectoryThatEverybodyMayChangeIsRefused) {
    ASSERT_EQ(0, chmod(m_path.c_str(), 0777));
    AppDirectory directory;
    EXPECT_EQ(m_path + ": writable by everybody, mode 0777 (chmod o-w)", Open(directory));
    ASSERT_EQ(0, chmod(m_path.c_str(), 01777));
    EXPECT_EQ(m_path + ": writable by everybody, mode 1777 (chmod o-w)", Open(directory)) << "sticky is not enough";
}

TEST_F(AppDirectoryTest, WhatItsGroupMayChangeIsRefusedForRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP: not root: a user may let his group write";
    ASSERT_EQ(0, chmod(m_path.c_str(), 0770));
    AppDirectory directory;
    EXPECT_EQ(m_path + ": writable by its group, mode 0770 (chmod g-w)", Open(directory));
}

TEST_F(AppDirectoryTest, EveryFolderIsJudgedAndTheOneAboveToo) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP: not root: a user may let his group write";
    for (const char* folder : {"conf", "log", "run", "data", "spool", "selfkill"}) {
        const support::TempDir root;
        const std::string path = root / "agent";
        ASSERT_EQ(0, mkdir(path.c_str(), 0750));
        const auto open = [&] {
            AppDirectory directory;
            const base::Status opened = directory.Open(path, "tervane");
            return opened ? std::string() : opened.GetError().Text();
        };
        EXPECT_EQ("", open());
        ASSERT_EQ(0, chmod((path + "/" + folder).c_str(), 01777));
        EXPECT_EQ(path + "/" + folder + ": writable by everybody, mode 1777 (chmod o-w)", open());
        ASSERT_EQ(0, chmod((path + "/" + folder).c_str(), 0750));
        ASSERT_EQ(0, chmod(root.Path().c_str(), 0770));
        EXPECT_EQ(path + ": " + root.Path() + ": writable by its group, mode 0770 (chmod g-w)", open());
    }
}

TEST_F(AppDirectoryTest, ASecondNameOfTheLockKeepsItsText) {
    ASSERT_EQ(0, mkdir((m_path + "/run").c_str(), 0750));
    ASSERT_TRUE(support::WriteText(m_path + "/victim", "precious"));
    ASSERT_EQ(0, link((m_path + "/victim").c_str(), (m_path + "/run/tervane.lock").c_str()));
    AppDirectory directory;
    EXPECT_EQ("", Open(directory));
    EXPECT_NE(std::string::npos, directory.Warning().find("it has a second name")) << directory.Warning();
    EXPECT_EQ("precious", support::ReadText(m_path + "/victim"));
}

TEST_F(AppDirectoryTest, AFolderThatIsALinkIsRefused) {
    ASSERT_EQ(0, symlink("/tmp", (m_path + "/run").c_str()));
    AppDirectory directory;
    EXPECT_EQ(m_path + "/run is not a directory", Open(directory));
}

TEST_F(AppDirectoryTest, ADirectoryOfSomebodyElseIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP: not root: cannot give a directory away";
    ASSERT_EQ(0, chown(m_path.c_str(), 65534, 65534));
    AppDirectory directory;
    EXPECT_NE(std::string::npos,
              Open(directory).find(m_path + ": owned by user 65534, mode 0700; the agent's user or"));
}

TEST_F(AppDirectoryTest, APipeInPlaceOfTheLockCostsTheLockOnly) {
    ASSERT_EQ(0, mkdir((m_path + "/run").c_str(), 0750));
    ASSERT_EQ(0, mkfifo((m_path + "/run/tervane.lock").c_str(), 0600));
    AppDirectory directory;
    EXPECT_EQ("", Open(directory));
    EXPECT_EQ("cannot make " + m_path +
                  "/run/tervane.lock (not a regular file): nothing keeps a second process of this name out",
              directory.Warning());
}
