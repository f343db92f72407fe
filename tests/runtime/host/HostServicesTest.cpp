// All services together, as a process of the agent starts and stops them.
#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <thread>

#include "HostSupport.h"
#include "platform/host/ResourceMonitor.h"
#include "platform/host/HostServices.h"
#include "platform/host/Http.h"
#include "platform/host/MsgTransmit.h"
#include "platform/host/MtIntf.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/zel/ToolUtil.h"

using support::Eventually;
using zelhost::CHostServices;
using zelhost::HostOptions;

namespace {

class HostServicesTest : public ::testing::Test {
protected:
    HostOptions Options(bool isMain = true) {
        HostOptions options;
        options.processName = isMain ? "tervane" : "TervaneUpdate";
        options.isMain = isMain;
        options.appDir = m_dir.Path();
        options.sampling.roundMs = 10;
        options.delivery.backoffMinMs = 5;
        return options;
    }
    static size_t Threads() { return support::NamesIn("/proc/self/task").size(); }
    static size_t Descriptors() { return support::NamesIn("/proc/self/fd").size(); }
    support::TempDir m_dir;
    std::string m_error;
};

}  // namespace

TEST_F(HostServicesTest, StartsEverythingInAnEmptyDirectory) {
    CHostServices services;
    EXPECT_EQ(GetMsgTransmitInstance(), nullptr);
    ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
    ASSERT_NE(CSingleton<COnlineClientConf>::GetInstance(), nullptr);
    ASSERT_NE(GetMsgTransmitInstance(), nullptr);
    ASSERT_NE(GetHttpInstance(), nullptr);
    ASSERT_NE(services.GetSysIntf(), nullptr);
    EXPECT_EQ(services.GetMetricsAddress(), "unix:" + (m_dir / "run/tervane.metrics.sock"));
    EXPECT_TRUE(GetMsgTransmitInstance()->SendMsg("T", "b", "", 1, 0));
    EXPECT_TRUE(services.FlushDelivery(20000));
    EXPECT_EQ(support::ReadLines(m_dir / "log/tervane.events.jsonl").size(), 1u);
    services.Stop();
    EXPECT_EQ(GetMsgTransmitInstance(), nullptr);
}

TEST_F(HostServicesTest, ItsDirectoryIsTheOneOfTheWholeProcess) {
    CHostServices services;
    ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
    EXPECT_EQ(zel::CToolUtil::GetApplicationDirPath(), m_dir.Path());
}

TEST_F(HostServicesTest, ADirectoryMayBeNamedFromWhereItStands) {
    char here[PATH_MAX] = {};
    ASSERT_NE(::getcwd(here, sizeof here), nullptr);
    HostOptions options = Options();
    options.appDir = ".";
    CHostServices services;
    ASSERT_EQ(::chdir(m_dir.Path().c_str()), 0);
    const bool started = services.Start(options, m_error);
    ASSERT_EQ(::chdir(here), 0);
    ASSERT_TRUE(started) << m_error;
    EXPECT_EQ(services.GetMetricsAddress(), "unix:" + (m_dir / "run/tervane.metrics.sock"));
    EXPECT_TRUE(GetMsgTransmitInstance()->SendMsg("T", "b", "", 1, 0));
    EXPECT_TRUE(services.FlushDelivery(20000));
    EXPECT_EQ(support::ReadLines(m_dir / "log/tervane.events.jsonl").size(), 1u);
}

TEST_F(HostServicesTest, AComponentServesNoMetricsUnlessAsked) {
    CHostServices services;
    ASSERT_TRUE(services.Start(Options(false), m_error)) << m_error;
    EXPECT_EQ(services.GetMetricsAddress(), "");
}

TEST_F(HostServicesTest, AProcessWithoutDeliveryHasNoTransmitObject) {
    HostOptions options = Options(false);
    options.delivery.enabled = zelhost::Switch::kOff;
    CHostServices services;
    ASSERT_TRUE(services.Start(options, m_error)) << m_error;
    EXPECT_EQ(GetMsgTransmitInstance(), nullptr);
    EXPECT_FALSE(services.GetDeliveryStats().present);
    EXPECT_TRUE(services.FlushDelivery(0));
}

TEST_F(HostServicesTest, MetricsShowTheSamplerAndTheAgentsOwn) {
    HostOptions options = Options();
    options.metrics.listen = "127.0.0.1:0";
    options.group = "main";
    CHostServices services;
    ASSERT_TRUE(services.Start(options, m_error)) << m_error;
    services.SetMetricsSource([](std::vector<zelhost::Metric>& metrics) {
        metrics.push_back({"zel_own", zelhost::MetricType::kGauge, "Own.", {{"component", "other"}}, 7});
    });
    CResourceMonitor monitor;
    monitor.SetMaxCpu(25);
    ASSERT_TRUE(monitor.StartMonitor(nullptr));
    zelhost::SamplerFigures figures;
    ASSERT_TRUE(Eventually([&] { return services.GetSamplerFigures(figures); }));
    const std::string text = services.GetMetricsText();
    EXPECT_THAT(text, testing::HasSubstr(
                          "zel_cpu_maximum_ratio{component=\"tervane\",group=\"main\",process=\"tervane\"} 0.25\n"));
    EXPECT_THAT(text, testing::HasSubstr("zel_own{component=\"other\",group=\"main\",process=\"tervane\"} 7\n"));
    EXPECT_THAT(text, testing::HasSubstr("\nzel_threads{"));
    // Every line is a comment or a sample with a number, every sample stands below its own TYPE line.
    std::string family;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        ASSERT_NE(end, std::string::npos);
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        if (line.compare(0, 7, "# TYPE ") == 0) family = line.substr(7, line.find(' ', 7) - 7);
        if (line[0] == '#') continue;
        EXPECT_EQ(line.substr(0, line.find('{')), family) << line;
        EXPECT_NO_THROW(std::stod(line.substr(line.rfind(' ') + 1))) << line;
    }
    EXPECT_TRUE(monitor.StopMonitor());
    EXPECT_FALSE(services.GetSamplerFigures(figures));
}

