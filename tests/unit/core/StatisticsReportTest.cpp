// The statistics map: keys, sources and text forms, the shortage event of the main process, and what a failure leaves.
#include <json/json.h>

#include <map>

#include "CoreFixture.h"

using Map = std::map<std::string, std::string>;

class StatisticsReportTest : public CoreFixture {
protected:
    void SetUp() override {
        CoreFixture::SetUp();
        ResourceMonitorInfo& info = platform().base.info;
        info.maxCpu = 101;
        info.avgCpu = 102;
        info.avgCpu100Times = 103;
        info.cpuWarnCount = 104;
        info.cpuMinuteHighCount = 105;
        info.cpuHighCount = 106;
        info.writePidTimes = 107;
        info.maxReadIo = 108;
        info.maxWriteIo = 109;
        info.readIoWarnCount = 110;
        info.writeIoWarnCount = 111;
        info.avgReadIo = 112;
        info.avgWriteIo = 113;
        info.maxMem = 114;
        info.avgMem = 115;
        info.avgFdCount = 116;
        info.loadAvg = 2;
        info.singleLoadAvg = 0.456f;
        platform().limit.otherProcessNum.Always(3);
        pri().m_appName = "guard";
    }

    static Map Expected(const std::string& prefix) {
        const Map suffixes = {{"_write_pid_times", "107"},
                              {"_avg_cpu", "102"},
                              {"_max_cpu", "101"},
                              {"_avg_cpu_100times", "103"},
                              {"_avg_mem", "115"},
                              {"_max_mem", "114"},
                              {"_cpu_warn_count", "104"},
                              {"_cpu_minute_high_count", "105"},
                              {"_cpu_high_count", "106"},
                              {"_cpu_limit_enable", "0"},
                              {"_cpu_limit_error_code", "0"},
                              {"_avg_fd_count", "116"},
                              {"_upload_time", "1700000000"},
                              {"_avg_rio", "112"},
                              {"_avg_wio", "113"},
                              {"_rio_warn_count", "110"},
                              {"_wio_warn_count", "111"},
                              {"_max_rio", "108"},
                              {"_max_wio", "109"},
                              {"_load_avg", "2.00"},
                              {"_single_load_avg", "0.46"},
                              {"_cgroup_other_process_num", "3"},
                              {"_self_has_been_removed", "0"}};
        Map map;
        for (const auto& entry : suffixes) map[prefix + entry.first] = entry.second;
        return map;
    }

    /// The calls behind a full map in a process that is not the main one.
    const Lines m_fullReport = {"CResourceMonitor::FetchResourceMonitorInfo()", "GetResourceLimitUtil()",
                                "IResourceLimitUtil::GetCgroupOtherProcessNum()",
                                "IResourceLimitUtil::IsSelfRemovedFromCgroup()", "IHttp::GetFailCount()"};
};

TEST_F(StatisticsReportTest, FillsEveryKeyUnderTheProcessName) {
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(Expected("guard"), map);
    EXPECT_EQ(m_fullReport, calls());
}

TEST_F(StatisticsReportTest, IsReachedThroughTheRegistrysInterface) {
    Map map;
    ASSERT_EQ(1u, platform().registered.size());
    EXPECT_TRUE(platform().registered.front()->GetExceptionInfo(map));
    EXPECT_EQ(Expected("guard"), map);
}

TEST_F(StatisticsReportTest, UsesBareSuffixesBeforeProcessHasAName) {
    pri().m_appName = "";
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(Expected(""), map);
}

TEST_F(StatisticsReportTest, NeverReplacesAKeyThatTheMapHolds) {
    Map held;
    for (const auto& entry : Expected("tervane")) held[entry.first] = "held";
    held["mem_usage"] = "held";
    held["tervane_http_fail_count"] = "held";
    pri().m_appName = "tervane";
    pri().m_isMainAgent = true;
    platform().httpFailCount = 5;
    Map map = held;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(held, map);

    Map one = {{"tervane_avg_cpu", "old"}};
    EXPECT_TRUE(pri().GetExceptionInfo(one));
    EXPECT_EQ("old", one["tervane_avg_cpu"]);
    EXPECT_EQ("101", one["tervane_max_cpu"]);
}

TEST_F(StatisticsReportTest, TellsTheLimitInForceAndItsLastError) {
    pri().m_legacyCpuEnabled = true;
    pri().m_legacyCpuErrorCode = -1050022;
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("0", map["guard_cpu_limit_enable"]) << "wanted is not in force";
    EXPECT_EQ("-1050022", map["guard_cpu_limit_error_code"]);
    pri().m_resourceLimited = true;
    pri().m_legacyCpuEnabled = false;
    map.clear();
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("1", map["guard_cpu_limit_enable"]);
}

