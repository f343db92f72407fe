// Out-of-memory kills: found after a restart, found at run time, reported, held back.
#include <json/json.h>

#include <climits>

#include "abnormal/CgroupOom.h"
#include "abnormal/OomWatermark.h"
#include "platform/zel/CgroupManager.h"
#include "support/MonitorFixture.h"

namespace {

using Event = zel::CgroupMemoryOomEvent;
using Events = std::vector<Event>;

const std::string kPath = "/opt/agent/home/conf/cgroup_oom_watermark.json";
const std::string kTemporary = kPath + ".tmp";
const std::string kSend = "IMsgTransmit::SendMsg(T_MSG_OS_ABNORMAL,body,\"\",1,0)";
const std::string kSnapshot = "CCgroupManager::SnapshotSelfMemoryOomCounters()";
const std::string kPoll = "CCgroupManager::PollMemoryOomEvents()";
const std::string kIsFile = "CFileUtil::IsFile(" + kPath + ")";
const std::string kRead = "CFileUtil::ReadFullFile(" + kPath + ",65536)";
const std::string kWrite = "CFileUtil::WriteNewFile(" + kTemporary + ",0)";
const std::string kRename = "CFileCom(" + kTemporary + ")::rename(" + kPath + ")";
const std::string kRemove = "CFileUtil::RemoveFile(" + kTemporary + ")";
const std::string kNullTransmit = "W3 MonitorPri: cannot report cgroup OOM event, MsgTransmit instance is null";

Event Counters(const std::string& group, bool parent, bool v2, int64_t oomKill, int64_t oom, int64_t oomGroupKill) {
    Event event;
    event.group = group;
    event.path = "/cg/" + group;
    event.parent = parent;
    event.v2 = v2;
    event.oom_kill = oomKill;
    event.oom = oom;
    event.oom_group_kill = oomGroupKill;
    return event;
}

class CgroupOomTest : public MonitorFixture {
protected:
    void SetUp() override {
        MonitorFixture::SetUp();
        pri().m_appName = "tervane";
        pri().m_isMainAgent = true;
        pri().m_unifiedActive = true;
        pri().m_cgroupManager = new zel::CCgroupManager;
        journal();
    }

    void Store(const Events& stored) { platform().files.content[kPath] = FormatOomWatermark(stored); }
    std::string Stored() { return platform().files.content[kPath]; }

    Json::Value Body(size_t index = 0) {
        Json::Value root;
        EXPECT_LT(index, platform().sent.size());
        if (index < platform().sent.size()) {
            EXPECT_TRUE(Json::Reader().parse(platform().sent[index].body, root));
        }
        return root;
    }
};

}  // namespace

// --- decisions ---

TEST_F(CgroupOomTest, CounterIncreaseIsNeverNegative) {
    const struct {
        int64_t current, stored, expected;
    } cases[] = {
        {0, 0, 0},
        {1, 0, 1},
        {5, 5, 0},
        {4, 5, 0},
        {0, INT64_MAX, 0},
        {INT64_MAX, 0, INT64_MAX},
        {INT64_MIN, INT64_MAX, 0},
        {INT64_MAX, -1, INT64_MAX},
        {0, -5, 5},
        {INT64_MAX, INT64_MIN, INT64_MAX},
        {-1, INT64_MIN, INT64_MAX},
        {INT64_MIN, INT64_MIN, 0},
        {INT64_MAX, INT64_MAX - 1, 1},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, OomCounterIncrease(c.current, c.stored)) << c.current;
}

TEST_F(CgroupOomTest, ReportIsHeldBackThreeHundredSecondsAfterLast) {
    const struct {
        int64_t now, last;
        bool heldBack;
    } cases[] = {
        {1000, 0, false},  // none made yet
        {299, 0, false},     {1000, 1000, true},  {1299, 1000, true},
        {1300, 1000, false}, {1301, 1000, false}, {400, 1000, true},  // clock set back
    };
    for (const auto& c : cases) EXPECT_EQ(c.heldBack, IsRuntimeOomReportHeldBack(c.now, c.last)) << c.now;
}

