// The lines between a console's program and the one that asks the broker for it.
#include "console/ConsoleLines.h"

#include <gtest/gtest.h>

#include "console/ConsoleOptions.h"
#include "fleet/ConsoleProcess.h"
#include "support/Files.h"

namespace fleet {
namespace {

/// Returns: what is wrong with the line; empty: nothing.
std::string WrongWith(const std::string& line) {
    const ParsedRequest parsed = ParseConsoleRequest(line);
    return parsed.request ? "" : parsed.request.GetError().Text();
}

ConsoleRequest RequestIn(const std::string& line) {
    const ParsedRequest parsed = ParseConsoleRequest(line);
    EXPECT_TRUE(parsed.request.Ok()) << line << ": " << WrongWith(line);
    return parsed.request ? *parsed.request : ConsoleRequest();
}

TEST(ConsoleLinesTest, EachRequestIsReadWithItsKeys) {
    EXPECT_EQ(RequestIn(R"({"id":1,"op":"info"})").op, ConsoleOp::kInfo);
    EXPECT_EQ(RequestIn(R"({"id":1,"op":"keys","bucket":"state"})").bucket, "state");
    const ConsoleRequest history = RequestIn(R"({"id":2,"op":"history","bucket":"config","key":"group.web"})");
    EXPECT_EQ(history.op, ConsoleOp::kHistory);
    EXPECT_EQ(history.key, "group.web");
    const ConsoleRequest put =
        RequestIn(R"({"id":3,"op":"put","bucket":"config","key":"all","value":"{}","expected":7})");
    EXPECT_EQ(put.value, "{}");
    EXPECT_EQ(put.expected, 7u);
    EXPECT_EQ(put.id, 3);
    const ConsoleRequest events =
        RequestIn(R"({"id":4,"op":"events","subject":"zel.events.h1.>","since":1700000000.5,"follow":true})");
    EXPECT_EQ(events.subject, "zel.events.h1.>");
    EXPECT_EQ(events.since, 1700000000.5);
    EXPECT_TRUE(events.follow);
    EXPECT_EQ(events.stream, "EVENTS");
    EXPECT_EQ(RequestIn(R"({"id":5,"op":"stream","name":"KV_state"})").stream, "KV_state");
    EXPECT_EQ(RequestIn(R"({"id":6,"op":"cancel","target":4})").target, 4);
}

TEST(ConsoleLinesTest, AbsentKeysAreNotZero) {
    const ConsoleRequest put = RequestIn(R"({"id":3,"op":"put","bucket":"config","key":"all"})");
    EXPECT_FALSE(put.value.has_value());
    EXPECT_FALSE(put.expected.has_value());
    EXPECT_EQ(RequestIn(R"({"id":3,"op":"put","bucket":"config","key":"all","expected":0,"value":""})").expected, 0u);
    const ConsoleRequest events = RequestIn(R"({"id":4,"op":"events","subject":"zel.events.>"})");
    EXPECT_FALSE(events.since.has_value());
    EXPECT_FALSE(events.follow);
}

TEST(ConsoleLinesTest, SetupIsReadWithItsBounds) {
    const SetupWish plain = RequestIn(R"({"id":1,"op":"setup"})").setup;
    EXPECT_EQ(plain.replicas, 0);
    EXPECT_EQ(plain.maxBytes, 0);
    EXPECT_EQ(plain.maxAgeSeconds, 0);
    EXPECT_FALSE(plain.change);
    const ConsoleRequest all =
        RequestIn(R"({"id":1,"op":"setup","replicas":3,"maxBytes":1048576,"maxAge":3600,"change":true})");
    EXPECT_EQ(all.op, ConsoleOp::kSetup);
    EXPECT_EQ(all.setup.replicas, 3);
    EXPECT_EQ(all.setup.maxBytes, 1048576);
    EXPECT_EQ(all.setup.maxAgeSeconds, 3600);
    EXPECT_TRUE(all.setup.change);
    for (const char* wrong : {R"("replicas":2)", R"("replicas":4294967297)", R"("replicas":"3")",
                              R"("maxBytes":1048575)", R"("maxBytes":9223372036854775808)", R"("maxAge":3599)",
                              R"("maxAge":99999999999)", R"("change":1)", R"("name":"EVENTS")"}) {
        EXPECT_NE(WrongWith(std::string(R"({"id":1,"op":"setup",)") + wrong + "}"), "") << wrong;
    }
}

TEST(ConsoleLinesTest, WhatBecameOfEachStreamIsSaid) {
    using State = SetupReport::State;
    const std::vector<SetupReport> reports{{"EVENTS", State::kMade, {}, ""},
                                           {"KV_state", State::kDiffers, {{"history", "1", "2", "so"}}, ""},
                                           {"KV_config", State::kUnknown, {}, "silence"}};
    const Json::Value answer = JsonOf(SetupAnswer(4, reports));
    EXPECT_EQ(answer["id"].asInt(), 4);
    EXPECT_TRUE(answer["ok"].asBool());
    const Json::Value& streams = answer["streams"];
    ASSERT_EQ(streams.size(), 3u);
    EXPECT_EQ(streams[0]["name"].asString() + streams[0]["state"].asString(), "EVENTSmade");
    EXPECT_EQ(streams[0]["differences"].size(), 0u);
    EXPECT_FALSE(streams[0].isMember("error"));
    EXPECT_EQ(streams[1]["state"].asString(), "differs");
    const Json::Value& one = streams[1]["differences"][0];
    EXPECT_EQ(one["setting"].asString() + one["is"].asString() + one["should"].asString() + one["kept"].asString(),
              "history12so");
    EXPECT_EQ(streams[2]["state"].asString() + streams[2]["error"].asString(), "unknownsilence");
    EXPECT_EQ(JsonOf(SetupAnswer(4, {{"X", State::kRight, {}, ""}}))["streams"][0]["state"].asString(), "right");
    EXPECT_EQ(JsonOf(SetupAnswer(4, {{"X", State::kChanged, {}, ""}}))["streams"][0]["state"].asString(), "changed");
}

TEST(ConsoleLinesTest, WhatIsNoRequestIsRefusedWithAReason) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {"", "one JSON object"},
        {"garbage", "one JSON object"},
        {"[]", "one JSON object"},
        {R"({"id":1,"op":"info"} more)", "one JSON object"},
        {R"({"id":1,"id":2,"op":"info"})", "one JSON object"},
        {R"({"op":"info"})", "\"id\" is missing"},
        {R"({"id":0,"op":"info"})", "\"id\" has to be"},
        {R"({"id":-1,"op":"info"})", "\"id\" has to be"},
        {R"({"id":1.5,"op":"info"})", "\"id\" has to be"},
        {R"({"id":9007199254740993,"op":"info"})", "\"id\" has to be"},
        {R"({"id":"1","op":"info"})", "\"id\" has to be"},
        {R"({"id":1})", "\"op\" is missing"},
        {R"({"id":1,"op":"purge"})", "\"op\" has to be"},
        {R"({"id":1,"op":7})", "\"op\" has to be"},
        {R"({"id":1,"op":"info","more":1})", "no key \"more\""},
        {R"({"id":1,"op":"keys"})", "\"bucket\" is missing"},
        {R"({"id":1,"op":"keys","bucket":"EVENTS"})", "\"bucket\" has to be"},
        {R"({"id":1,"op":"get","bucket":"state","key":"a b"})", "\"key\" has to be"},
        {R"({"id":1,"op":"get","bucket":"state","key":">"})", "\"key\" has to be"},
        {R"({"id":1,"op":"put","bucket":"config","key":"all","value":7})", "\"value\" has to be"},
        {R"({"id":1,"op":"put","bucket":"config","key":"all","value":null})", "\"value\" has to be"},
        {R"({"id":1,"op":"put","bucket":"config","key":"all","expected":-1})", "\"expected\" has to be"},
        {R"({"id":1,"op":"put","bucket":"config","key":"all","expected":1.0})", "\"expected\" has to be"},
        {R"({"id":1,"op":"put","bucket":"config","key":"all","Expected":1})", "no key \"Expected\""},
        {R"({"id":1,"op":"events","subject":"$KV.>"})", "\"subject\" has to be"},
        {R"({"id":1,"op":"events","subject":"zel.events."})", "\"subject\" has to be"},
        {R"({"id":1,"op":"events","subject":"zel.events.>.x"})", "\"subject\" has to be"},
        {R"({"id":1,"op":"events","subject":"zel.events.a b"})", "\"subject\" has to be"},
        {R"({"id":1,"op":"events","subject":"zel.events.>","since":-1})", "\"since\" has to be"},
        {R"({"id":1,"op":"events","subject":"zel.events.>","since":1e300})", "\"since\" has to be"},
        {R"({"id":1,"op":"events","subject":"zel.events.>","follow":1})", "\"follow\" has to be"},
        {R"({"id":1,"op":"stream","name":"A.B"})", "\"name\" has to be"},
        {R"({"id":1,"op":"cancel"})", "\"target\" is missing"},
    };
    for (const auto& [line, reason] : cases) {
        EXPECT_NE(WrongWith(line).find(reason), std::string::npos) << line << " -> " << WrongWith(line);
    }
    EXPECT_NE(WrongWith(std::string(100000, '[')), "");
    EXPECT_EQ(ParseConsoleRequest(R"({"id":17,"op":"purge"})").id, 17);
}

