// The watermark file: key, text, parsing, replacement, and when it is refreshed.
#include <json/json.h>

#include <climits>
#include <random>

#include "abnormal/OomWatermark.h"
#include "platform/zel/CgroupManager.h"
#include "support/MonitorFixture.h"

namespace {

const std::string kPath = "/opt/agent/home/conf/cgroup_oom_watermark.json";
const std::string kTemporary = kPath + ".tmp";

zel::CgroupMemoryOomEvent Counters(const std::string& group, const std::string& path, bool parent, bool v2,
                                   int64_t oomKill, int64_t oom, int64_t oomGroupKill) {
    zel::CgroupMemoryOomEvent event;
    event.group = group;
    event.path = path;
    event.parent = parent;
    event.v2 = v2;
    event.oom_kill = oomKill;
    event.oom = oom;
    event.oom_group_kill = oomGroupKill;
    return event;
}

Json::Value Parsed(const std::string& text) {
    Json::Value root;
    EXPECT_TRUE(Json::Reader().parse(text, root)) << text;
    return root;
}

/// "key=oom_kill/oom/oom_group_kill" per entry.
std::string Shown(const OomWatermarkMap& map) {
    std::string text;
    for (const auto& entry : map) {
        text += doubles::Format("%s=%lld/%lld/%lld ", entry.first.c_str(),
                                static_cast<long long>(entry.second.oom_kill), static_cast<long long>(entry.second.oom),
                                static_cast<long long>(entry.second.oom_group_kill));
    }
    return text;
}

class OomWatermarkTest : public MonitorFixture {
protected:
    void SetUp() override {
        MonitorFixture::SetUp();
        pri().m_isMainAgent = true;
        pri().m_unifiedActive = true;
        pri().m_cgroupManager = new zel::CCgroupManager;
        journal();
    }
};

}  // namespace

TEST_F(OomWatermarkTest, KeyNamesGroupPathAndVersion) {
    const struct {
        const char* group;
        const char* path;
        bool parent, v2;
        const char* key;
    } cases[] = {
        {"main", "/sys/fs/cgroup/x", false, true, "main|/sys/fs/cgroup/x|v2"},
        {"main", "/sys/fs/cgroup/x", false, false, "main|/sys/fs/cgroup/x|v1"},
        {"main", "/sys/fs/cgroup/x", true, true, "parent|/sys/fs/cgroup/x|v2"},
        {"", "/p", true, false, "parent|/p|v1"},
        {"", "", false, false, "||v1"},
        {"a|b", "/p|q", false, true, "a|b|/p|q|v2"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.key, MakeOomWatermarkKey(Counters(c.group, c.path, c.parent, c.v2, 1, 2, 3)));
    }
}

TEST_F(OomWatermarkTest, EventItemHoldsAllTwelveFieldsWithTheirTypes) {
    zel::CgroupMemoryOomEvent event = Counters("guard", "/p", false, true, 5000000001, 5000000003, 5000000005);
    event.oom_kill_delta = 5000000002;
    event.oom_delta = 5000000004;
    event.oom_group_kill_delta = 5000000006;
    event.under_oom = -7;
    event.oom_kill_disable = INT_MAX;
    const Json::Value item = MakeOomEventItem(event);
    EXPECT_EQ(
        (std::vector<std::string>{"group", "oom", "oom_delta", "oom_group_kill", "oom_group_kill_delta", "oom_kill",
                                  "oom_kill_delta", "oom_kill_disable", "parent", "path", "under_oom", "v2"}),
        item.getMemberNames());
    EXPECT_TRUE(item["group"].isString());
    EXPECT_EQ("guard", item["group"].asString());
    EXPECT_EQ("/p", item["path"].asString());
    EXPECT_TRUE(item["parent"].isBool());
    EXPECT_FALSE(item["parent"].asBool());
    EXPECT_TRUE(item["v2"].isBool());
    EXPECT_TRUE(item["v2"].asBool());
    EXPECT_EQ(5000000001, item["oom_kill"].asInt64());
    EXPECT_EQ(5000000002, item["oom_kill_delta"].asInt64());
    EXPECT_EQ(5000000003, item["oom"].asInt64());
    EXPECT_EQ(5000000004, item["oom_delta"].asInt64());
    EXPECT_EQ(5000000005, item["oom_group_kill"].asInt64());
    EXPECT_EQ(5000000006, item["oom_group_kill_delta"].asInt64());
    EXPECT_EQ(-7, item["under_oom"].asInt());
    EXPECT_EQ(INT_MAX, item["oom_kill_disable"].asInt());
}