TEST_F(CgroupOomTest, DecisionsTakeWideValuesWhole) {
    constexpr int64_t kWide = 1L << 32;
    EXPECT_TRUE(IsOomKillIncrease(kWide, 0));
    EXPECT_TRUE(IsOomKillIncrease(0, kWide));
    EXPECT_TRUE(IsRuntimeOomReportHeldBack(kWide + 10, kWide));
    EXPECT_FALSE(IsRuntimeOomReportHeldBack(2 * kWide, kWide));
    EXPECT_FALSE(IsRuntimeOomReportHeldBack(kWide + 5, 10));
    EXPECT_TRUE(IsRuntimeOomReportHeldBack(kWide + 10, kWide + 5));
}

// --- the message ---

TEST_F(CgroupOomTest, ReportSendsTypeProcessTimeAndItems) {
    Json::Value items(Json::objectValue);
    items["main|/p|v2"]["oom_kill"] = 3;
    platform().now = 1700000123;
    EXPECT_TRUE(pri().ReportCgroupOomEvent("some_event", items));
    EXPECT_EQ(Lines({kSend}), journal());
    ASSERT_EQ(1u, platform().sent.size());
    EXPECT_EQ("T_MSG_OS_ABNORMAL", platform().sent[0].type);
    EXPECT_EQ("", platform().sent[0].extra);
    EXPECT_EQ(1, platform().sent[0].arg1);
    EXPECT_EQ(0, platform().sent[0].arg2);
    const Json::Value body = Body();
    EXPECT_EQ((std::vector<std::string>{"detect_time", "items", "process", "type"}), body.getMemberNames());
    EXPECT_EQ("some_event", body["type"].asString());
    EXPECT_EQ("tervane", body["process"].asString());
    EXPECT_EQ(1700000123, body["detect_time"].asInt64());
    EXPECT_EQ(items, body["items"]);
    EXPECT_EQ(body.toStyledString(), platform().sent[0].body);
}

TEST_F(CgroupOomTest, ReportReturnsWhatTheTransmitReturned) {
    platform().sendMsg.Then(false).Then(true);
    EXPECT_FALSE(pri().ReportCgroupOomEvent("e", Json::Value(Json::objectValue)));
    EXPECT_TRUE(pri().ReportCgroupOomEvent("e", Json::Value(Json::objectValue)));
    EXPECT_EQ(Lines({kSend, kSend}), journal());
}

TEST_F(CgroupOomTest, ReportWithoutATransmitIsRefusedWithALine) {
    platform().transmitPresent = false;
    EXPECT_FALSE(pri().ReportCgroupOomEvent("e", Json::Value(Json::objectValue)));
    EXPECT_EQ(Lines({kNullTransmit}), journal());
}

TEST_F(CgroupOomTest, ReportAfter2038HasTheWholeTime) {
    platform().now = 5000000000;
    EXPECT_TRUE(pri().ReportCgroupOomEvent("e", Json::Value(Json::objectValue)));
    EXPECT_EQ(5000000000, Body()["detect_time"].asInt64());
}

// --- after a restart ---

TEST_F(CgroupOomTest, RestartCheckNeedsMainAndManagerAndUnifiedMode) {
    Store({Counters("main", false, true, 0, 0, 0)});
    platform().manager.snapshot.Always({Counters("main", false, true, 1, 0, 0)});
    pri().m_isMainAgent = false;
    pri().CheckSelfCgroupOomAfterRestart();
    pri().m_isMainAgent = true;
    pri().m_unifiedActive = false;
    pri().CheckSelfCgroupOomAfterRestart();
    pri().m_unifiedActive = true;
    zel::CCgroupManager* manager = pri().m_cgroupManager;
    pri().m_cgroupManager = nullptr;
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines(), journal());
    pri().m_cgroupManager = manager;
}

TEST_F(CgroupOomTest, FailedSnapshotEndsTheRestartCheck) {
    Store({Counters("main", false, true, 0, 0, 0)});
    const std::string before = Stored();
    platform().manager.snapshotOk.Always(false);
    platform().manager.snapshot.Always({Counters("main", false, true, 9, 0, 0)});
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, "W3 MonitorPri: snapshot self cgroup OOM counters failed"}), journal());
    EXPECT_EQ(before, Stored());
}

TEST_F(CgroupOomTest, EmptySnapshotEndsTheRestartCheckSilently) {
    Store({Counters("main", false, true, 0, 0, 0)});
    const std::string before = Stored();
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot}), journal());
    EXPECT_EQ(before, Stored());
}

