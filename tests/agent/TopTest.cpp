#include "Top.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>

#include "ControlServer.h"
#include "StatusJson.h"
#include "base/Fd.h"

using namespace agent;

namespace {

/// A console that answers with a status, and `top` in a process of its own that watches it.
class TopTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/topXXXXXX";
        m_path = mkdtemp(name);
        ASSERT_EQ(0, system(("mkdir " + m_path + "/run").c_str()));
        ConsoleActions actions;
        actions.status = [this] {
            StatusReport report;
            for (const char* each : {"QorHips", "QorNet"}) {
                ComponentStatus component;
                component.name = each;
                component.state = ComponentState::kRunning;
                report.components.push_back(component);
            }
            report.components[1].suspended = true;
            AddTree(report);
            report.process = "tervane";
            report.pid = 4711;
            report.modeReason = "mode 0: no limit is asked for";
            report.logCount = 1;
            report.logLines = {"a warning"};
            return FormatStatusJson(report);
        };
        m_console = std::make_unique<ControlServer>(actions);
        const base::Status started = m_console->Start(m_path + "/run/tervane.ctl");
        ASSERT_TRUE(started) << started.GetError().Text();
    }
    /// A whole agent of one group with one component, held back in more and more of its periods.
    void AddTree(StatusReport& report) {
        report.tree.present = true;
        for (const auto& [level, name] : {std::pair{zel::CgroupLevel::kParent, "zel"},
                                          {zel::CgroupLevel::kGroup, "guard"},
                                          {zel::CgroupLevel::kComponent, "QorHips"}}) {
            zel::CgroupNodeStatus node;
            node.level = level;
            node.name = name;
            node.cpu.present = true;
            node.cpu.path = std::string("/") + name;
            node.cpu.limit = 400;
            node.cpu.used = m_asked * 40000;
            node.cpu.periods = m_asked * 10;
            node.cpu.throttledPeriods = m_asked * 7;
            node.cpu.throttledUs = m_asked * 100000;
            report.tree.nodes.push_back(node);
        }
        ++m_asked;
    }
    /// The console of a component that tells its workers of priority 1 and 2 to hold back.
    void ServeComponent() {
        ConsoleActions actions;
        actions.status = [] {
            StatusReport report;
            report.process = "QorHips";
            report.sampler.cpuLevel = 1;
            report.cpuNeedLimit[1] = report.cpuNeedLimit[2] = true;
            return FormatStatusJson(report);
        };
        m_component = std::make_unique<ControlServer>(actions);
        const base::Status started = m_component->Start(m_path + "/run/QorHips.ctl");
        ASSERT_TRUE(started) << started.GetError().Text();
    }
    void Resize(unsigned short rows, unsigned short columns) {
        winsize size{};
        size.ws_row = rows;
        size.ws_col = columns;
        m_text.clear();
        ASSERT_EQ(0, ioctl(m_output.Get(), TIOCSWINSZ, &size));
    }
    void TearDown() override {
        if (m_child > 0) {
            kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
        if (m_console != nullptr) m_console->Stop();
        if (m_component != nullptr) m_component->Stop();
        ASSERT_EQ(0, system(("rm -rf '" + m_path + "'").c_str()));
    }

    [[noreturn]] void BeTop() {
        TopOptions options;
        options.appDir = m_path;
        options.process = "tervane";
        options.summary = true;
        const bool shown = RunTop(options).Ok();
        fflush(stdout);
        _exit(shown ? 0 : 2);
    }
    void StartOnPipe() {
        int ends[2];
        ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
        m_output.Reset(ends[0]);
        const base::Fd writeEnd(ends[1]);
        m_child = fork();
        if (m_child == 0) {
            dup2(writeEnd.Get(), STDOUT_FILENO);
            BeTop();
        }
    }
    void StartOnTerminal(unsigned short rows = 40, unsigned short columns = 120) {
        int master = -1;
        winsize size{};
        size.ws_row = rows;
        size.ws_col = columns;
        m_child = forkpty(&master, nullptr, nullptr, &size);
        if (m_child == 0) {
            setenv("TERM", "xterm", 1);
            BeTop();
        }
        m_output.Reset(master);
    }
    /// Reads on until the text has come or a few seconds are over.
    bool Await(const std::string& text) {
        for (int i = 0; i < 200 && m_text.find(text) == std::string::npos; ++i) {
            pollfd ready{m_output.Get(), POLLIN, 0};
            if (poll(&ready, 1, 100) <= 0) continue;
            char piece[4096];
            const ssize_t length = read(m_output.Get(), piece, sizeof piece);
            if (length <= 0) break;
            m_text.append(piece, static_cast<size_t>(length));
        }
        return m_text.find(text) != std::string::npos;
    }
    int ExitCode() {
        int status = -1;
        waitpid(m_child, &status, 0);
        m_child = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    /// What is awaited afterwards is what the key brought.
    void Press(const char* key) {
        m_text.clear();
        ASSERT_EQ(1, write(m_output.Get(), key, 1));
    }

    std::string m_path;
    std::unique_ptr<ControlServer> m_console;
    std::unique_ptr<ControlServer> m_component;
    std::atomic<int64_t> m_asked{0};
    base::Fd m_output;
    std::string m_text;
    pid_t m_child = -1;
};

}  // namespace