TEST_F(OomWatermarkTest, FileHoldsVersionAndSevenMembersOfEachItem) {
    zel::CgroupMemoryOomEvent event = Counters("main", "/p", false, true, LLONG_MAX, LLONG_MIN, 3);
    event.oom_kill_delta = event.oom_delta = event.oom_group_kill_delta = 9;
    event.under_oom = event.oom_kill_disable = 1;
    const Json::Value root = Parsed(FormatOomWatermark({event, Counters("top", "/q", true, false, 4, 5, 6)}));
    EXPECT_EQ((std::vector<std::string>{"items", "version"}), root.getMemberNames());
    EXPECT_TRUE(root["version"].isInt());
    EXPECT_EQ(1, root["version"].asInt());
    EXPECT_EQ((std::vector<std::string>{"main|/p|v2", "parent|/q|v1"}), root["items"].getMemberNames());
    const Json::Value& item = root["items"]["main|/p|v2"];
    EXPECT_EQ((std::vector<std::string>{"group", "oom", "oom_group_kill", "oom_kill", "parent", "path", "v2"}),
              item.getMemberNames());
    EXPECT_EQ("main", item["group"].asString());
    EXPECT_EQ("/p", item["path"].asString());
    EXPECT_EQ(Json::Value(false), item["parent"]);
    EXPECT_EQ(Json::Value(true), item["v2"]);
    EXPECT_EQ(LLONG_MAX, item["oom_kill"].asInt64());
    EXPECT_EQ(LLONG_MIN, item["oom"].asInt64());
    EXPECT_EQ(3, item["oom_group_kill"].asInt64());
    // A parent entry keeps the manager's name for it inside the item.
    EXPECT_EQ("top", root["items"]["parent|/q|v1"]["group"].asString());
    EXPECT_EQ(Json::Value(true), root["items"]["parent|/q|v1"]["parent"]);
}

TEST_F(OomWatermarkTest, FileIsIndentedOneMemberALine) {
    EXPECT_EQ(
        "{\n"
        "   \"items\" : {\n"
        "      \"main|/p|v1\" : {\n"
        "         \"group\" : \"main\",\n"
        "         \"oom\" : 2,\n"
        "         \"oom_group_kill\" : 3,\n"
        "         \"oom_kill\" : 1,\n"
        "         \"parent\" : false,\n"
        "         \"path\" : \"/p\",\n"
        "         \"v2\" : false\n"
        "      }\n"
        "   },\n"
        "   \"version\" : 1\n"
        "}\n",
        FormatOomWatermark({Counters("main", "/p", false, false, 1, 2, 3)}));
}

TEST_F(OomWatermarkTest, EmptySnapshotGivesAFileThatIsReadable) {
    const std::string text = FormatOomWatermark({});
    EXPECT_TRUE(Parsed(text)["items"].isObject());
    OomWatermarkMap map{{"old", {}}};
    EXPECT_TRUE(ParseOomWatermark(text, map));
    EXPECT_TRUE(map.empty());
}

TEST_F(OomWatermarkTest, LaterEntryOfOneKeyStays) {
    const std::string text = FormatOomWatermark({
        Counters("total", "/p", true, true, 1, 1, 1),
        Counters("parent", "/p", false, true, 2, 3, 4),
        Counters("main", "/p", false, true, 8, 8, 8),
        Counters("main", "/p", false, true, 7, 7, 7),
    });
    OomWatermarkMap map;
    ASSERT_TRUE(ParseOomWatermark(text, map));
    EXPECT_EQ("main|/p|v2=7/7/7 parent|/p|v2=2/3/4 ", Shown(map));
    EXPECT_EQ("parent", Parsed(text)["items"]["parent|/p|v2"]["group"].asString());
    EXPECT_EQ(Json::Value(false), Parsed(text)["items"]["parent|/p|v2"]["parent"]);
}