TEST_F(CgroupOomTest, FirstStartWritesTheFileAndReportsNothing) {
    const Events snapshot{Counters("main", false, true, 5, 5, 5), Counters("top", true, true, 5, 5, 5)};
    platform().manager.snapshot.Always(snapshot);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kWrite, kRename}), journal());
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
}

TEST_F(CgroupOomTest, BrokenFileCountsAsAFirstStart) {
    const Events snapshot{Counters("main", false, true, 5, 5, 5)};
    platform().manager.snapshot.Always(snapshot);
    platform().files.content[kPath] = "{\"items\":[]}";
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead, kWrite, kRename}), journal());
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
}

TEST_F(CgroupOomTest, FailedFirstWriteIsLoggedAsFailedInitialisation) {
    platform().manager.snapshot.Always({Counters("main", false, true, 5, 5, 5)});
    platform().files.failRename.insert(kTemporary);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kWrite, kRename, kRemove,
                     "F3 [MonitorPri] MonitorPri: initialize cgroup OOM watermark failed [" + kPath + "]"}),
              journal());
}

TEST_F(CgroupOomTest, KillsWhileAgentWasDownAreReportedOnceAndStored) {
    Store({Counters("main", false, true, 10, 20, 30), Counters("guard", false, true, 1, 1, 1),
           Counters("top", true, true, 0, 0, 0), Counters("calm", false, true, 4, 4, 4)});
    Events snapshot{Counters("main", false, true, 12, 25, 30), Counters("guard", false, true, 1, 2, 2),
                    Counters("top", true, true, 3, 0, 0), Counters("calm", false, true, 4, 4, 4)};
    snapshot[0].oom_kill_delta = snapshot[0].oom_delta = snapshot[0].oom_group_kill_delta = 99;  // never read
    snapshot[0].under_oom = 1;
    platform().manager.snapshot.Always(snapshot);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead,
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[main] parent=0 "
                     "path=[/cg/main] oomKill=12(+2) oomGroupKill=30(+0)",
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[guard] parent=0 "
                     "path=[/cg/guard] oomKill=1(+0) oomGroupKill=2(+1)",
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[top] parent=1 "
                     "path=[/cg/top] oomKill=3(+3) oomGroupKill=0(+0)",
                     kSend, kWrite, kRename}),
              journal());
    const Json::Value body = Body();
    EXPECT_EQ("multi_cgroup_oom_after_restart", body["type"].asString());
    EXPECT_EQ((std::vector<std::string>{"guard|/cg/guard|v2", "main|/cg/main|v2", "parent|/cg/top|v2"}),
              body["items"].getMemberNames());
    Event expected = snapshot[0];
    expected.oom_kill_delta = 2;
    expected.oom_delta = 5;
    expected.oom_group_kill_delta = 0;
    EXPECT_EQ(MakeOomEventItem(expected), body["items"]["main|/cg/main|v2"]);
    EXPECT_EQ(1, body["items"]["guard|/cg/guard|v2"]["oom_delta"].asInt());
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());

    // A second restart finds the stored counters and nothing new.
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead, kWrite, kRename}), journal());
    EXPECT_EQ(1u, platform().sent.size());
}

TEST_F(CgroupOomTest, KillInALegacyGroupIsReportedInTheSameWords) {
    Store({Counters("main", false, false, 1, 0, 0), Counters("top", true, false, 2, 0, 0)});
    const Events snapshot{Counters("main", false, false, 4, 0, 0), Counters("top", true, false, 3, 0, 0)};
    platform().manager.snapshot.Always(snapshot);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead,
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[main] parent=0 "
                     "path=[/cg/main] oomKill=4(+3) oomGroupKill=0(+0)",
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[top] parent=1 "
                     "path=[/cg/top] oomKill=3(+1) oomGroupKill=0(+0)",
                     kSend, kWrite, kRename}),
              journal());
    const Json::Value body = Body();
    EXPECT_EQ((std::vector<std::string>{"main|/cg/main|v1", "parent|/cg/top|v1"}), body["items"].getMemberNames());
    Event expected = snapshot[0];
    expected.oom_kill_delta = 3;
    EXPECT_EQ(MakeOomEventItem(expected), body["items"]["main|/cg/main|v1"]);
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
}

