// Events of a fleet out of the stream: each once, printable, in the words of the host's own view; and their stories.
#include "FleetEvents.h"

#include "FleetFixture.h"

using namespace agent;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char kSpool[] = "ab12000000000001";

class FleetEventsTest : public fleettest::FleetFixture {
protected:
    void SetUp() override {
        FleetFixture::SetUp();
        options.events.since = "2001-09-09";
    }
    static std::string Line(int number, const Json::Value& body, const std::string& type = "T_MSG_SELF_KILL") {
        Json::Value line(Json::objectValue);
        line["id"] = std::string(kSpool) + "-" + std::to_string(number);
        line["time"] = 1000000000 + number;
        line["process"] = "QorHips";
        line["type"] = type;
        line["body"] = Compact(body);
        return Compact(line);
    }
    static Json::Value SelfKill() {
        Json::Value body(Json::objectValue);
        body["process"] = "QorHips";
        body["pid"] = 42;
        body["resource"] = "cpu";
        body["value"] = 2512;
        body["limit"] = 1000;
        body["sustained_ms"] = 600000;
        body["record"] = "/var/lib/tervane/selfkill/1.json";
        return body;
    }
    void AddMessage(const std::string& host, int first, int last, const std::string& payload) {
        Json::Value item(Json::objectValue);
        item["subject"] = "zel.events." + host + ".QorHips";
        item["sequence"] = world["events"].size() + 1;
        item["time"] = 1000000000.5;
        item["messageId"] = host + "/" + kSpool + "-" + std::to_string(last);
        item["first"] = first;
        item["payload"] = payload;
        world["events"].append(item);
    }
};

TEST_F(FleetEventsTest, RepeatsAreDroppedOfTheSpoolsHeardOfLast) {
    FleetEventReader reader(2);
    std::string taken;
    const auto take = [&](const std::string& host, int number) {
        world["events"].clear();
        AddMessage(host, number, number, Line(number, SelfKill()));
        reader.Take(world["events"][0], [&](const FleetEvent& event) {
            taken += event.host + ":" + event.event.id.substr(17) + " ";
            return true;
        });
    };
    take("a", 1);
    take("b", 1);
    take("a", 1);  // again, so that b is the one that was silent for longest
    take("c", 1);
    take("a", 1);
    take("a", 2);
    take("c", 1);
    EXPECT_EQ(taken, "a:1 b:1 c:1 a:2 ");
    EXPECT_EQ(reader.Repeated(), 3u);
    take("b", 1);  // forgotten, and a with it now
    take("b", 1);
    take("c", 1);
    take("a", 2);
    EXPECT_EQ(taken, "a:1 b:1 c:1 a:2 b:1 a:2 ");
    EXPECT_EQ(reader.Repeated(), 5u);
    EXPECT_EQ(reader.Unread(), 0u);
}

TEST_F(FleetEventsTest, ShowsEachEventOnceInTheHostsWords) {
    AddMessage("web1", 1, 2, Line(1, SelfKill()) + "\n" + Line(2, SelfKill()));
    AddMessage("web1", 2, 3, Line(2, SelfKill()) + "\n" + Line(3, SelfKill()));
    AddMessage("db10", 1, 1, Line(1, SelfKill()));
    AddMessage("web1", 1, 1, Line(1, SelfKill()));
    EXPECT_EQ(Run("events"), 0) << err;
    const std::string what = "  self-kill  QorHips  ends itself: CPU 25.12 %, its maximum is 10 %, for 10 min\n";
    EXPECT_EQ(out,
              "TIME                 EVENT        TYPE       ABOUT    WHAT\n"
              "2001-09-09 01:46:41  web1/ab12-1" +
                  what + "2001-09-09 01:46:42  web1/ab12-2" + what + "2001-09-09 01:46:43  web1/ab12-3" + what +
                  "2001-09-09 01:46:41  db10/ab12-1" + what);
    EXPECT_EQ(err, "");
    options.json = true;
    EXPECT_EQ(Run("events"), 0);
    EXPECT_EQ(Parsed(out)["events"].size(), 4u);
    EXPECT_EQ(Parsed(out)["repeated"].asInt(), 2);
}

