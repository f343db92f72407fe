#include "AppDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "ExitCode.h"
#include "support/Files.h"

using namespace agent;

namespace {
class AppDirectoryTest : public ::testing::Test {
protected:
    support::TempDir m_directory;
    const std::string m_path = m_directory.Path();
    std::string m_problem;
    std::string m_warning;
};
}  // namespace

TEST_F(AppDirectoryTest, MakesItsFoldersForNobodyElse) {
    AppDirectory directory;
    ASSERT_EQ(kExitClean, directory.Open(m_path, "tervane", m_problem, m_warning)) << m_problem;
    EXPECT_TRUE(directory.Writable());
    for (const char* folder : {"conf", "log", "run", "data", "spool"}) {
        struct stat info {};
        ASSERT_EQ(0, stat((m_path + "/" + folder).c_str(), &info)) << folder;
        EXPECT_EQ(0u, info.st_mode & S_IRWXO) << folder;
    }
}

TEST_F(AppDirectoryTest, ASecondProcessOfTheSameNameIsToldWhoHoldsIt) {
    AppDirectory first;
    ASSERT_EQ(kExitClean, first.Open(m_path, "tervane", m_problem, m_warning));
    AppDirectory second;
    EXPECT_EQ(kExitAlreadyRunning, second.Open(m_path, "tervane", m_problem, m_warning));
    EXPECT_NE(std::string::npos, m_problem.find(std::to_string(getpid()))) << m_problem;
    AppDirectory component;
    EXPECT_EQ(kExitClean, component.Open(m_path, "QorNet", m_problem, m_warning));
}

TEST_F(AppDirectoryTest, TheLockEndsWithItsHolder) {
    {
        AppDirectory first;
        ASSERT_EQ(kExitClean, first.Open(m_path, "tervane", m_problem, m_warning));
    }
    AppDirectory second;
    EXPECT_EQ(kExitClean, second.Open(m_path, "tervane", m_problem, m_warning)) << m_problem;
}

TEST_F(AppDirectoryTest, ADirectoryThatEverybodyMayChangeIsRefused) {
    ASSERT_EQ(0, chmod(m_path.c_str(), 0777));
    AppDirectory directory;
    EXPECT_EQ(kExitDirectory, directory.Open(m_path, "tervane", m_problem, m_warning));
    EXPECT_NE(std::string::npos, m_problem.find("chmod")) << m_problem;
}

TEST_F(AppDirectoryTest, AFolderThatIsALinkIsRefused) {
    ASSERT_EQ(0, symlink("/tmp", (m_path + "/run").c_str()));
    AppDirectory directory;
    EXPECT_EQ(kExitDirectory, directory.Open(m_path, "tervane", m_problem, m_warning));
}

TEST_F(AppDirectoryTest, ADirectoryOfSomebodyElseIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP: not root: cannot give a directory away";
    ASSERT_EQ(0, chown(m_path.c_str(), 65534, 65534));
    AppDirectory directory;
    EXPECT_EQ(kExitDirectory, directory.Open(m_path, "tervane", m_problem, m_warning));
    EXPECT_NE(std::string::npos, m_problem.find("65534")) << m_problem;
}
