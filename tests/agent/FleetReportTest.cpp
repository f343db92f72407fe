// The command: what it asks the broker for, the file and the JSON that it makes, and what it refuses.
#include "FleetReport.h"

#include <sys/stat.h>
#include <unistd.h>

#include "FleetFixture.h"
#include "FleetReportFixture.h"

using namespace agent;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int64_t kNow = 1000000;  // as the fixture's broker has it

class FleetReportTest : public fleettest::FleetFixture {
protected:
    void SetUp() override {
        FleetFixture::SetUp();
        options.report.htmlFile = m_directory / "fleet.html";
        world["streams"]["EVENTS"]["firstSequence"] = 1;
        world["streams"]["EVENTS"]["firstTime"] = kNow - 200000;
        AddHost(WellHost("web1"), 20);
        HostState state = WellHost("db1");
        state.groups = {"db"};
        AddHost(state, 20);
    }
    void AddEvent(const std::string& host, int number, int64_t time, const fleettest::Sent& sent) {
        Json::Value line(Json::objectValue);
        line["id"] = "ab12000000000001-" + std::to_string(number);
        line["time"] = Json::Int64(time);
        line["process"] = "tervane";
        line["type"] = sent.type;
        line["body"] = Compact(sent.body);
        Json::Value item(Json::objectValue);
        item["subject"] = "zel.events." + host + ".tervane";
        item["time"] = Json::Int64(time + 1);
        item["messageId"] = host + "/ab12000000000001-" + std::to_string(number);
        item["payload"] = Compact(line);
        world["events"].append(item);
    }
    void AddPut(const std::string& key, int revision, int64_t time, const std::string& value, bool isDeleted = false) {
        Json::Value put(Json::objectValue);
        put["key"] = key;
        put["revision"] = revision;
        put["time"] = Json::Int64(time);
        put["value"] = value;
        put["deleted"] = isDeleted;
        world["config"].append(put);
    }
    std::string Page() const { return support::ReadText(options.report.htmlFile); }
    Json::Value View() {
        options.json = true;
        EXPECT_EQ(Run("report"), 0) << err;
        return Parsed(out);
    }

    const std::vector<fleettest::Sent> each = fleettest::OneOfEach("QorHips");
};