TEST(ConsoleLinesTest, LinesAreCutAndBounded) {
    RequestLines lines;
    std::vector<RequestLines::Line> come;
    lines.Add("one\ntw", come);
    lines.Add("o\n\n", come);
    ASSERT_EQ(come.size(), 3u);
    EXPECT_EQ(come[1].text, "two");
    EXPECT_EQ(come[2].text, "");
    come.clear();
    for (int i = 0; i < 100; ++i) {
        lines.Add(std::string(10000, 'x'), come);
        EXPECT_LE(lines.Kept(), kMostRequestBytes);
    }
    lines.Add("\nafter\n", come);
    ASSERT_EQ(come.size(), 2u);
    EXPECT_TRUE(come[0].isTooLong);
    EXPECT_EQ(come[1].text, "after");
    come.clear();
    lines.Add(std::string(kMostRequestBytes, 'y') + "\nlast", come);
    lines.End(come);
    ASSERT_EQ(come.size(), 2u);
    EXPECT_EQ(come[0].text.size(), kMostRequestBytes);
    EXPECT_FALSE(come[0].isTooLong);
    EXPECT_EQ(come[1].text, "last");
}

TEST(ConsoleLinesTest, AnswersAreOneLineEach) {
    EXPECT_EQ(OkAnswer(3), "{\"id\":3,\"ok\":true}\n");
    EXPECT_EQ(ErrorAnswer(3, "no\nwords"), "{\"error\":\"no\\nwords\",\"id\":3}\n");
    EXPECT_EQ(ErrorAnswer(3, "x", "conflict"), "{\"error\":\"x\",\"id\":3,\"outcome\":\"conflict\"}\n");
    EXPECT_EQ(PutAnswer(3, 18446744073709551615u), "{\"id\":3,\"ok\":true,\"revision\":18446744073709551615}\n");
    const Json::Value item = JsonOf(KeyItem(5, {"all", 7, 1700000000123, "a\n\"\xc3\xa4", false}))["item"];
    EXPECT_EQ(item["value"].asString(), "a\n\"\xc3\xa4");
    EXPECT_EQ(item["time"].asDouble(), 1700000000.123);
    EXPECT_EQ(item["revision"].asUInt64(), 7u);
    const Json::Value event =
        JsonOf(EventLine(5, {"zel.events.h1.x", 9, 1700000000123456000, "h1/00000000000000aa-3", 1, "one\ntwo"}));
    EXPECT_EQ(event["item"]["payload"].asString(), "one\ntwo");
    EXPECT_EQ(event["item"]["first"].asInt64(), 1);
    EXPECT_NEAR(event["item"]["time"].asDouble(), 1700000000.123456, 1e-6);
    EXPECT_FALSE(JsonOf(GetAnswer(5, std::nullopt))["found"].asBool());
    EXPECT_FALSE(JsonOf(InfoAnswer(5, false, std::nullopt))["connected"].asBool());
    const Json::Value info = JsonOf(InfoAnswer(5, true, ServerInfo{"2.9.10", "lab"}));
    EXPECT_EQ(info["server"]["version"].asString(), "2.9.10");
    EXPECT_NE(info["server"]["unfit"].asString().find("2.10.27"), std::string::npos);
    EXPECT_FALSE(JsonOf(InfoAnswer(5, true, ServerInfo{"2.9.10", ""}))["server"].isMember("unfit"));
}

