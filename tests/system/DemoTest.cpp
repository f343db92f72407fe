// The demonstration as its visitors start it, without a terminal: the picture comes as plain lines.
#include "AgentFixture.h"

#include <signal.h>

namespace agenttest {
namespace {

class DemoTest : public AgentOnV1Test {
protected:
    std::vector<std::string> DemoWords(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> words{ZEL_DEMO_SCRIPT, "--build", ZEL_DEMO_BUILD, "--app-dir", m_dir};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
    Child StartDemo() {
        Child demo = Spawn(DemoWords(), Environment(), NextOutput());
        EXPECT_TRUE(Poll(kStartSeconds, [&demo] { return Has(demo.Output(), "TervaneMonitor"); })) << demo.Output();
        return demo;
    }
    static bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
};

}  // namespace

TEST_F(DemoTest, EndsByItselfWithASummaryAndLeavesNothing) {
    std::string output;
    ASSERT_EQ(0, RunToEnd(DemoWords({"--for", "5"}), output)) << output;
    EXPECT_TRUE(Has(output, "mode 13: one group per component, v1")) << output;
    EXPECT_TRUE(Has(output, "cpu used of quota")) << output;
    EXPECT_TRUE(Has(output, "\nsummary after ")) << output;
    EXPECT_FALSE(Has(output, "\033")) << "terminal codes without a terminal";
    ExpectNothingLeft();
}

TEST_F(DemoTest, EndsWithItsSummaryWhenItIsAskedTo) {
    Child demo = StartDemo();
    EXPECT_EQ(0, demo.Stop()) << demo.Output();
    EXPECT_TRUE(Has(demo.Output(), "\nsummary after ")) << demo.Output();
    ExpectNothingLeft();
}

TEST_F(DemoTest, ItsAgentDoesNotOutliveAKilledScript) {
    Child demo = StartDemo();
    demo.Kill();
    ExpectNothingLeft();
}

}  // namespace agenttest