TEST_F(OomWatermarkTest, WriteReplacesTheFileThroughATemporaryOne) {
    platform().files.content[kPath] = "old";
    EXPECT_TRUE(WriteOomWatermarkFile(kPath, {Counters("main", "/p", false, false, 1, 2, 3)}));
    EXPECT_EQ(
        Lines({"CFileUtil::WriteNewFile(" + kTemporary + ",0)", "CFileCom(" + kTemporary + ")::rename(" + kPath + ")"}),
        journal());
    EXPECT_EQ(FormatOomWatermark({Counters("main", "/p", false, false, 1, 2, 3)}), platform().files.content[kPath]);
    EXPECT_EQ(0u, platform().files.content.count(kTemporary));
}

TEST_F(OomWatermarkTest, FailedWriteLeavesFileAndTemporaryAsTheyAre) {
    platform().files.content[kPath] = "old";
    platform().files.content[kTemporary] = "half written";
    platform().files.failWrite.insert(kTemporary);
    EXPECT_FALSE(WriteOomWatermarkFile(kPath, {Counters("main", "/p", false, false, 1, 2, 3)}));
    EXPECT_EQ(Lines({"CFileUtil::WriteNewFile(" + kTemporary + ",0)"}), journal());
    EXPECT_EQ("old", platform().files.content[kPath]);
    EXPECT_EQ("half written", platform().files.content[kTemporary]);
}

TEST_F(OomWatermarkTest, FailedRenameRemovesTheTemporaryFile) {
    platform().files.content[kPath] = "old";
    platform().files.failRename.insert(kTemporary);
    EXPECT_FALSE(WriteOomWatermarkFile(kPath, {Counters("main", "/p", false, false, 1, 2, 3)}));
    EXPECT_EQ(
        Lines({"CFileUtil::WriteNewFile(" + kTemporary + ",0)", "CFileCom(" + kTemporary + ")::rename(" + kPath + ")",
               "CFileUtil::RemoveFile(" + kTemporary + ")"}),
        journal());
    EXPECT_EQ("old", platform().files.content[kPath]);
    EXPECT_EQ(0u, platform().files.content.count(kTemporary));
}

TEST_F(OomWatermarkTest, FailedRenameAndRemovalStillReportOneFailure) {
    platform().files.failRename.insert(kTemporary);
    platform().files.failRemove.insert(kTemporary);
    EXPECT_FALSE(WriteOomWatermarkFile(kPath, {}));
    EXPECT_EQ(0u, platform().files.content.count(kPath));
}

TEST_F(OomWatermarkTest, MissingFileIsNotRead) {
    OomWatermarkMap map{{"old", {1, 2, 3}}};
    EXPECT_FALSE(ReadOomWatermarkFile(kPath, map));
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(Lines({"CFileUtil::IsFile(" + kPath + ")"}), journal());
}

TEST_F(OomWatermarkTest, UnreadableFileIsNoWatermark) {
    platform().files.content[kPath] = FormatOomWatermark({Counters("main", "/p", false, false, 1, 2, 3)});
    platform().files.failRead.insert(kPath);
    OomWatermarkMap map{{"old", {1, 2, 3}}};
    EXPECT_FALSE(ReadOomWatermarkFile(kPath, map));
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(Lines({"CFileUtil::IsFile(" + kPath + ")", "CFileUtil::ReadFullFile(" + kPath + ",65536)"}), journal());
}

TEST_F(OomWatermarkTest, WhatAFailedReadLeftBehindIsNoWatermark) {
    platform().files.content[kPath] = FormatOomWatermark({Counters("main", "/p", false, false, 1, 2, 3)});
    platform().files.failRead.insert(kPath);
    platform().files.failedReadLeavesText = true;
    OomWatermarkMap map{{"old", {1, 2, 3}}};
    EXPECT_FALSE(ReadOomWatermarkFile(kPath, map));
    EXPECT_TRUE(map.empty());
}