TEST_F(StatisticsReportTest, KeepsTheErrorCodeThroughAReset) {
    pri().m_legacyCpuErrorCode = 20007;
    pri().ResetLegacyCpuLimitState();
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("20007", map["guard_cpu_limit_error_code"]);
}

TEST_F(StatisticsReportTest, KeepsTheErrorCodeThroughALaterSuccess) {
    platform().limit.startCpu.Then({5, 13});
    pri().CpuResourceLimit(1, 10);
    platform().limit.cpuLimited.Always(true);
    pri().CpuResourceLimit(1, 20);
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("1", map["guard_cpu_limit_enable"]) << "the second attempt succeeded";
    EXPECT_EQ("50013", map["guard_cpu_limit_error_code"]);
}

TEST_F(StatisticsReportTest, PrintsUnsignedFiguresUnsigned) {
    platform().base.info.avgCpu = 4294967295u;
    platform().base.info.avgFdCount = 2147483648u;
    platform().limit.otherProcessNum.Always(-1);
    platform().limit.selfRemoved.Always(true);
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("4294967295", map["guard_avg_cpu"]);
    EXPECT_EQ("2147483648", map["guard_avg_fd_count"]);
    EXPECT_EQ("-1", map["guard_cgroup_other_process_num"]) << "this one is signed";
    EXPECT_EQ("1", map["guard_self_has_been_removed"]);
}

TEST_F(StatisticsReportTest, PrintsLoadsWithTwoDecimals) {
    struct Case {
        float load;
        const char* text;
    };
    for (const Case& c : {Case{2.0f, "2.00"}, Case{0.0f, "0.00"}, Case{12.345f, "12.35"}, Case{0.004f, "0.00"},
                          Case{1024.5f, "1024.50"}}) {
        platform().base.info.loadAvg = c.load;
        platform().base.info.singleLoadAvg = c.load;
        Map map;
        EXPECT_TRUE(pri().GetExceptionInfo(map));
        EXPECT_EQ(c.text, map["guard_load_avg"]);
        EXPECT_EQ(c.text, map["guard_single_load_avg"]);
    }
}

TEST_F(StatisticsReportTest, PrintsAnUploadTimeBeyond32Bits) {
    platform().now = 5000000000;
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("5000000000", map["guard_upload_time"]);
}

TEST_F(StatisticsReportTest, CountsHttpFailuresOnlyWhenThereAreAny) {
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(0u, map.count("guard_http_fail_count"));
    EXPECT_EQ(m_fullReport, calls());

    platform().httpFailCount = 4294967295u;
    map.clear();
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("4294967295", map["guard_http_fail_count"]);
    EXPECT_EQ(Joined({m_fullReport, {"F4 [MonitorPri] http fail count is 4294967295"}}), calls());
}

TEST_F(StatisticsReportTest, CountsNoHttpFailuresWithoutAnHttpClient) {
    platform().httpPresent = false;
    platform().httpFailCount = 5;
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(0u, map.count("guard_http_fail_count"));
    EXPECT_EQ(Expected("guard"), map);
}

TEST_F(StatisticsReportTest, TakesMemoryBeyond32BitsForEnough) {
    pri().m_isMainAgent = true;
    platform().memory.available = 1UL << 32;
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_TRUE(platform().sent.empty());
}

TEST_F(StatisticsReportTest, LeavesOnlyItsLogLineWithoutFigures) {
    platform().base.fetchOk = false;
    platform().httpFailCount = 5;
    Map map;
    EXPECT_FALSE(pri().GetExceptionInfo(map));
    EXPECT_EQ(Map(), map);
    EXPECT_EQ(Lines({"CResourceMonitor::FetchResourceMonitorInfo()", "W2 FetchResourceMonitorInfo fail"}), calls());
}

// --- the main process ---

TEST_F(StatisticsReportTest, ReportsHostsMemoryInTheMainProcessOnly) {
    platform().memory.usagePercent = 99;
    platform().memory.available = 1;
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(0u, map.count("mem_usage"));
    EXPECT_TRUE(platform().sent.empty());
    EXPECT_EQ(m_fullReport, calls());

    platform().memory.usagePercent = 50;
    platform().memory.available = 8000;
    pri().m_isMainAgent = true;
    pri().m_appName = "tervane";
    map.clear();
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    Map expected = Expected("tervane");
    expected["mem_usage"] = "50";
    EXPECT_EQ(expected, map);
    EXPECT_TRUE(platform().sent.empty());
    EXPECT_EQ(Joined({{"COSInfo::GetMemoryUsage(available)"}, m_fullReport}), calls());
}