TEST_F(FleetEventsTest, AHostIsCalledAsItIsAndNotAsInSubjects) {
    AddMessage("web_2eexample_5f01", 1, 1, Line(1, SelfKill()));
    AddMessage("a_5f1", 1, 1, Line(1, SelfKill()));  // "_" before one digit is written as it is
    AddMessage("_1b_5b2Jevil", 1, 1, Line(1, SelfKill()));
    EXPECT_EQ(Run("events"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("web.example_01/ab12-1 "), HasSubstr("a_5f1/ab12-1 "), Not(HasSubstr("\x1b"))));
    EXPECT_EQ(err, "");
    options.event = "web.example_01/ab12-1";
    EXPECT_EQ(Run("explain"), 0) << err;
}

TEST_F(FleetEventsTest, WhatIsNoEventIsCountedAndMovesNoCursor) {
    Json::Value body = SelfKill();
    body["process"] = "\x1b[2Jroot";
    AddMessage("web1", 1, 2, "torn \x1b[31m\n" + Line(1, body));
    AddMessage("w\x1b[31m", 1, 1, Line(1, SelfKill()));
    EXPECT_EQ(Run("events"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("web1/ab12-1"), Not(HasSubstr("\x1b"))));
    EXPECT_EQ(err, "tervanectl: 1 lines of the stream are no events and are left out\n");
}

TEST_F(FleetEventsTest, TakesTheTypeAndTheLastOnes) {
    for (int i = 1; i <= 30; ++i)
        AddMessage("web1", i, i, Line(i, SelfKill(), i % 2 == 0 ? "T_MSG_OTHER" : "T_MSG_SELF_KILL"));
    options.events.types = {"self-kill"};
    options.events.last = 2;
    EXPECT_EQ(Run("events"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("only the last 2:"), HasSubstr("/ab12-27 "), HasSubstr("/ab12-29 "),
                           Not(HasSubstr("/ab12-28 ")), Not(HasSubstr("/ab12-25 "))));
    options.events.types = {"drift"};
    EXPECT_EQ(Run("events"), 0);
    EXPECT_EQ(out, "no event of this kind in this time\n");
}

TEST_F(FleetEventsTest, FollowingEndsWithTheConnectionAndSaysSo) {
    AddMessage("web1", 1, 1, Line(1, SelfKill()));
    AddMessage("web1", 1, 2, Line(1, SelfKill()) + "\n" + Line(2, SelfKill()));
    options.events.follow = true;
    EXPECT_EQ(Run("events"), 2);
    EXPECT_EQ(support::LinesOf(out).size(), 2u) << out;
    EXPECT_THAT(err, HasSubstr("the connection is lost"));
}

TEST_F(FleetEventsTest, AStoryNamesWhatOnlyItsHostKnows) {
    AddMessage("web1", 7, 7, Line(7, SelfKill()));
    options.event = "web1/ab12-7";
    EXPECT_EQ(Run("explain"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("web1: self-kill of QorHips"), HasSubstr("the maximum of the process: 10 %"),
                           HasSubstr("only web1 knows which file gave its limits"),
                           HasSubstr("tervanectl explain ab12000000000001-7")));
    EXPECT_THAT(out, AllOf(Not(HasSubstr("cannot be read now")), Not(HasSubstr("built-in table"))));
    AddMessage("web2", 7, 7, Line(7, SelfKill()));
    options.event = "ab12-7";
    EXPECT_EQ(Run("explain"), 1);
    EXPECT_THAT(err,
                AllOf(HasSubstr("web1/ab12000000000001-7 web2/ab12000000000001-7"), HasSubstr("name the whole id")));
    options.event = "web2/ab12-9";
    EXPECT_EQ(Run("explain"), 1);
    EXPECT_THAT(err, HasSubstr("there is no event web2/ab12-9"));
}

}  // namespace