TEST_F(OomWatermarkTest, FileUpToTheBoundIsReadAndALongerOneIsNot) {
    std::string text = FormatOomWatermark({Counters("main", "/p", false, false, 1, 2, 3)});
    text.insert(0, 65536 - text.size(), ' ');
    platform().files.content[kPath] = text;
    OomWatermarkMap map;
    EXPECT_TRUE(ReadOomWatermarkFile(kPath, map));
    EXPECT_EQ("main|/p|v1=1/2/3 ", Shown(map));
    platform().files.content[kPath] += "\n";
    EXPECT_FALSE(ReadOomWatermarkFile(kPath, map));
    EXPECT_TRUE(map.empty());
}

TEST_F(OomWatermarkTest, ANumberBeyondAllCountsForNothing) {
    // jsoncpp 1.9.5 refuses the text, 1.9.6 reads infinity.
    OomWatermarkMap map{{"old", {1, 2, 3}}};
    if (ParseOomWatermark("{\"items\":{\"k\":{\"oom_kill\":1e999999999999}}}", map)) {
        ASSERT_EQ(1u, map.size());
        EXPECT_EQ(0, map["k"].oom_kill);
    } else {
        EXPECT_TRUE(map.empty());
    }
}

TEST_F(OomWatermarkTest, TextsThatAreNoWatermarkGiveAnEmptyMap) {
    std::string deep = "{\"items\":";
    for (int i = 0; i < 20000; ++i) deep += "[";
    std::string deepObjects = "{\"items\":";
    for (int i = 0; i < 20000; ++i) deepObjects += "{\"a\":";
    const std::string cases[] = {
        "",
        " \n",
        "{",
        "}",
        "null",
        "true",
        "17",
        "\"items\"",
        "[]",
        "[1,2]",
        "[{\"items\":{}}]",
        "{}",
        "{\"version\":1}",
        "{\"version\":1,\"items\":null}",
        "{\"version\":1,\"items\":[]}",
        "{\"version\":1,\"items\":[{\"oom_kill\":1}]}",
        "{\"version\":1,\"items\":\"main\"}",
        "{\"version\":1,\"items\":5}",
        "{\"version\":1,\"items\":{\"main|/p|v1\":{\"oom_kill\":1}",
        "{\"version\":1,\"Items\":{}}",
        std::string("\0\x01\xff\xfe\x80", 5),
        std::string(4096, '\xff'),
        deep,
        deepObjects,
    };
    for (const std::string& text : cases) {
        OomWatermarkMap map{{"old", {1, 2, 3}}};
        EXPECT_FALSE(ParseOomWatermark(text, map)) << text.substr(0, 80);
        EXPECT_TRUE(map.empty()) << text.substr(0, 80);
    }
}