TEST_F(CgroupOomTest, GroupFirstSeenIsStoredButNotReported) {
    Store({Counters("main", false, true, 1, 1, 1)});
    const Events snapshot{Counters("new", false, true, 50, 50, 50), Counters("main", false, true, 1, 1, 1),
                          Counters("main", false, false, 70, 70, 70)};  // other version: another group
    platform().manager.snapshot.Always(snapshot);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead, kWrite, kRename}), journal());
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
}

TEST_F(CgroupOomTest, RiseOfPlainOomCounterIsStoredButNotReported) {
    Store({Counters("main", false, true, 1, 1, 1)});
    const Events snapshot{Counters("main", false, true, 1, 100, 1)};
    platform().manager.snapshot.Always(snapshot);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead, kWrite, kRename}), journal());
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
}

TEST_F(CgroupOomTest, CountersBelowTheStoredOnesAreNoIncrease) {
    Store({Counters("main", false, true, 100, 100, 100), Counters("guard", false, true, 0, 100, 100)});
    const Events snapshot{Counters("main", false, true, 1, 1, 1), Counters("guard", false, true, 1, 1, 1)};
    platform().manager.snapshot.Always(snapshot);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead,
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[guard] parent=0 "
                     "path=[/cg/guard] oomKill=1(+1) oomGroupKill=1(+0)",
                     kSend, kWrite, kRename}),
              journal());
    EXPECT_EQ(0, Body()["items"]["guard|/cg/guard|v2"]["oom_delta"].asInt());
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
}

TEST_F(CgroupOomTest, CounterMissingInTheFileCountsFromZero) {
    platform().files.content[kPath] = "{\"items\":{\"main|/cg/main|v2\":{\"oom\":5}}}";
    platform().manager.snapshot.Always({Counters("main", false, true, 2, 5, 0)});
    pri().CheckSelfCgroupOomAfterRestart();
    const Json::Value item = Body()["items"]["main|/cg/main|v2"];
    EXPECT_EQ(2, item["oom_kill_delta"].asInt());
    EXPECT_EQ(0, item["oom_delta"].asInt());
}

TEST_F(CgroupOomTest, HugeCountersAreLoggedInSixtyFourBits) {
    Store({Counters("main", false, true, 0, 0, 0)});
    platform().manager.snapshot.Always({Counters("main", false, true, INT64_MAX, 0, 5000000000)});
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_THAT(journal(),
                ::testing::Contains("F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[main] "
                                    "parent=0 path=[/cg/main] oomKill=9223372036854775807(+9223372036854775807) "
                                    "oomGroupKill=5000000000(+5000000000)"));
}

TEST_F(CgroupOomTest, CountersBeyondFourBillionAreComparedWhole) {
    constexpr int64_t kWide = 1L << 32;
    const struct {
        int64_t stored[3], now[3];  // kills, events, kills of groups
    } cases[] = {
        {{kWide + 1, kWide + 2, kWide + 3}, {kWide + 8, kWide + 7, kWide + 6}},
        {{7, 8, 9}, {kWide + 7, 8, 9}},  // one counter alone, by what lower halves do not have
        {{7, 8, 9}, {7, 8, kWide + 9}},
        {{7, 8, 9}, {8, kWide + 8, 9}},
        {{kWide, 8, 9}, {2 * kWide, 8, 9}},
        {{7, 8, kWide}, {7, 8, 2 * kWide}},
        {{7, kWide + 20, 9}, {8, kWide + 30, 9}},
    };
    for (const auto& c : cases) {
        Store({Counters("main", false, true, c.stored[0], c.stored[1], c.stored[2])});
        platform().manager.snapshot.Always({Counters("main", false, true, c.now[0], c.now[1], c.now[2])});
        platform().sent.clear();
        pri().CheckSelfCgroupOomAfterRestart();
        ASSERT_EQ(1u, platform().sent.size()) << c.now[0];
        const Json::Value item = Body()["items"]["main|/cg/main|v2"];
        EXPECT_EQ(c.now[0] - c.stored[0], item["oom_kill_delta"].asInt64());
        EXPECT_EQ(c.now[1] - c.stored[1], item["oom_delta"].asInt64()) << c.now[1];
        EXPECT_EQ(c.now[2] - c.stored[2], item["oom_group_kill_delta"].asInt64());
    }
}

