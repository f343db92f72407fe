// The table of configuration keys and what repeats it for readers: docs/CONFIG.md and the JSON Schema of the online
// configuration. Both are compared with the table, row by row and in both directions.
#include "platform/zel/LimitKeys.h"

#include <gmock/gmock.h>
#include <json/json.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using zel::kLimitKeys;
using zel::LimitKey;
using zel::LimitKeyKind;

namespace {

std::string ReadSource(const std::string& name) {
    std::ifstream file(std::string(ZEL_SOURCE_DIR) + "/" + name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// One row of a table of keys: | `key`, `key` | unit | range | default | ...
struct Row {
    std::string unit;
    std::string range;
    std::string byDefault;
};

/// The rows below a heading, by key. A key that stands there twice, or a row of another shape, fails the test.
std::map<std::string, Row> ReadRows(const std::string& text, const std::string& heading) {
    std::map<std::string, Row> rows;
    const size_t begin = text.find("\n## " + heading);
    EXPECT_NE(std::string::npos, begin) << heading;
    if (begin == std::string::npos) return rows;
    std::istringstream section(text.substr(begin, text.find("\n## ", begin + 1) - begin));
    bool inTable = false;
    for (std::string line; std::getline(section, line);) {
        if (line.rfind("| key | unit | range | default |", 0) == 0) inTable = true;
        if (line.empty()) inTable = false;
        if (!inTable || line.rfind("| `", 0) != 0) continue;
        std::vector<std::string> cells;
        std::istringstream row(line);
        for (std::string cell; std::getline(row, cell, '|');) cells.push_back(Trimmed(cell));
        EXPECT_LE(6U, cells.size()) << line;
        if (cells.size() < 6) continue;
        for (size_t at = 0; (at = cells[1].find('`', at)) != std::string::npos;) {
            const size_t end = cells[1].find('`', at + 1);
            const std::string key = cells[1].substr(at + 1, end - at - 1);
            EXPECT_TRUE(rows.emplace(key, Row{cells[2], cells[3], cells[4]}).second) << key << " twice";
            at = end + 1;
        }
    }
    return rows;
}

std::string RangeOf(const LimitKey& key, const char* ofSwitch) {
    if (key.kind == LimitKeyKind::kText) return "";
    if (key.kind == LimitKeyKind::kSwitch) return ofSwitch;
    return std::to_string(key.least) + ".." + std::to_string(key.most);
}

/// A default is the number, or names the key of the resource file that sets it, with the same default.
bool IsDefaultOf(const LimitKey& key, const std::string& cell) {
    if (key.kind == LimitKeyKind::kText) return cell == "empty";
    if (cell == std::to_string(key.byDefault)) return true;
    for (const LimitKey* other : kLimitKeys) {
        if (other->resourceName != nullptr && cell == "`" + std::string(other->resourceName) + "`") {
            return other->byDefault == key.byDefault && other->unit == std::string(key.unit);
        }
    }
    return false;
}

void ExpectDocumented(const LimitKey& key, const char* name, std::map<std::string, Row>& rows, const char* ofSwitch) {
    const auto row = rows.find(name);
    ASSERT_NE(rows.end(), row) << name << " is not in docs/CONFIG.md";
    EXPECT_EQ(0U, row->second.unit.rfind(key.unit, 0)) << name << ": unit " << row->second.unit;
    EXPECT_EQ(RangeOf(key, ofSwitch), row->second.range) << name;
    EXPECT_TRUE(IsDefaultOf(key, row->second.byDefault)) << name << ": default " << row->second.byDefault;
    rows.erase(row);
}

std::string Names(const std::map<std::string, Row>& rows) {
    std::string names;
    for (const auto& row : rows) names += row.first + " ";
    return names;
}

/// The schema as the table wants it.
Json::Value WantedSchema() {
    Json::Value properties(Json::objectValue);
    for (const LimitKey* key : kLimitKeys) {
        if (key->onlineName == nullptr) continue;
        Json::Value& property = properties[key->onlineName];
        property["description"] = key->unit;
        if (key->kind == LimitKeyKind::kSwitch) {
            for (const Json::Value& value : {Json::Value(0), Json::Value(1), Json::Value(false), Json::Value(true)}) {
                property["enum"].append(value);
            }
        } else {
            property["type"] = "integer";
            property["minimum"] = Json::Int64(key->least);
            property["maximum"] = Json::Int64(key->most);
        }
        property["default"] = Json::Int64(key->byDefault);
    }
    Json::Value schema(Json::objectValue);
    schema["$schema"] = "https://json-schema.org/draft/2020-12/schema";
    schema["title"] = "Online configuration";
    schema["description"] = "Members whose name begins with _ are remarks. Numbers are written without a fraction.";
    schema["type"] = "object";
    schema["patternProperties"]["^_"] = Json::Value(Json::objectValue);
    schema["additionalProperties"] = false;
    schema["properties"] = properties;
    return schema;
}

}  // namespace

TEST(LimitKeysTest, EveryKeyIsThereOnceAndItsDefaultIsInRange) {
    std::set<std::string> resourceNames;
    std::set<std::string> onlineNames;
    for (const LimitKey* key : kLimitKeys) {
        ASSERT_TRUE(key->resourceName != nullptr || key->onlineName != nullptr);
        EXPECT_TRUE(key->resourceName == nullptr || resourceNames.insert(key->resourceName).second);
        EXPECT_TRUE(key->onlineName == nullptr || onlineNames.insert(key->onlineName).second);
        EXPECT_LE(key->least, key->byDefault);
        EXPECT_GE(key->most, key->byDefault);
        if (key->kind == LimitKeyKind::kNumber) continue;
        EXPECT_EQ(0, key->least);
        EXPECT_EQ(key->kind == LimitKeyKind::kSwitch ? 1 : 0, key->most);
    }
    EXPECT_EQ(14U, resourceNames.size());
    EXPECT_EQ(16U, onlineNames.size());
}

TEST(LimitKeysTest, DocumentedResourceFileKeysAreTheTables) {
    auto rows = ReadRows(ReadSource("docs/CONFIG.md"), "Resource file");
    for (const LimitKey* key : kLimitKeys) {
        if (key->resourceName != nullptr) ExpectDocumented(*key, key->resourceName, rows, "0, 1");
    }
    EXPECT_EQ("", Names(rows)) << "documented, but no keys of the table";
}

TEST(LimitKeysTest, DocumentedOnlineKeysAreTheTables) {
    auto rows = ReadRows(ReadSource("docs/CONFIG.md"), "Online configuration");
    for (const LimitKey* key : kLimitKeys) {
        if (key->onlineName != nullptr) ExpectDocumented(*key, key->onlineName, rows, "0, 1, false, true");
    }
    EXPECT_EQ("", Names(rows)) << "documented, but no keys of the table";
}

TEST(LimitKeysTest, SchemaOfTheOnlineConfigurationIsTheTables) {
    Json::Value shipped;
    ASSERT_TRUE(Json::Reader().parse(ReadSource("agent/conf/online_config.schema.json"), shipped, false));
    EXPECT_EQ(WantedSchema().toStyledString(), shipped.toStyledString());
}