TEST_F(OomWatermarkTest, ItemsAreReadLeniently) {
    const struct {
        const char* text;
        const char* expected;
    } cases[] = {
        {"{\"items\":{}}", ""},
        {"{\"items\":{\"k\":{\"oom_kill\":1,\"oom\":2,\"oom_group_kill\":3}}}", "k=1/2/3 "},
        {"{\"version\":99,\"items\":{\"k\":{\"oom_kill\":1}}}", "k=1/0/0 "},
        {"{\"version\":\"x\",\"items\":{\"k\":{\"oom_kill\":1,\"oom_group_kill\":3}}}", "k=1/0/3 "},
        {"{\"items\":{\"k\":{}}}", "k=0/0/0 "},
        {"{\"items\":{\"k\":{\"group\":\"other\",\"path\":7,\"parent\":[],\"more\":{},\"oom\":2}}}", "k=0/2/0 "},
        // not an object: the group is known, its counters are not
        {"{\"items\":{\"a\":1,\"b\":null,\"c\":[],\"d\":\"x\",\"e\":true,\"k\":{\"oom\":2}}}",
         "a=0/0/0 b=0/0/0 c=0/0/0 d=0/0/0 e=0/0/0 k=0/2/0 "},
        // counters that are no numbers
        {"{\"items\":{\"k\":{\"oom_kill\":\"5\",\"oom\":[5],\"oom_group_kill\":{\"v\":5}}}}", "k=0/0/0 "},
        {"{\"items\":{\"k\":{\"oom_kill\":null,\"oom\":true,\"oom_group_kill\":false}}}", "k=0/1/0 "},
        // fractions lose their fraction
        {"{\"items\":{\"k\":{\"oom_kill\":1.9,\"oom\":-1.9,\"oom_group_kill\":2e3}}}", "k=1/-1/2000 "},
        // the ends of the range and beyond
        {"{\"items\":{\"k\":{\"oom_kill\":9223372036854775807,\"oom\":-9223372036854775808}}}",
         "k=9223372036854775807/-9223372036854775808/0 "},
        {"{\"items\":{\"k\":{\"oom_kill\":9223372036854775808,\"oom\":18446744073709551615,"
         "\"oom_group_kill\":99999999999999999999999999}}}",
         "k=0/0/0 "},
        {"{\"items\":{\"k\":{\"oom_kill\":-9223372036854775809,\"oom\":1e300,\"oom_group_kill\":-1e300}}}",
         "k=-9223372036854775808/0/0 "},
        // the numbers with a fraction next to the ends
        {"{\"items\":{\"k\":{\"oom_kill\":9223372036854775808.0,\"oom\":-9223372036854775808.0,"
         "\"oom_group_kill\":9223372036854774784.0}}}",
         "k=0/-9223372036854775808/9223372036854774784 "},
        {"{\"items\":{\"k\":{\"oom_kill\":9.25e18,\"oom\":-9.25e18,\"oom_group_kill\":9.2e18}}}",
         "k=0/0/9200000000000000000 "},
        // the last of two equal names
        {"{\"items\":{\"k\":{\"oom\":1},\"k\":{\"oom\":2,\"oom\":3}}}", "k=0/3/0 "},
        {"{\"items\":[],\"items\":{\"k\":{\"oom\":1}}}", "k=0/1/0 "},
        // comments, and text behind the root object
        {"// by hand\n{\"items\":/* x */{\"k\":{\"oom\":1}}} trailing", "k=0/1/0 "},
        {"{\"items\":{\"\":{\"oom\":1}}}", "=0/1/0 "},
    };
    for (const auto& c : cases) {
        OomWatermarkMap map{{"old", {1, 2, 3}}};
        EXPECT_TRUE(ParseOomWatermark(c.text, map)) << c.text;
        EXPECT_EQ(c.expected, Shown(map)) << c.text;
    }
}

TEST_F(OomWatermarkTest, EveryTruncationIsRefusedOrReadInPart) {
    const std::string whole = FormatOomWatermark({Counters("main", "/p", false, false, 1, 2, 3)});
    const size_t lastBrace = whole.rfind('}');
    for (size_t length = 0; length < whole.size(); ++length) {
        OomWatermarkMap map;
        EXPECT_EQ(length > lastBrace, ParseOomWatermark(whole.substr(0, length), map)) << length;
        EXPECT_EQ(length > lastBrace ? 1u : 0u, map.size()) << length;
    }
}

TEST_F(OomWatermarkTest, RandomSnapshotsReadBackAsTheyWere) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE(doubles::Format("seed %u", seed));
    std::mt19937_64 random(seed);
    for (int round = 0; round < 500; ++round) {
        std::vector<zel::CgroupMemoryOomEvent> snapshot;
        OomWatermarkMap expected;
        for (size_t i = random() % 8; i > 0; --i) {
            std::string group, path;
            for (size_t n = random() % 6; n > 0; --n) group += "ab|/\"\\\n\t{}"[random() % 10];
            for (size_t n = random() % 12; n > 0; --n) path += "/xy z:,."[random() % 8];
            snapshot.push_back(Counters(group, path, random() % 4 == 0, random() % 2 == 0,
                                        static_cast<int64_t>(random()), static_cast<int64_t>(random()),
                                        static_cast<int64_t>(random())));
            const zel::CgroupMemoryOomEvent& event = snapshot.back();
            expected[MakeOomWatermarkKey(event)] = {event.oom_kill, event.oom, event.oom_group_kill};
        }
        ASSERT_TRUE(WriteOomWatermarkFile(kPath, snapshot));
        OomWatermarkMap map;
        ASSERT_TRUE(ReadOomWatermarkFile(kPath, map));
        ASSERT_EQ(Shown(expected), Shown(map));
    }
}