TEST_F(CgroupOomTest, FailedReportAfterRestartIsNotRepeated) {
    Store({Counters("main", false, true, 0, 0, 0)});
    const Events snapshot{Counters("main", false, true, 1, 0, 0)};
    platform().manager.snapshot.Always(snapshot);
    platform().sendMsg.Always(false);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead,
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[main] parent=0 "
                     "path=[/cg/main] oomKill=1(+1) oomGroupKill=0(+0)",
                     kSend, "W3 MonitorPri: report cgroup OOM after restart event failed", kWrite, kRename}),
              journal());
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(1u, platform().sent.size());
}

TEST_F(CgroupOomTest, MissingTransmitAfterRestartGivesLinesAndFile) {
    Store({Counters("main", false, true, 0, 0, 0)});
    platform().manager.snapshot.Always({Counters("main", false, true, 1, 0, 0)});
    platform().transmitPresent = false;
    platform().files.failWrite.insert(kTemporary);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead,
                     "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[main] parent=0 "
                     "path=[/cg/main] oomKill=1(+1) oomGroupKill=0(+0)",
                     kNullTransmit, "W3 MonitorPri: report cgroup OOM after restart event failed", kWrite,
                     "F3 [MonitorPri] MonitorPri: update cgroup OOM watermark failed [" + kPath + "]"}),
              journal());
}

TEST_F(CgroupOomTest, FailedUpdateIsLoggedAlsoWhenNothingWasFound) {
    Store({Counters("main", false, true, 1, 1, 1)});
    platform().manager.snapshot.Always({Counters("main", false, true, 1, 1, 1)});
    platform().files.failRename.insert(kTemporary);
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(Lines({kSnapshot, kIsFile, kRead, kWrite, kRename, kRemove,
                     "F3 [MonitorPri] MonitorPri: update cgroup OOM watermark failed [" + kPath + "]"}),
              journal());
}

TEST_F(CgroupOomTest, RestartCheckLeavesTheRuntimeReportTimeAlone) {
    Store({Counters("main", false, true, 0, 0, 0)});
    platform().manager.snapshot.Always({Counters("main", false, true, 1, 0, 0)});
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(0, pri().m_lastRuntimeOomReportTime);
}

// --- at run time ---

TEST_F(CgroupOomTest, RuntimeCheckNeedsMainAndManager) {
    platform().manager.poll.Always({Counters("main", false, true, 1, 0, 0)});
    pri().m_isMainAgent = false;
    pri().CheckMultiCgroupOom();
    pri().m_isMainAgent = true;
    zel::CCgroupManager* manager = pri().m_cgroupManager;
    pri().m_cgroupManager = nullptr;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines(), journal());
    pri().m_cgroupManager = manager;
}

TEST_F(CgroupOomTest, RuntimeCheckForgetsOldPollsWhileUnifiedIsOff) {
    platform().manager.poll.Always({Counters("main", false, true, 1, 0, 0)});
    pri().m_unifiedActive = false;
    pri().CheckMultiCgroupOom();
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines({"CCgroupManager::ResetMemoryOomMonitor()", "CCgroupManager::ResetMemoryOomMonitor()"}), journal());
    pri().m_isMainAgent = false;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines(), journal());
}

TEST_F(CgroupOomTest, NothingNewIsNothingDone) {
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines({kPoll}), journal());
    EXPECT_EQ(0, pri().m_lastRuntimeOomReportTime);
}