TEST_F(FleetReportTest, WritesThePageOfTheLastDay) {
    AddEvent("web1", 1, kNow - 90000, each[1]);
    AddEvent("web1", 2, kNow - 80000, each[1]);
    AddEvent("web1", 3, kNow - 70000, each[4]);
    AddEvent("web1", 3, kNow - 70000, each[4]);
    AddPut("all", 11, kNow - 99000, R"({"maxCpu":10})");
    AddPut("all", 12, kNow - 5000, R"({"maxCpu":12})");
    EXPECT_EQ(Run("report"), 0) << err;
    EXPECT_EQ(out, options.report.htmlFile + ": 2 hosts, 2 events, 1 changes of the configuration\n");
    EXPECT_EQ(err, "");
    EXPECT_THAT(Page(), AllOf(HasSubstr("<!DOCTYPE html>"), HasSubstr("all (12): maxCpu 10 to 12"),
                              HasSubstr("web1/ab12-2"), Not(HasSubstr("ab12-1<")), HasSubstr("</html>\n")));
    struct stat status {};
    ASSERT_EQ(stat(options.report.htmlFile.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_THAT(Page(), HasSubstr("Sun 11 Jan 1970 13:46 to Mon 12 Jan 1970 13:46 UTC")) << "by the broker's clock";
}

TEST_F(FleetReportTest, HasTheSameFiguresAsJson) {
    options.report.htmlFile.clear();
    for (int i = 0; i < 3; ++i) AddEvent("web1", i + 1, kNow - 100 - i, each[1]);
    AddEvent("web1", 3, kNow - 102, each[1]);
    AddEvent("old1", 1, kNow - 3000, each[4]);
    AddPut("group.web", 12, kNow - 5000, "", true);
    const Json::Value view = View();
    EXPECT_EQ(view["schema"], "tervanectl.fleet-report");
    EXPECT_EQ(view["hosts"]["all"].asInt(), 2);
    EXPECT_EQ(view["events"]["read"].asInt(), 4);
    EXPECT_EQ(view["events"]["repeated"].asInt(), 1);
    EXPECT_EQ(view["counts"]["self_kill"].asInt(), 3);
    EXPECT_EQ(view["since"].asInt64(), kNow - 86400);
    EXPECT_EQ(view["until"].asInt64(), kNow);
    EXPECT_TRUE(view["reach"]["whole"].asBool());
    ASSERT_EQ(view["pieces"].size(), 48U);
    EXPECT_EQ(view["pieces"][47]["counts"]["self_kill"].asInt(), 3);
    EXPECT_EQ(view["changes"][0]["what"], "taken away as a whole");
    ASSERT_EQ(view["rows"].size(), 3U);
    EXPECT_EQ(view["rows"][1]["host"], "web1");
    EXPECT_EQ(view["rows"][1]["counts"]["self_kill"].asInt(), 3);
    EXPECT_EQ(view["rows"][1]["last"][0]["event"], "web1/ab12-3") << "the last that came";
    EXPECT_EQ(view["rows"][1]["pieces"].size(), 48U);
    EXPECT_EQ(view["rows"][0]["pieces"].size(), 0U);
    EXPECT_EQ(view["rows"][0]["config"]["applied"].asInt(), 12);
    EXPECT_EQ(view["rows"][2]["host"], "old1");
    EXPECT_EQ(view["rows"][2]["state"], "") << "it has events and says nothing of itself";
}

TEST_F(FleetReportTest, AGroupHasItsHostsEventsAndLevelsAlone) {
    AddEvent("web1", 1, kNow - 100, each[1]);
    AddEvent("db1", 1, kNow - 100, each[1]);
    int revision = 11;
    for (const char* key : {"all", "group.web", "group.db", "host.web1", "host.db1"}) {
        ++revision;
        AddPut(key, revision, kNow - 5000 + revision, R"({"maxCpu":10})");
    }
    options.report.group = "db";
    const Json::Value view = View();
    EXPECT_EQ(view["group"], "db");
    EXPECT_EQ(view["hosts"]["all"].asInt(), 1);
    EXPECT_EQ(view["events"]["read"].asInt(), 1);
    ASSERT_EQ(view["rows"].size(), 1U);
    EXPECT_EQ(view["rows"][0]["host"], "db1");
    std::string levels;
    for (const Json::Value& change : view["changes"]) levels += change["level"].asString() + " ";
    EXPECT_EQ(levels, "all group.db host.db1 ");
    EXPECT_THAT(Page(), HasSubstr("<h1>Fleet, group db</h1>"));
    options.report.group = "none";
    EXPECT_EQ(Run("report"), 1);
    EXPECT_THAT(err, HasSubstr("no host says that it is of the group \"none\""));
}

TEST_F(FleetReportTest, ManyHostsAndKeysAreBoundedAndCounted) {
    for (int i = 0; i < 32; ++i) {
        const std::string name = "host" + std::to_string(100 + i);
        AddHost(WellHost(name), 20);
        AddEvent(name, 1, kNow - 100, each[1]);
    }
    AddEvent("host131", 2, kNow - 90, each[1]);
    for (int i = 0; i < 408; ++i) {
        const bool old = i < 205;
        AddPut("host." + std::to_string(i), i + 1, old ? kNow - 99000 : kNow - 5000, R"({"maxCpu":10})");
    }
    world["times"] = 2;
    const Json::Value view = View();
    EXPECT_EQ(view["changes"].size(), 200U);
    EXPECT_EQ(view["changes"][0]["level"], "host.208") << "the newest, the oldest of them first";
    EXPECT_EQ(view["keys_left_out"].asInt(), 3);
    size_t shown = 0;
    std::string without;
    for (const Json::Value& row : view["rows"]) {
        shown += row["pieces"].size() == 48 ? 1 : 0;
        if (row["events"].asInt() > 0 && row["pieces"].empty()) without += row["host"].asString() + " ";
    }
    EXPECT_EQ(without, "host129 host130 ");
    EXPECT_EQ(shown, 30U) << "the most first, then by name";
}

TEST_F(FleetReportTest, ALinkIsNotFollowedAndTheOldPageStays) {
    const std::string target = m_directory / "target";
    ASSERT_TRUE(support::WriteText(target, "precious"));
    ASSERT_EQ(symlink(target.c_str(), options.report.htmlFile.c_str()), 0);
    EXPECT_EQ(Run("report"), 1);
    EXPECT_THAT(err, HasSubstr("fleet.html"));
    EXPECT_EQ(support::ReadText(target), "precious");
    options.report.htmlFile = m_directory / "none/fleet.html";
    EXPECT_EQ(Run("report"), 1);
    EXPECT_THAT(err, HasSubstr("/none: No such file"));
}

TEST_F(FleetReportTest, WhatCannotBeReadIsOnThePageAndSaid) {
    world["faults"]["events"]["error"] = "there is no stream EVENTS";
    world["faults"]["history"]["error"] = "not permitted";
    AddPut("all", 12, kNow - 5000, "{}");
    EXPECT_EQ(Run("report"), 1);
    EXPECT_THAT(err, AllOf(HasSubstr("the events cannot be read: there is no stream EVENTS"),
                           HasSubstr("changes of the configuration cannot be read: not permitted")));
    EXPECT_THAT(Page(), AllOf(HasSubstr("there is no stream EVENTS</p>"), HasSubstr("not permitted</p>")));
    world["faults"] = Json::Value(Json::objectValue);
    world["faults"]["keys"]["error"] = "not permitted";
    EXPECT_EQ(Run("report"), 2);
}

TEST_F(FleetReportTest, RefusesWhatItCannotDoBeforeItAsks) {
    const std::string page = options.report.htmlFile;
    options.report.htmlFile.clear();
    EXPECT_EQ(Run("report"), 11);
    EXPECT_EQ(err, "tervanectl: fleet report needs --html FILE for a page, or --json\n");
    EXPECT_FALSE(support::Exists(WorldFile() + ".start"));
    options.report.htmlFile = page;
    options.report.since = "1970-02-20";
    EXPECT_EQ(Run("report"), 11);
    EXPECT_THAT(err, HasSubstr("not in the past by the broker's clock"));
    EXPECT_FALSE(support::Exists(page));
}

TEST_F(FleetReportTest, AHostileHostIsEscaped) {
    const std::string name = "<script>alert(1)</script>";
    AddHost(WellHost(name), 900, fleet::EscapeName(name));
    AddEvent(fleet::EscapeName(name), 1, kNow - 100, {"T_MSG_SELF_KILL", fleettest::SelfKill("\x1b[31m<b>")});
    EXPECT_EQ(Run("report"), 0) << err;
    EXPECT_THAT(Page(), AllOf(Not(HasSubstr("<script")), Not(HasSubstr("\x1b")), Not(HasSubstr("<b>:")),
                              HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt;/ab12-1")));
}

TEST(FleetChangeTest, NamesWhatCameWentAndDiffers) {
    const std::string before = R"({"a":1,"b":"x","c":[1]})";
    EXPECT_EQ(WordChange(&before, R"({"a":2,"b":"x","d":true})", false), "a 1 to 2, d true, c taken away");
    EXPECT_EQ(WordChange(&before, before, false), "put as it was");
    EXPECT_EQ(WordChange(&before, "", true), "taken away as a whole");
    EXPECT_EQ(WordChange(&before, "[]", false), "put as a text that is no configuration");
    EXPECT_EQ(WordChange(nullptr, R"({"a":2})", false), "put, what was before is not known: a 2");
    const std::string garbage = "{";
    EXPECT_EQ(WordChange(&garbage, R"({"a":2})", false), "a 2");
    const std::string text = WordChange(&before, "{\"a\":\"" + std::string(100000, 'x') + "\"}", false);
    EXPECT_LT(text.size(), 400U);
}

}  // namespace