TEST_F(OomWatermarkTest, RefreshWritesSnapshotToGlobalDirectory) {
    const std::vector<zel::CgroupMemoryOomEvent> snapshot{Counters("main", "/p", false, true, 1, 2, 3)};
    platform().manager.snapshot.Always(snapshot);
    platform().globalCfgDir = "/etc/agent";
    pri().RefreshSelfCgroupOomWatermark();
    EXPECT_EQ(Lines({"CCgroupManager::SnapshotSelfMemoryOomCounters()",
                     "CFileUtil::WriteNewFile(/etc/agent/cgroup_oom_watermark.json.tmp,0)",
                     "CFileCom(/etc/agent/cgroup_oom_watermark.json.tmp)::rename("
                     "/etc/agent/cgroup_oom_watermark.json)"}),
              journal());
    EXPECT_EQ(FormatOomWatermark(snapshot), platform().files.content["/etc/agent/cgroup_oom_watermark.json"]);
}

TEST_F(OomWatermarkTest, RefreshWantsMainAndManagedAndActive) {
    platform().manager.snapshot.Always({Counters("main", "/p", false, true, 1, 2, 3)});
    pri().m_isMainAgent = false;
    pri().RefreshSelfCgroupOomWatermark();
    pri().m_isMainAgent = true;
    pri().m_unifiedActive = false;
    pri().RefreshSelfCgroupOomWatermark();
    pri().m_unifiedActive = true;
    EXPECT_EQ(Lines(), journal());

    zel::CCgroupManager* manager = pri().m_cgroupManager;
    pri().m_cgroupManager = nullptr;
    pri().RefreshSelfCgroupOomWatermark();
    EXPECT_EQ(Lines(), journal());
    pri().m_cgroupManager = manager;
}

TEST_F(OomWatermarkTest, RefreshLeavesTheFileAloneWithoutASnapshot) {
    platform().files.content[kPath] = "old";
    platform().manager.snapshot.Then({}).Then({Counters("main", "/p", false, true, 1, 2, 3)});
    platform().manager.snapshotOk.Then(true).Then(false);
    pri().RefreshSelfCgroupOomWatermark();  // empty
    pri().RefreshSelfCgroupOomWatermark();  // failed, although something was filled in
    EXPECT_EQ(
        Lines({"CCgroupManager::SnapshotSelfMemoryOomCounters()", "CCgroupManager::SnapshotSelfMemoryOomCounters()"}),
        journal());
    EXPECT_EQ("old", platform().files.content[kPath]);
}

TEST_F(OomWatermarkTest, RefreshSwallowsAFailedWriteWithoutALogLine) {
    platform().manager.snapshot.Always({Counters("main", "/p", false, true, 1, 2, 3)});
    platform().files.failWrite.insert(kTemporary);
    pri().RefreshSelfCgroupOomWatermark();
    platform().files.failWrite.clear();
    platform().files.failRename.insert(kTemporary);
    pri().RefreshSelfCgroupOomWatermark();
    EXPECT_EQ(
        Lines({"CCgroupManager::SnapshotSelfMemoryOomCounters()", "CFileUtil::WriteNewFile(" + kTemporary + ",0)",
               "CCgroupManager::SnapshotSelfMemoryOomCounters()", "CFileUtil::WriteNewFile(" + kTemporary + ",0)",
               "CFileCom(" + kTemporary + ")::rename(" + kPath + ")", "CFileUtil::RemoveFile(" + kTemporary + ")"}),
        journal());
    EXPECT_TRUE(platform().logs.empty());
}