TEST_F(CgroupOomTest, EveryPolledGroupIsLoggedAllInOneMessage) {
    Events polled{Counters("guard", false, true, 3, 4, 5), Counters("collect-defense", false, false, 6, 0, 0)};
    polled[0].oom_kill_delta = 1;
    polled[0].oom_delta = 2;
    polled[0].oom_group_kill_delta = 5;
    polled[1].oom_kill_delta = 6;
    polled[1].under_oom = 1;
    polled[1].oom_kill_disable = 2;
    platform().manager.poll.Always(polled);
    platform().manager.snapshot.Always({Counters("main", false, true, 1, 1, 1)});
    platform().files.content[kPath] = "untouched";
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines({kPoll,
                     "F3 [MonitorPri] MonitorPri: cgroup v2 memory OOM group=[guard] parent=0 path=[/cg/guard] "
                     "oomKill=3(+1) oom=4(+2) oomGroupKill=5(+5)",
                     "F3 [MonitorPri] MonitorPri: cgroup v1 memory OOM group=[collect-defense] parent=0 "
                     "path=[/cg/collect-defense] oomKill=6(+6) underOom=1 oomKillDisable=2",
                     kSend}),
              journal());
    const Json::Value body = Body();
    EXPECT_EQ("multi_cgroup_oom_runtime", body["type"].asString());
    EXPECT_EQ("tervane", body["process"].asString());
    EXPECT_EQ(1700000000, body["detect_time"].asInt64());
    EXPECT_EQ(2u, body["items"].size());
    EXPECT_EQ(MakeOomEventItem(polled[0]), body["items"]["guard|/cg/guard|v2"]);
    EXPECT_EQ(MakeOomEventItem(polled[1]), body["items"]["collect-defense|/cg/collect-defense|v1"]);
    EXPECT_EQ(1700000000, pri().m_lastRuntimeOomReportTime);
    // Neither the group "main" nor the parent: the watermark stays.
    EXPECT_EQ("untouched", Stored());
}

TEST_F(CgroupOomTest, TwoPolledEntriesOfOneKeyAreLoggedLaterIsItem) {
    Events polled{Counters("guard", false, true, 3, 3, 0), Counters("guard", false, true, 5, 6, 0)};
    polled[0].oom_kill_delta = polled[0].oom_delta = 3;
    polled[1].oom_kill_delta = 2;
    polled[1].oom_delta = 3;
    platform().manager.poll.Always(polled);
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines({kPoll,
                     "F3 [MonitorPri] MonitorPri: cgroup v2 memory OOM group=[guard] parent=0 path=[/cg/guard] "
                     "oomKill=3(+3) oom=3(+3) oomGroupKill=0(+0)",
                     "F3 [MonitorPri] MonitorPri: cgroup v2 memory OOM group=[guard] parent=0 path=[/cg/guard] "
                     "oomKill=5(+2) oom=6(+3) oomGroupKill=0(+0)",
                     kSend}),
              journal());
    EXPECT_EQ((std::vector<std::string>{"guard|/cg/guard|v2"}), Body()["items"].getMemberNames());
    EXPECT_EQ(MakeOomEventItem(polled[1]), Body()["items"]["guard|/cg/guard|v2"]);
}

TEST_F(CgroupOomTest, OwnGroupRefreshesTheWatermarkAfterTheReport) {
    const Events snapshot{Counters("main", false, false, 2, 2, 2)};
    platform().manager.snapshot.Always(snapshot);
    const struct {
        const char* group;
        bool parent, refreshes;
    } cases[] = {
        {"main", false, true},  {"top", true, true},     {"main", true, true},     {"guard", false, false},
        {"Main", false, false}, {"main2", false, false}, {"parent", false, false}, {"", false, false},
    };
    for (const auto& c : cases) {
        pri().m_lastRuntimeOomReportTime = 0;
        platform().manager.poll.Always({Counters(c.group, c.parent, false, 1, 0, 0)});
        pri().CheckMultiCgroupOom();
        Lines expected{kPoll,
                       doubles::Format("F3 [MonitorPri] MonitorPri: cgroup v1 memory OOM group=[%s] parent=%d "
                                       "path=[/cg/%s] oomKill=1(+0) underOom=0 oomKillDisable=0",
                                       c.group, c.parent, c.group),
                       kSend};
        if (c.refreshes) expected.insert(expected.end(), {kSnapshot, kWrite, kRename});
        EXPECT_EQ(expected, journal()) << c.group;
    }
    EXPECT_EQ(FormatOomWatermark(snapshot), Stored());
}

TEST_F(CgroupOomTest, KillReportedAtRunTimeIsNotReportedOnRestart) {
    Store({Counters("main", false, true, 0, 0, 0)});
    Event polled = Counters("main", false, true, 1, 1, 0);
    polled.oom_kill_delta = polled.oom_delta = 1;
    platform().manager.poll.Then({polled});
    platform().manager.snapshot.Always({Counters("main", false, true, 1, 1, 0)});
    pri().CheckMultiCgroupOom();
    pri().CheckSelfCgroupOomAfterRestart();
    EXPECT_EQ(1u, platform().sent.size());
}

