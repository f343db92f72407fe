// The day's history of the real agent, as report and advice show it: before it is on disk, and after the agent has
// gone.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "AgentFixture.h"

namespace agenttest {
namespace {

using testing::HasSubstr;
using testing::Not;

class HistoryTest : public AgentOnV1Test {
protected:
    /// Returns: the page; empty when the command failed.
    std::string Report(std::string& output) {
        const std::string page = Dir() + "/report.html";
        return RunConsole({"report", "--html", page}, output) == 0 ? ReadText(page) : "";
    }
    std::string Store() const { return Dir() + "/data/tervane.stats.db"; }
};

TEST_F(HistoryTest, IsThereBeforeItIsWrittenAndAfterTheAgentsEnd) {
    WriteResource({{"resource_limit_mode", "13"}});
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    Child agent = StartRunningAgent();
    // A minute of the statistics is made when somebody asks, too.
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        Ask({"statistics"});
        return Ask({"advise"}).find("collect-defense/QorHips") != std::string::npos;
    }));
    std::string output;
    const std::string heading = "<h3>collect-defense/QorHips</h3>";
    const std::string page = Report(output);
    EXPECT_THAT(page, HasSubstr(heading)) << output;
    EXPECT_THAT(page, HasSubstr("<h3>main/Tervane</h3>"));
    EXPECT_THAT(output, Not(HasSubstr("note:")));
    EXPECT_FALSE(Exists(Store())) << "who looks writes nothing";
    struct stat info {};
    ASSERT_EQ(stat((Dir() + "/report.html").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);

    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_TRUE(Exists(Store()));
    EXPECT_THAT(Report(output), HasSubstr(heading)) << output;
    EXPECT_THAT(output, HasSubstr("what is not on disk yet, an hour at most, is missing"));
}

TEST_F(HistoryTest, AKillCostsWhatWasNotWritten) {
    WriteResource({{"resource_limit_mode", "13"}});
    WriteComponents("");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        Ask({"statistics"});
        return Ask({"advise"}).find("main/Tervane") != std::string::npos;
    }));
    agent.Kill();
    std::string output;
    EXPECT_THAT(Report(output), HasSubstr("No minute of any group is known"));
    EXPECT_THAT(output, HasSubstr("what is not on disk yet, an hour at most, is missing"));
    Child next = StartRunningAgent();  // clears away what the first one left
    EXPECT_EQ(next.Stop(), 0);
}

TEST_F(HistoryTest, ThePageIsWrittenWhereItWasNamedOrNowhere) {
    std::string output;
    const std::string victim = Dir() + "/victim";
    const std::string link = Dir() + "/link.html";
    WriteText(victim, "mine\n");
    ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
    EXPECT_EQ(RunConsole({"report", "--html", link}, output), 1);
    EXPECT_THAT(output, HasSubstr(link));
    EXPECT_EQ(ReadText(victim), "mine\n");
    EXPECT_EQ(RunConsole({"report", "--html", Dir() + "/no/such/place.html"}, output), 1);
    EXPECT_EQ(RunConsole({"report"}, output), 11);
    EXPECT_EQ(RunConsole({"advise", "--since", "5x"}, output), 11);
    EXPECT_THAT(output, HasSubstr("\"5x\" is no time: 90s, 30m"));
}

}  // namespace
}  // namespace agenttest
