// Observe mode as the agent tells of it: orders in words, messages, and a self-kill that is only noted.
#include "ObserveMode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "EventSink.h"
#include "JsonText.h"
#include "platform/zel/AgentNames.h"

using namespace agent;
using testing::HasSubstr;

namespace {

class ObserveModeTest : public testing::Test {
protected:
    ObserveModeTest() { Forget(); }
    ~ObserveModeTest() override { Forget(); }
    static void Forget() {
        zel::ObserveLimits(zel::ObservationOrder::kAgent, 0);
        zel::ObserveLimits(zel::ObservationOrder::kOnlineConfig, 0);
    }
    static SelfKillRecord Record(ResourceKind kind) {
        SelfKillRecord record;
        record.kind = kind;
        record.value = 900;
        record.limit = 500;
        return record;
    }
};

TEST_F(ObserveModeTest, SaysWhichLimitsAndByWhoseOrder) {
    EXPECT_EQ("", DescribeObservation());
    ObserveMode byLine(true, false, 5);
    byLine.Order(false);
    EXPECT_EQ("CPU and memory (by --observe)", DescribeObservation());
    ObserveMode byFile(false, false, 5);
    byFile.Order(true);
    EXPECT_EQ("CPU and memory (by observe in conf/agent.json)", DescribeObservation());
    byFile.Order(true, true);
    EXPECT_EQ("CPU and memory (by conf/agent.json, which is refused)", DescribeObservation());
    byFile.Order(false);
    zel::ObserveLimits(zel::ObservationOrder::kOnlineConfig, zel::kModeMemory);
    EXPECT_EQ("memory (by observedLimits in the online configuration)", DescribeObservation());
    byFile.Order(true);
    EXPECT_EQ("CPU and memory (by observe in conf/agent.json and observedLimits in the online configuration)",
              DescribeObservation());
    byFile.Order(false);
    EXPECT_EQ(zel::kModeMemory, zel::ObservedLimits()) << "one order does not take back another's";
}

TEST_F(ObserveModeTest, ASelfKillForAnObservedLimitIsOnlyNoted) {
    EventSink sink("QorNet", [] {});
    zel::ObserveLimits(zel::ObservationOrder::kAgent, zel::kModeMemory);
    sink.OnSelfKill(Record(ResourceKind::kMemory));
    sink.OnSelfKill(Record(ResourceKind::kMemory));
    EXPECT_FALSE(sink.SelfKillRequested());
    EXPECT_EQ(1u, sink.WouldEnd()) << "asked for again, told once an hour";
    SelfKillRecord asked = Record(ResourceKind::kCpu);
    asked.json = "{}";
    sink.OnSelfKill(asked);
    EXPECT_TRUE(sink.SelfKillRequested()) << "the other limit is in force";
    EXPECT_EQ(1u, sink.WouldEnd());
}

TEST_F(ObserveModeTest, NobodyEndsWithoutARecordWhateverIsOrdered) {
    EventSink sink("QorNet", [] {});
    sink.OnSelfKill(Record(ResourceKind::kMemory));
    EXPECT_FALSE(sink.SelfKillRequested()) << "it was judged while the limit was only observed";
    EXPECT_EQ(1u, sink.WouldEnd());
}

TEST_F(ObserveModeTest, MessagesHaveWhatTheyAreAbout) {
    const base::Result<Json::Value> kill =
        ParseJson(FormatWouldKill({"g/QorNet", "QorNet", 7, 2048, 1024}, 1700000000));
    ASSERT_TRUE(kill);
    EXPECT_EQ("g/QorNet", (*kill)["group"].asString());
    EXPECT_EQ("QorNet", (*kill)["component"].asString());
    EXPECT_EQ(2048, (*kill)["value"].asInt64());
    EXPECT_EQ(1024, (*kill)["limit"].asInt64());
    EXPECT_EQ("kernel", (*kill)["by"].asString());
    EXPECT_EQ(7, (*kill)["pid"].asInt());
    const base::Result<Json::Value> order = ParseJson(FormatObservation(5, 4, "--observe", 1700000000));
    ASSERT_TRUE(order);
    EXPECT_EQ(5, (*order)["limits"].asInt());
    EXPECT_EQ(4, (*order)["in_force"].asInt());
    EXPECT_EQ("--observe", (*order)["order"].asString());
    EXPECT_EQ(1700000000, (*order)["detect_time"].asInt64());
}

}  // namespace
