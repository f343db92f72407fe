// Which broker may be used: its greeting, its version, its address.
#include "broker/ServerInfo.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace fleet {
namespace {

TEST(ServerInfoTest, GreetingNamesVersionAndCluster) {
    const auto alone = ParseServerInfo("INFO {\"server_id\":\"X\",\"version\":\"2.9.10\",\"max_payload\":1048576} \r");
    ASSERT_TRUE(alone.Ok());
    EXPECT_EQ(alone->version, "2.9.10");
    EXPECT_EQ(alone->cluster, "");
    const auto one = ParseServerInfo("INFO {\"version\":\"2.10.27\",\"cluster\":\"lab\"}");
    ASSERT_TRUE(one.Ok());
    EXPECT_EQ(one->cluster, "lab");
}

TEST(ServerInfoTest, WhatIsNoGreetingIsRefused) {
    for (const std::string& line :
         {std::string(), std::string("INFO"), std::string("INFO "), std::string("INFO {"), std::string("INFO []"),
          std::string("INFO {}"), std::string("INFO {\"version\":2}"), std::string("PING"),
          std::string("info {\"version\":\"2.9.10\"}"), std::string("SSH-2.0-x"), "INFO " + std::string(5000, '['),
          std::string("INFO {\"version\":\"2.9.10\"} x")}) {
        EXPECT_FALSE(ParseServerInfo(line).Ok()) << line.substr(0, 40);
    }
}

TEST(ServerInfoTest, ReplicasNeedANewerBrokerThanASingleNode) {
    const std::vector<std::pair<const char*, int>> cases{
        // 0: neither, 1: alone, 2: in a cluster as well
        {"2.8.4", 0},    {"1.99.99", 0},     {"2.9.0", 1},          {"2.9.10", 1},
        {"2.10.26", 1},  {"2.10.9", 1},      {"2.10.27", 2},        {"2.10.100", 2},
        {"2.11.0", 2},   {"2.11.0-RC.1", 2}, {"3.0.0", 2},          {"10.0.0", 2},
        {"", 0},         {"2", 0},           {"2.10", 0},           {"2.10.", 0},
        {"2.10.27x", 0}, {"two", 0},         {"99999999999.0.0", 0}};
    for (const auto& one : cases) {
        EXPECT_EQ(JudgeServer({one.first, ""}).Ok(), one.second >= 1) << one.first;
        EXPECT_EQ(JudgeServer({one.first, "lab"}).Ok(), one.second >= 2) << one.first;
    }
}

TEST(ServerInfoTest, RefusalNamesVersionClusterAndRemedy) {
    const base::Status status = JudgeServer({"2.9.10", "lab"});
    ASSERT_FALSE(status.Ok());
    EXPECT_EQ(status.GetError().kind, base::ErrorKind::kRefused);
    EXPECT_EQ(status.GetError().Text(),
              "the broker is version 2.9.10 in the cluster 'lab': replicas may differ silently before 2.10.27; "
              "update it, or use a single node");
}

TEST(ServerInfoTest, AddressIsFoundInEveryUrl) {
    const std::vector<std::vector<std::string>> cases{{"nats://127.0.0.1:14222", "127.0.0.1", "14222"},
                                                      {"tls://h1:p@w@broker.example:4443", "broker.example", "4443"},
                                                      {"broker", "broker", "4222"},
                                                      {"nats://broker/", "broker", "4222"},
                                                      {"nats://[::1]:99", "::1", "99"},
                                                      {"nats://[::1]", "::1", "4222"},
                                                      {"[::1", "", ""},
                                                      {"", "", "4222"}};
    for (const auto& one : cases) {
        const ServerPlace place = PlaceOf(one[0]);
        EXPECT_EQ(place.host, one[1]) << one[0];
        EXPECT_EQ(place.port, one[2]) << one[0];
    }
}

}  // namespace
}  // namespace fleet