TEST_F(TopTest, ShowsPlainLinesUntilTheProcessEnds) {
    StartOnPipe();
    ASSERT_TRUE(Await("tervane, process 4711, up 0 s; mode 0: no limit is asked for\n")) << m_text;
    ASSERT_TRUE(Await("log  a warning\n")) << m_text;
    m_console->Stop();
    ASSERT_TRUE(Await("tervane has ended\nsummary after 0 s: mode 0: no limit is asked for\n")) << m_text;
    EXPECT_EQ(std::string::npos, m_text.find('\033'));
    EXPECT_EQ(0, ExitCode());
}

TEST_F(TopTest, ASignalEndsItWithTheSummary) {
    StartOnPipe();
    ASSERT_TRUE(Await("process 4711"));
    kill(m_child, SIGTERM);
    ASSERT_TRUE(Await("summary after")) << m_text;
    EXPECT_EQ(0, ExitCode());
}

TEST_F(TopTest, IsAPageWithKeysOnATerminalAndGivesItBack) {
    StartOnTerminal();
    ASSERT_TRUE(Await("process 4711")) << m_text;
    ASSERT_TRUE(Await("sort: tree")) << m_text;
    Press("s");
    ASSERT_TRUE(Await("cpu")) << m_text;
    Press("p");
    ASSERT_TRUE(Await("PAUSED")) << m_text;
    Press("h");
    ASSERT_TRUE(Await("columns")) << m_text;
    Press("q");
    ASSERT_TRUE(Await("\033[?1049l")) << "the terminal's own screen does not come back: " << m_text;
    ASSERT_TRUE(Await("summary after")) << m_text;
    EXPECT_EQ(0, ExitCode());
}

TEST_F(TopTest, ShowsWhoHoldsBackAndHowOften) {
    ASSERT_NO_FATAL_FAILURE(ServeComponent());
    StartOnTerminal();
    ASSERT_TRUE(Await("holds back")) << m_text;
    ASSERT_TRUE(Await("  QorHips")) << m_text;
    ASSERT_TRUE(Await("yes 100 % yes 100 % of 1 ")) << m_text;
    Press("q");
    ASSERT_TRUE(Await("summary after")) << m_text;
    EXPECT_EQ(0, ExitCode());
}

TEST_F(TopTest, ShowsTheShareOfPeriodsHeldBackNow) {
    StartOnTerminal();
    ASSERT_TRUE(Await(" 70 % ")) << m_text;
    Press("q");
    ASSERT_TRUE(Await("summary after")) << m_text;
}

TEST_F(TopTest, FollowsTheTerminalsSize) {
    StartOnTerminal();
    ASSERT_TRUE(Await("cpu used of quota")) << m_text;
    Resize(30, 80);
    ASSERT_TRUE(Await("  cpu % ")) << m_text;
    Resize(8, 30);
    ASSERT_TRUE(Await("more lines below)")) << m_text;
    Resize(1, 5);
    Resize(40, 120);
    ASSERT_TRUE(Await("cpu used of quota")) << m_text;
    Press("q");
    ASSERT_TRUE(Await("summary after")) << m_text;
    EXPECT_EQ(0, ExitCode());
}

TEST_F(TopTest, ScrollsToWhatDoesNotFit) {
    StartOnTerminal(8, 120);
    ASSERT_TRUE(Await("more lines below)")) << m_text;
    EXPECT_EQ(std::string::npos, m_text.find("a warning"));
    for (int i = 0; i < 60; ++i) ASSERT_EQ(1, write(m_output.Get(), "j", 1));
    ASSERT_TRUE(Await("a warning")) << m_text;
    for (int i = 0; i < 60; ++i) ASSERT_EQ(1, write(m_output.Get(), "k", 1));
    ASSERT_TRUE(Await("more lines below)")) << m_text;
    Press("q");
    ASSERT_TRUE(Await("summary after")) << m_text;
}

TEST_F(TopTest, SaysWhenThereIsNobodyToWatch) {
    m_console->Stop();
    TopOptions options;
    options.appDir = m_path;
    options.process = "tervane";
    const base::Status shown = RunTop(options);
    ASSERT_FALSE(shown);
    EXPECT_NE(std::string::npos, shown.GetError().Text().find("is the agent running?"));
}