TEST_F(CgroupOomTest, SecondReportNeedsThreeHundredSeconds) {
    platform().manager.poll.Always({Counters("guard", false, true, 1, 1, 1)});
    const std::string line =
        "F3 [MonitorPri] MonitorPri: cgroup v2 memory OOM group=[guard] parent=0 path=[/cg/guard] oomKill=1(+0) "
        "oom=1(+0) oomGroupKill=1(+0)";
    const struct {
        time_t seconds;
        bool sent;
    } cases[] = {{0, true}, {1, false}, {299, false}, {300, true}, {599, false}, {600, true}, {5000, true}};
    for (const auto& c : cases) {
        platform().now = 1700000000 + c.seconds;
        pri().CheckMultiCgroupOom();
        EXPECT_EQ(c.sent ? Lines({kPoll, line, kSend}) : Lines({kPoll, line}), journal()) << c.seconds;
    }
    EXPECT_EQ(1700005000, pri().m_lastRuntimeOomReportTime);
}

TEST_F(CgroupOomTest, OneReadingOfTheClockDecidesAndIsKept) {
    platform().manager.poll.Always({Counters("guard", false, true, 1, 1, 1)});
    platform().journalTime = true;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "time()") ++platform().now;
        return true;
    };
    platform().now = 1700000000;
    pri().m_lastRuntimeOomReportTime = 1700000001 - 299;  // a reading later it would be over
    pri().CheckMultiCgroupOom();
    EXPECT_TRUE(platform().sent.empty());
    platform().now = 1700001000;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(1u, platform().sent.size());
    EXPECT_EQ(1700001001, pri().m_lastRuntimeOomReportTime);
    platform().keepInJournal = nullptr;
}

TEST_F(CgroupOomTest, HeldBackItemsAreDroppedNotQueued) {
    platform().manager.poll.Then({Counters("a", false, true, 1, 1, 1)});
    platform().manager.poll.Then({Counters("b", false, true, 1, 1, 1)});
    platform().manager.poll.Then({});
    platform().manager.poll.Then({Counters("c", false, true, 1, 1, 1)});
    for (int i = 0; i < 4; ++i) {
        pri().CheckMultiCgroupOom();
        platform().now += 100;
    }
    ASSERT_EQ(2u, platform().sent.size());
    EXPECT_EQ((std::vector<std::string>{"a|/cg/a|v2"}), Body(0)["items"].getMemberNames());
    EXPECT_EQ((std::vector<std::string>{"c|/cg/c|v2"}), Body(1)["items"].getMemberNames());
}

TEST_F(CgroupOomTest, HeldBackReportStillRefreshesTheWatermark) {
    platform().manager.poll.Always({Counters("main", false, false, 1, 0, 0)});
    platform().manager.snapshot.Always({Counters("main", false, false, 1, 0, 0)});
    pri().m_lastRuntimeOomReportTime = platform().now - 10;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines({kPoll,
                     "F3 [MonitorPri] MonitorPri: cgroup v1 memory OOM group=[main] parent=0 path=[/cg/main] "
                     "oomKill=1(+0) underOom=0 oomKillDisable=0",
                     kSnapshot, kWrite, kRename}),
              journal());
    EXPECT_EQ(platform().now - 10, pri().m_lastRuntimeOomReportTime);
}

TEST_F(CgroupOomTest, FailedReportHoldsTheNextOneBackToo) {
    platform().manager.poll.Always({Counters("guard", false, true, 1, 1, 1)});
    platform().sendMsg.Always(false);
    pri().CheckMultiCgroupOom();
    EXPECT_EQ("W3 MonitorPri: report runtime cgroup OOM event failed", journal().back());
    platform().now += 299;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(1u, platform().sent.size());
    platform().now += 1;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(2u, platform().sent.size());
}

