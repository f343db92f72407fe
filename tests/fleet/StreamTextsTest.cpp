// What is said to the broker to read a stream, and what its answers are taken for.
#include "console/StreamTexts.h"

#include <gtest/gtest.h>

#include "fleet/ConsoleProcess.h"

namespace fleet {
namespace {

TEST(StreamTextsTest, DeliveryIsReadOutOfTheReply) {
    const auto delivery = ParseDelivery("$JS.ACK.EVENTS.abc.1.170.42.1700000000123456789.7");
    ASSERT_TRUE(delivery.has_value());
    EXPECT_EQ(delivery->streamSequence, 170u);
    EXPECT_EQ(delivery->consumerSequence, 42u);
    EXPECT_EQ(delivery->timeNs, 1700000000123456789);
    EXPECT_EQ(delivery->pending, 7u);
    for (const char* longer : {"$JS.ACK._.hash.EVENTS.abc.1.170.42.1700000000123456789.7",
                               "$JS.ACK._.hash.EVENTS.abc.1.170.42.1700000000123456789.7.token"}) {
        const auto again = ParseDelivery(longer);
        ASSERT_TRUE(again.has_value()) << longer;
        EXPECT_EQ(again->streamSequence, 170u);
        EXPECT_EQ(again->pending, 7u);
    }
    for (const char* none :
         {"", "_INBOX.x.1", "$JS.ACK.EVENTS.abc.1.170.42.17", "$JS.ACK.EVENTS.abc.1.170.42.x.7",
          "$JS.ACK.EVENTS.abc.1.-1.42.17.7", "$JS.ACK.EVENTS.abc.1.170.42.17.7.8",
          "$JS.ACK.EVENTS.abc.1.99999999999999999999.42.17.7", "$JS.ACK.EVENTS.abc.1.170.42.18446744073709551615.7",
          "$JS.ACK.a.b.c.d.1.170.42.17.7.8.9", "$JS.NAK.EVENTS.abc.1.170.42.17.7"}) {
        EXPECT_FALSE(ParseDelivery(none).has_value()) << none;
    }
}

TEST(StreamTextsTest, TimesGoThereAndBack) {
    EXPECT_EQ(FormatTime(0), "1970-01-01T00:00:00.000000000Z");
    EXPECT_EQ(FormatTime(1700000000.5), "2023-11-14T22:13:20.500000000Z");
    EXPECT_EQ(ParseTime("2023-11-14T22:13:20.5Z"), 1700000000.5);
    EXPECT_EQ(ParseTime("2024-02-29T00:00:00Z"), 1709164800.0);
    for (const double time : {0.0, 951782400.25, 1700000000.0, 253402300799.0}) {
        EXPECT_EQ(ParseTime(FormatTime(time)), time);
    }
    for (const char* none : {"", "x", "2023-11-14", "2023-11-14T22:13:20", "2023-13-14T22:13:20Z",
                             "2023-11-14T25:13:20Z", "2023-11-14T22:13:20.5Zx", "0000-00-00T00:00:00Z"}) {
        EXPECT_FALSE(ParseTime(none).has_value()) << none;
    }
}

TEST(StreamTextsTest, ConsumerBeginsWhereItIsAsked) {
    ReadFrom from;
    const auto config = [&] { return JsonOf(ConsumerRequest("EVENTS", "zel.events.>", from))["config"]; };
    EXPECT_EQ(config()["deliver_policy"].asString(), "all");
    EXPECT_EQ(config()["ack_policy"].asString(), "none");
    EXPECT_EQ(config()["filter_subject"].asString(), "zel.events.>");
    from.kind = ReadFrom::Kind::kSequence;
    from.sequence = 18446744073709551615u;
    EXPECT_EQ(config()["opt_start_seq"].asUInt64(), 18446744073709551615u);
    from.kind = ReadFrom::Kind::kTime;
    from.time = 1700000000;
    EXPECT_EQ(config()["opt_start_time"].asString(), "2023-11-14T22:13:20.000000000Z");
    from.kind = ReadFrom::Kind::kLastOfEach;
    EXPECT_EQ(config()["deliver_policy"].asString(), "last_per_subject");
    EXPECT_EQ(PullRequest(256, 0, 5000), "{\"batch\":256,\"expires\":5000000000}");
    EXPECT_EQ(JsonOf(PullRequest(1, 4096, 5000))["max_bytes"].asInt(), 4096);
}

TEST(StreamTextsTest, AnswersOfTheBrokerAreRead) {
    const auto made =
        ParseMadeConsumer(R"({"type":"x","name":"abc","num_pending":3,"created":"2023-11-14T22:13:20Z"})");
    ASSERT_TRUE(made.Ok());
    EXPECT_EQ(made->time, 1700000000.0);
    EXPECT_EQ(made->name, "abc");
    EXPECT_EQ(made->pending, 3u);
    const auto refused = ParseMadeConsumer(R"({"error":{"code":404,"description":"stream not found"}})");
    ASSERT_FALSE(refused.Ok());
    EXPECT_EQ(refused.GetError().Text(), "stream not found");
    for (const char* none : {"", "{", "[]", "7", "{}", R"({"name":7})", R"({"error":"x"})"}) {
        EXPECT_FALSE(ParseMadeConsumer(none).Ok()) << none;
        EXPECT_FALSE(ParseStreamReport(none).Ok()) << none;
    }
}

TEST(StreamTextsTest, StreamIsReportedWithItsReplicas) {
    const auto report = ParseStreamReport(R"({"created":"2026-01-01T00:00:00Z",
        "config":{"max_bytes":1000,"discard":"new","max_msgs":-1,"max_age":604800000000000},
        "state":{"messages":2,"bytes":300,"first_seq":5,"first_ts":"2023-11-14T22:13:20Z","last_seq":6,
                 "last_ts":"2023-11-14T22:13:21.25Z","num_subjects":2},
        "cluster":{"leader":"n1","replicas":[{"name":"n2","current":true,"lag":0,"active":1},
                                            {"name":"n3","current":false,"offline":true,"lag":17}, 7]}})");
    ASSERT_TRUE(report.Ok()) << report.GetError().Text();
    const Json::Value line = JsonOf(StreamAnswer(1, *report));
    EXPECT_EQ(line["messages"].asUInt64(), 2u);
    EXPECT_EQ(line["bytes"].asUInt64(), 300u);
    EXPECT_EQ(line["maxBytes"].asInt64(), 1000);
    EXPECT_EQ(line["discard"].asString(), "new");
    EXPECT_EQ(line["maxMessages"].asInt64(), -1);
    EXPECT_EQ(line["maxAge"].asDouble(), 604800.0);
    EXPECT_EQ(line["firstTime"].asDouble(), 1700000000.0);
    EXPECT_EQ(line["lastTime"].asDouble(), 1700000001.25);
    EXPECT_EQ(line["firstSequence"].asUInt64(), 5u);
    EXPECT_EQ(line["lastSequence"].asUInt64(), 6u);
    EXPECT_EQ(line["subjects"].asUInt64(), 2u);
    EXPECT_EQ(line["leader"].asString(), "n1");
    ASSERT_EQ(line["replicas"].size(), 2u);
    EXPECT_TRUE(line["replicas"][0]["current"].asBool());
    EXPECT_FALSE(line["replicas"][0]["offline"].asBool());
    EXPECT_TRUE(line["replicas"][1]["offline"].asBool());
    EXPECT_EQ(line["replicas"][1]["lag"].asUInt64(), 17u);
}

TEST(StreamTextsTest, EmptyStreamHasNoTimes) {
    const auto report = ParseStreamReport(R"({"config":{"max_bytes":-1},"state":{"messages":0,
        "first_ts":"0001-01-01T00:00:00Z","last_ts":"0001-01-01T00:00:00Z"}})");
    ASSERT_TRUE(report.Ok());
    EXPECT_EQ(report->firstTime, 0);
    EXPECT_EQ(report->maxBytes, -1);
    EXPECT_TRUE(report->replicas.empty());
}

}  // namespace
}  // namespace fleet