TEST_F(StatisticsReportTest, KeepsTheMemoryFigureWhenTheFetchFails) {
    pri().m_isMainAgent = true;
    platform().base.fetchOk = false;
    Map map;
    EXPECT_FALSE(pri().GetExceptionInfo(map));
    EXPECT_EQ(Map({{"mem_usage", "50"}}), map);
    EXPECT_EQ(Lines({"COSInfo::GetMemoryUsage(available)", "CResourceMonitor::FetchResourceMonitorInfo()",
                     "W2 FetchResourceMonitorInfo fail"}),
              calls());
}

TEST_F(StatisticsReportTest, PrintsANegativeMemoryFigureAsItIs) {
    pri().m_isMainAgent = true;
    platform().memory.usagePercent = -1;
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ("-1", map["mem_usage"]);
}

TEST_F(StatisticsReportTest, SendsShortageOfMemoryAtOnceAndEveryTime) {
    pri().m_isMainAgent = true;
    pri().m_appName = "tervane";
    platform().memory.usagePercent = 99;
    platform().memory.available = 17;
    platform().sendMsg.Then(false);  // the result does not matter
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    Map expected = Expected("tervane");
    expected["mem_usage"] = "99";
    EXPECT_EQ(expected, map);
    const Lines reported =
        Joined({{"COSInfo::GetMemoryUsage(available)", "IMsgTransmit::SendMsg(T_MSG_OS_ABNORMAL,body,\"\",1,0)"},
                m_fullReport});
    EXPECT_EQ(reported, calls());
    ASSERT_EQ(1u, platform().sent.size());
    const doubles::SentMessage& message = platform().sent.front();
    Json::Value body;
    ASSERT_TRUE(Json::Reader().parse(message.body, body));
    EXPECT_EQ(Json::Value::Members({"available_mem", "mem_usage"}), body.getMemberNames());
    EXPECT_EQ(99, body["mem_usage"].asInt());
    EXPECT_EQ(17u, body["available_mem"].asUInt64());
    EXPECT_EQ(body.toStyledString(), message.body);

    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(reported, calls()) << "not rate-limited";
}

TEST_F(StatisticsReportTest, SendsTheShortageAlsoWhenTheFetchFails) {
    pri().m_isMainAgent = true;
    platform().memory.usagePercent = 99;
    platform().memory.available = 17;
    platform().base.fetchOk = false;
    Map map;
    EXPECT_FALSE(pri().GetExceptionInfo(map));
    EXPECT_EQ(Map({{"mem_usage", "99"}}), map);
    EXPECT_EQ(Lines({"COSInfo::GetMemoryUsage(available)", "IMsgTransmit::SendMsg(T_MSG_OS_ABNORMAL,body,\"\",1,0)",
                     "CResourceMonitor::FetchResourceMonitorInfo()", "W2 FetchResourceMonitorInfo fail"}),
              calls());
}

TEST_F(StatisticsReportTest, SendsAvailableMemoryIn64Bits) {
    pri().m_isMainAgent = true;
    platform().memory.usagePercent = 99;
    platform().memory.available = 5000000000UL;
    conf().availableMemThreshold.Set(6000000000L);
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    ASSERT_EQ(1u, platform().sent.size());
    Json::Value body;
    ASSERT_TRUE(Json::Reader().parse(platform().sent.front().body, body));
    EXPECT_EQ(5000000000UL, body["available_mem"].asUInt64());
}

namespace {
/// Leaves no zero where the next call has its variables.
__attribute__((noinline)) void DirtyTheStack() {
    volatile unsigned char rubbish[8192];
    for (volatile unsigned char& byte : rubbish) byte = 0xA5;
}
}  // namespace

TEST_F(StatisticsReportTest, TakesMemoryForNoneWhereNothingIsWritten) {
    pri().m_isMainAgent = true;
    platform().memory.usagePercent = 99;
    platform().memory.writesAvailable = false;
    Map map;
    DirtyTheStack();
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    ASSERT_EQ(1u, platform().sent.size());
    Json::Value body;
    ASSERT_TRUE(Json::Reader().parse(platform().sent.front().body, body));
    EXPECT_EQ(0u, body["available_mem"].asUInt64());
}

TEST_F(StatisticsReportTest, GoesOnSilentlyWithoutADelivery) {
    pri().m_isMainAgent = true;
    platform().memory.usagePercent = 99;
    platform().memory.available = 17;
    platform().transmitPresent = false;
    Map map;
    EXPECT_TRUE(pri().GetExceptionInfo(map));
    EXPECT_EQ(Joined({{"COSInfo::GetMemoryUsage(available)"}, m_fullReport}), calls());
}