TEST_F(HostServicesTest, MetricsPassThePrometheusLinter) {
    if (std::system("command -v promtool >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs promtool (package prometheus)";
    CHostServices services;
    ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
    CResourceMonitor monitor;
    ASSERT_TRUE(monitor.StartMonitor(nullptr));
    zelhost::SamplerFigures figures;
    ASSERT_TRUE(Eventually([&] { return services.GetSamplerFigures(figures); }));
    support::WriteText(m_dir / "metrics.txt", services.GetMetricsText());
    EXPECT_EQ(std::system(("promtool check metrics < " + (m_dir / "metrics.txt")).c_str()), 0);
    monitor.StopMonitor();
}

TEST_F(HostServicesTest, AStartThatFailsLeavesNothingBehind) {
    const size_t threads = Threads(), descriptors = Descriptors();
    HostOptions options = Options();
    options.metrics.listen = "8.8.8.8:1";
    CHostServices services;
    EXPECT_FALSE(services.Start(options, m_error));
    EXPECT_THAT(m_error, testing::HasSubstr("no loopback address"));
    EXPECT_EQ(GetMsgTransmitInstance(), nullptr);
    // One that had nothing left to do may have been on its way out when they were counted.
    EXPECT_TRUE(Eventually([&] { return Threads() <= threads; }));
    EXPECT_EQ(Descriptors(), descriptors);
    EXPECT_TRUE(services.Start(Options(), m_error)) << "a better attempt succeeds: " << m_error;
    EXPECT_FALSE(services.Start(Options(), m_error)) << "but only once";
}

TEST_F(HostServicesTest, AnUnusableDirectoryIsNamedAndTriedAgain) {
    support::TakeLog();
    support::WriteText(m_dir / "spool", "a file where the directory should be");
    CHostServices services;
    ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
    EXPECT_TRUE(support::LogHolds("2 event spool " + (m_dir / "spool")));
    EXPECT_FALSE(GetMsgTransmitInstance()->SendMsg("T", "early", "", 1, 0));
    unlink((m_dir / "spool").c_str());
    ASSERT_TRUE(Eventually([&] { return !services.GetDeliveryStats().spoolBroken; }));
    EXPECT_TRUE(services.FlushDelivery(20000));
    EXPECT_EQ(support::ReadLines(m_dir / "log/tervane.events.jsonl").size(), 1u);
    services.Stop();
    HostOptions nameless = Options();
    nameless.processName.clear();
    EXPECT_FALSE(services.Start(nameless, m_error));
}

TEST_F(HostServicesTest, APlaceMissingForMetricsCostsNothingElse) {
    support::WriteText(m_dir / "run", "a file where the directory should be");
    CHostServices services;
    ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
    EXPECT_EQ(services.GetMetricsAddress(), "");
    EXPECT_TRUE(services.SetTextFile(m_dir / "m.prom", 1000));
    EXPECT_TRUE(Eventually([&] { return !support::ReadText(m_dir / "m.prom").empty(); }));
    EXPECT_TRUE(GetMsgTransmitInstance()->SendMsg("T", "b", "", 1, 0));
    unlink((m_dir / "run").c_str());
    EXPECT_TRUE(Eventually([&] {
        services.TryAgain();
        return !services.GetMetricsAddress().empty();
    }));
    services.Stop();
    EXPECT_FALSE(services.SetTextFile(m_dir / "n.prom", 1000)) << "no metrics, no file of them";
    services.TryAgain();
}

TEST_F(HostServicesTest, StartingAndStoppingLeaksNothing) {
    CHostServices services;
    ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
    services.Stop();
    const size_t threads = Threads(), descriptors = Descriptors();
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
        CResourceMonitor monitor;
        ASSERT_TRUE(monitor.StartMonitor(nullptr));
        monitor.StopMonitor();
        services.CollectStatistics();
        services.Stop();
    }
    // One that had nothing left to do may have been on its way out when they were counted.
    EXPECT_TRUE(Eventually([&] { return Threads() <= threads; }));
    EXPECT_EQ(Descriptors(), descriptors);
}

TEST_F(HostServicesTest, TheOnlineFileIsReadOnRequest) {
    support::WriteText(m_dir / "conf/online_config.json", "{\"maxCpu\":12}");
    CHostServices services;
    ASSERT_TRUE(services.Start(Options(), m_error)) << m_error;
    EXPECT_EQ(CSingleton<COnlineClientConf>::GetInstance()->maxCpu.Get(), 12);
    support::WriteText(m_dir / "conf/online_config.json", "{\"maxCpu\":\"no\"}");
    EXPECT_FALSE(services.ReloadOnlineConfig(m_error));
    EXPECT_THAT(m_error, testing::HasSubstr("maxCpu"));
    services.Stop();
    EXPECT_FALSE(services.ReloadOnlineConfig(m_error));
}