TEST(ConsoleLinesTest, PayloadBeyondTheLineIsLeftOut) {
    EventItem item;
    item.payload = std::string(kMostAnswerBytes / 2, 'x');
    EXPECT_FALSE(JsonOf(EventLine(1, item))["item"].isMember("cut"));
    item.payload = std::string(kMostAnswerBytes / 2, '\1');  // six letters each
    const std::string line = EventLine(1, item);
    EXPECT_LE(line.size(), kMostAnswerBytes);
    EXPECT_TRUE(JsonOf(line)["item"]["cut"].asBool());
    EXPECT_EQ(JsonOf(line)["item"]["payload"].asString(), "");
}

TEST(ConsoleLinesTest, OutcomeOfAPutSaysWhetherItMayBeStored) {
    const auto outcome = [](Answer::Outcome kind, int code, bool notPermitted, const char* text) {
        Answer answer;
        answer.outcome = kind;
        answer.code = code;
        answer.notPermitted = notPermitted;
        answer.text = text;
        return std::string(PutOutcome(answer));
    };
    using Outcome = Answer::Outcome;
    EXPECT_EQ(outcome(Outcome::kError, kCodeWrongSequence, false, ""), "conflict");
    EXPECT_EQ(outcome(Outcome::kError, kCodeStreamFull, false, ""), "refused");
    EXPECT_EQ(outcome(Outcome::kTimeout, 0, false, ""), "unknown");
    EXPECT_EQ(outcome(Outcome::kDisconnected, 0, false, ""), "unknown");
    EXPECT_EQ(outcome(Outcome::kNoResponders, 0, false, ""), "refused");
    EXPECT_EQ(outcome(Outcome::kTooLarge, 0, false, ""), "refused");
    EXPECT_EQ(outcome(Outcome::kTimeout, 0, true, "Permissions Violation for Publish to \"$KV.config.all\""),
              "refused");
    EXPECT_EQ(outcome(Outcome::kTimeout, 0, true, "Permissions Violation for Subscription to \"_INBOX.x.*\""),
              "unknown");
}

