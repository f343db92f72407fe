// The reading of the online configuration's text.
#include "config/OnlineConfigParse.h"

#include "HostSupport.h"

using zelhost::OnlineValues;
using zelhost::ParseOnlineConfig;

namespace {
size_t At(const std::string& name) {
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        if (name == zelhost::OnlineKeys()[i].name) return i;
    }
    return zelhost::kOnlineKeyCount;
}

OnlineValues Taken(const std::string& text) {
    const auto values = ParseOnlineConfig(text);
    if (values) return *values;
    ADD_FAILURE() << text << values.GetError().Text();
    return {};
}

/// Empty when the text was taken.
std::string Refusal(const std::string& text) {
    const auto values = ParseOnlineConfig(text);
    return values ? "" : values.GetError().Text();
}
}  // namespace

TEST(OnlineConfigParseTest, TakesEveryKeyAtBothEndsOfItsRange) {
    for (size_t i = 0; i < zelhost::kOnlineKeyCount; ++i) {
        const auto& key = zelhost::OnlineKeys()[i];
        const std::string begin = "{\"" + std::string(key.name) + "\":";
        for (long value : {key.least, key.most}) {
            EXPECT_EQ(Taken(begin + std::to_string(value) + "}"), (OnlineValues{{i, value}})) << key.name;
        }
        for (const std::string& value : {std::to_string(key.least - 1), std::to_string(key.most + 1)}) {
            EXPECT_THAT(Refusal(begin + value + "}"),
                        testing::StartsWith("key '" + std::string(key.name) + "', value " + value + ": outside "));
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
    EXPECT_EQ(Taken("{\"_remark\":[1,{}],\"cpuLimitEnabled\":false,\"cpuAll\":true}"),
              (OnlineValues{{At("cpuLimitEnabled"), 0}, {At("cpuAll"), 1}}));
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
    for (const auto& c : cases) EXPECT_EQ(Refusal(c.text), c.refusal) << c.text;
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
        const std::string refusal = Refusal(text);
        EXPECT_FALSE(refusal.empty()) << text.substr(0, 40);
        EXPECT_EQ(refusal.find('\n'), std::string::npos) << "one log line";
    }
}

TEST(OnlineConfigParseTest, AnEmptyObjectHoldsNoValue) {
    EXPECT_EQ(Taken("{}"), OnlineValues{});
}

TEST(OnlineConfigParseTest, ALongHostileValueIsCutInTheReason) {
    for (const std::string& text :
         {"{\"maxCpu\":\"" + std::string(5000, 'x') + "\"}", "{\"" + std::string(5000, '\x7f') + "\":1}"}) {
        const std::string refusal = Refusal(text);
        EXPECT_FALSE(refusal.empty());
        EXPECT_LT(refusal.size(), 200u);
    }
}
