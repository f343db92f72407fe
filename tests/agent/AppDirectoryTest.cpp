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
    EXPECT_EQ(m_path + " may be written by everybody: chmod o-w " + m_path, Open(directory));
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
    EXPECT_EQ(m_path + " belongs to user 65534: chown it to the agent's user", Open(directory));
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