TEST_F(CgroupOomTest, MissingTransmitAtRunTimeGivesTwoLines) {
    platform().manager.poll.Always({Counters("main", false, false, 1, 0, 0)});
    platform().manager.snapshot.Always({Counters("main", false, false, 1, 0, 0)});
    platform().transmitPresent = false;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(
        Lines({kPoll,
               "F3 [MonitorPri] MonitorPri: cgroup v1 memory OOM group=[main] parent=0 path=[/cg/main] "
               "oomKill=1(+0) underOom=0 oomKillDisable=0",
               kNullTransmit, "W3 MonitorPri: report runtime cgroup OOM event failed", kSnapshot, kWrite, kRename}),
        journal());
    EXPECT_EQ(platform().now, pri().m_lastRuntimeOomReportTime);
}

TEST_F(CgroupOomTest, FailedPollIsLoggedAndWhatItGaveIsProcessed) {
    platform().manager.pollOk.Always(false);
    platform().manager.poll.Then({}).Then({Counters("guard", false, false, 1, 0, 0)});
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines({kPoll, "W3 MonitorPri: poll multi-cgroup memory OOM events failed"}), journal());
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(Lines({kPoll, "W3 MonitorPri: poll multi-cgroup memory OOM events failed",
                     "F3 [MonitorPri] MonitorPri: cgroup v1 memory OOM group=[guard] parent=0 path=[/cg/guard] "
                     "oomKill=1(+0) underOom=0 oomKillDisable=0",
                     kSend}),
              journal());
}

TEST_F(CgroupOomTest, LeavingTheUnifiedModeKeepsTheReportWindow) {
    platform().manager.poll.Always({Counters("guard", false, true, 1, 1, 1)});
    pri().CheckMultiCgroupOom();
    pri().m_unifiedActive = false;
    platform().now += 100;
    pri().CheckMultiCgroupOom();
    pri().m_unifiedActive = true;
    platform().now += 100;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(1u, platform().sent.size());
}

TEST_F(CgroupOomTest, ClockSetBackHoldsReportsBack) {
    platform().manager.poll.Always({Counters("guard", false, true, 1, 1, 1)});
    pri().CheckMultiCgroupOom();
    platform().now -= 86400;
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(1u, platform().sent.size());
}

TEST_F(CgroupOomTest, PercentSignsInNamesAreTextNotFormat) {
    platform().manager.poll.Always({Counters("%s%n%d", false, true, 1, 1, 1)});
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(
        "F3 [MonitorPri] MonitorPri: cgroup v2 memory OOM group=[%s%n%d] parent=0 path=[/cg/%s%n%d] "
        "oomKill=1(+0) oom=1(+0) oomGroupKill=1(+0)",
        journal()[1]);
}

TEST_F(CgroupOomTest, RuntimeReportsAfter2038KeepTheirDistance) {
    constexpr int64_t kWide = 1L << 32;
    Event event = Counters("main", false, true, 1, 1, 0);
    event.oom_kill_delta = 1;
    platform().manager.poll.Always({event});
    const struct {
        int64_t now;
        size_t sent;
    } cases[] = {
        {kWide + 5, 1},       {2 * kWide + 5, 2},  // the lower halves are equal
        {2 * kWide + 10, 2},                       // too soon, though not by the lower half of the last one
        {2 * kWide + 304, 2}, {2 * kWide + 305, 3},
    };
    for (const auto& c : cases) {
        platform().now = c.now;
        pri().CheckMultiCgroupOom();
        EXPECT_EQ(c.sent, platform().sent.size()) << c.now;
    }
}

TEST_F(CgroupOomTest, WhileItIsSentTheTimeOfTheReportIsKept) {
    platform().manager.poll.Always({Counters("guard", false, true, 1, 1, 1)});
    platform().now = 1700000000;
    int64_t kept = -1;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == kSend) kept = pri().m_lastRuntimeOomReportTime;
        return true;
    };
    pri().CheckMultiCgroupOom();
    EXPECT_EQ(1700000000, kept);
    platform().keepInJournal = nullptr;
}

TEST_F(CgroupOomTest, TheTransmitThatIsAskedForIsTheOneThatSends) {
    platform().journalTime = true;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "time()") platform().transmitPresent = false;
        return true;
    };
    EXPECT_TRUE(pri().ReportCgroupOomEvent("e", Json::Value(Json::objectValue)));
    EXPECT_EQ(1u, platform().sent.size());
    platform().keepInJournal = nullptr;
}
