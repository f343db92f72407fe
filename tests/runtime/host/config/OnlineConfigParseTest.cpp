// The reading of the online configuration's text.
#include "config/OnlineConfigParse.h"

#include "HostSupport.h"

using zelhost::OnlineRefusal;
using zelhost::ParseOnlineConfig;

namespace {
size_t At(const std::string& name) {
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        if (name == zelhost::OnlineKeys()[i].name) return i;
    }
    return zelhost::kOnlineKeyCount;
}
}  // namespace

TEST(OnlineConfigParseTest, TakesEveryKeyAtBothEndsOfItsRange) {
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        const auto& key = zelhost::OnlineKeys()[i];
        for (long value : {key.least, key.most}) {
            std::map<size_t, long> values;
            OnlineRefusal refusal;
            const std::string text = "{\"" + std::string(key.name) + "\":" + std::to_string(value) + "}";
            ASSERT_TRUE(ParseOnlineConfig(text, values, refusal)) << text << refusal.Text();
            EXPECT_EQ(values, (std::map<size_t, long>{{i, value}})) << text;
        }
        for (const std::string& value : {std::to_string(key.least - 1), std::to_string(key.most + 1)}) {
            std::map<size_t, long> values{{3, 7}};
            OnlineRefusal refusal;
            EXPECT_FALSE(ParseOnlineConfig("{\"" + std::string(key.name) + "\":" + value + "}", values, refusal));
            EXPECT_EQ(refusal.key, key.name);
            EXPECT_EQ(refusal.value, value);
            EXPECT_THAT(refusal.reason, testing::StartsWith("outside "));
            EXPECT_EQ(values, (std::map<size_t, long>{{3, 7}}));
        }
    }
}

TEST(OnlineConfigParseTest, DefaultsLieInsideTheRanges) {
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        const auto& key = zelhost::OnlineKeys()[i];
        EXPECT_LE(key.least, key.byDefault) << key.name;
        EXPECT_GE(key.most, key.byDefault) << key.name;
    }
}

TEST(OnlineConfigParseTest, TakesSwitchesAsWordsAndRemarks) {
    std::map<size_t, long> values;
    OnlineRefusal refusal;
    ASSERT_TRUE(ParseOnlineConfig("{\"_remark\":[1,{}],\"cpuLimitEnabled\":false,\"cpuAll\":true}", values, refusal));
    EXPECT_EQ(values, (std::map<size_t, long>{{At("cpuLimitEnabled"), 0}, {At("cpuAll"), 1}}));
}

TEST(OnlineConfigParseTest, RefusesWholeWhatIsPartlyWrong) {
    const struct {
        std::string text, refusal;
    } cases[] = {
        {"{\"maxCpu\":20,\"maxCPU\":30}", "key 'maxCPU', value 30: there is no such key"},
        {"{\"maxCpu\":20,\"maxMemory\":\"300\"}", "key 'maxMemory', value \"300\": a whole number is wanted"},
        {"{\"maxCpu\":20.5}", "key 'maxCpu', value 20.5: a whole number is wanted"},
        {"{\"maxCpu\":true}", "key 'maxCpu', value true: a number is wanted"},
        {"{\"maxCpu\":null}", "key 'maxCpu', value null: a whole number is wanted"},
        {"{\"maxCpu\":{}}", "key 'maxCpu', value {}: a whole number is wanted"},
        {"{\"maxCpu\":-1}", "key 'maxCpu', value -1: outside 0..10000 percent"},
        {"{\"maxCpu\":18446744073709551615}", "key 'maxCpu', value 18446744073709551615: outside 0..10000 percent"},
    };
    for (const auto& c : cases) {
        std::map<size_t, long> values{{1, 1}};
        OnlineRefusal refusal;
        EXPECT_FALSE(ParseOnlineConfig(c.text, values, refusal)) << c.text;
        EXPECT_EQ(refusal.Text(), c.refusal) << c.text;
        EXPECT_EQ(values, (std::map<size_t, long>{{1, 1}})) << c.text;
    }
}

TEST(OnlineConfigParseTest, RefusesWhatIsNoObject) {
    std::string deep;
    for (int i = 0; i < 5000; ++i) deep += "{\"a\":";
    const std::string cases[] = {"",
                                 " ",
                                 "[]",
                                 "1",
                                 "\"x\"",
                                 "{",
                                 "{}{}",
                                 "{,}",
                                 "null",
                                 "{\"maxCpu\":1,\"maxCpu\":2}",
                                 "{\"maxCpu\":0x1}",
                                 "{'maxCpu':1}",
                                 std::string("{\0}", 3),
                                 deep,
                                 std::string(4000, '['),
                                 "\xff\xfe{\"maxCpu\":1}",
                                 "{\"maxCpu\":1e400}",
                                 "{}" + std::string(70000, ' ')};
    for (const std::string& text : cases) {
        std::map<size_t, long> values{{1, 1}};
        OnlineRefusal refusal;
        EXPECT_FALSE(ParseOnlineConfig(text, values, refusal)) << text.substr(0, 40);
        EXPECT_FALSE(refusal.reason.empty());
        EXPECT_EQ(refusal.Text().find('\n'), std::string::npos) << "one log line";
        EXPECT_EQ(values, (std::map<size_t, long>{{1, 1}}));
    }
}

TEST(OnlineConfigParseTest, AnEmptyObjectHoldsNoValue) {
    std::map<size_t, long> values{{1, 1}};
    OnlineRefusal refusal;
    EXPECT_TRUE(ParseOnlineConfig("{}", values, refusal));
    EXPECT_TRUE(values.empty());
}

TEST(OnlineConfigParseTest, ALongHostileValueIsCutInTheReason) {
    std::map<size_t, long> values;
    OnlineRefusal refusal;
    EXPECT_FALSE(ParseOnlineConfig("{\"maxCpu\":\"" + std::string(5000, 'x') + "\"}", values, refusal));
    EXPECT_LT(refusal.Text().size(), 200u);
    EXPECT_FALSE(ParseOnlineConfig("{\"" + std::string(5000, '\x7f') + "\":1}", values, refusal));
    EXPECT_LT(refusal.Text().size(), 200u);
}