TEST(ConsoleOptionsTest, WhatItIsStartedWithIsRead) {
    const auto options = ParseConsoleOptions({"--servers", "tls://a:1,tls://b:2", "--ca", "/c", "--name", "ann"});
    ASSERT_TRUE(options.Ok()) << options.GetError().Text();
    EXPECT_EQ(options->servers, (std::vector<std::string>{"tls://a:1", "tls://b:2"}));
    EXPECT_EQ(options->caFile, "/c");
    EXPECT_EQ(options->host, "ann");
    EXPECT_EQ(options->token, "");
    const std::vector<std::vector<std::string>> wrong{{},
                                                      {"--servers", ""},
                                                      {"--servers", ","},
                                                      {"--servers"},
                                                      {"--server", "x"},
                                                      {"x"},
                                                      {"--servers", "a", "--servers", "b"},
                                                      {"--servers", "a", "--name", ""}};
    for (const auto& words : wrong) {
        EXPECT_FALSE(ParseConsoleOptions(words).Ok()) << testing::PrintToString(words);
    }
}

TEST(ConsoleOptionsTest, NameIsReadOutOfTheCredentials) {
    const std::string head = "-----BEGIN NATS USER JWT-----\n";
    // {"name":"db_5f01","nats":{}}
    const auto name = NameInCredentials(head + "e30.eyJuYW1lIjoiZGJfNWYwMSIsIm5hdHMiOnt9fQ.c2ln\n------END");
    ASSERT_TRUE(name.Ok()) << name.GetError().Text();
    EXPECT_EQ(*name, "db_5f01");
    // {"name":"a.b"}, {"name":""}, {"name":7}, not JSON
    for (const char* claims : {"eyJuYW1lIjoiYS5iIn0", "eyJuYW1lIjoiIn0", "eyJuYW1lIjo3fQ", "bm9uZQ", "", "*"}) {
        EXPECT_FALSE(NameInCredentials(head + "e30." + claims + ".c2ln\n").Ok()) << claims;
    }
    EXPECT_FALSE(NameInCredentials("").Ok());
    // Answers come to the credentials' name, whatever the console is called.
    const support::TempDir dir;
    const std::string path = dir / "me.creds";
    ASSERT_TRUE(support::WriteText(path, head + "e30.eyJuYW1lIjoiZGJfNWYwMSIsIm5hdHMiOnt9fQ.c2ln\n------END"));
    const auto own = ParseConsoleOptions({"--servers", "a", "--creds", path});
    ASSERT_TRUE(own.Ok()) << own.GetError().Text();
    EXPECT_EQ(own->host + " " + own->token, "db_5f01 db_5f01");
    const auto named = ParseConsoleOptions({"--servers", "a", "--creds", path, "--name", "ann"});
    ASSERT_TRUE(named.Ok()) << named.GetError().Text();
    EXPECT_EQ(named->host + " " + named->token, "ann db_5f01");
    ASSERT_TRUE(support::WriteText(path, "none"));
    const auto unnamed = ParseConsoleOptions({"--servers", "a", "--creds", path, "--name", "ann"});
    ASSERT_TRUE(unnamed.Ok()) << unnamed.GetError().Text();
    EXPECT_EQ(unnamed->host + " " + unnamed->token, "ann ");
    EXPECT_FALSE(ParseConsoleOptions({"--servers", "a", "--creds", path}).Ok());
    EXPECT_FALSE(NameInCredentials(head).Ok());
}

}  // namespace
}  // namespace fleet
