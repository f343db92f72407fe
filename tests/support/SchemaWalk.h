// What the console prints as JSON, held to the tables of its document.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <map>
#include <regex>
#include <string>

#include "support/Files.h"

namespace support {

/// The tables of the document: type by member, by schema.
using Schemas = std::map<std::string, std::map<std::string, std::string>>;

inline Schemas ReadSchemas(const std::string& document) {
    Schemas schemas;
    std::string schema;
    for (const std::string& line : ReadLines(document)) {
        std::smatch found;
        if (std::regex_match(line, found, std::regex("### (tervanectl\\.[a-z-]+)"))) schema = found[1];
        if (std::regex_match(line, found, std::regex("\\| `([^`]+)` \\| ([a-z ]+) \\|.*\\|"))) {
            schemas[schema][found[1]] = found[2];
        }
    }
    return schemas;
}

/// What a document holds: type by member, as the tables write them.
inline void WalkSchema(const std::string& path, const Json::Value& value,
                       const std::map<std::string, std::string>& known, std::map<std::string, std::string>& seen) {
    const std::string any = path.substr(0, path.rfind('.') + 1) + "*";
    const std::string name = known.count(path) == 0 && known.count(any) != 0 ? any : path;
    const auto listed = known.find(name);
    if (value.isObject() && listed != known.end() && listed->second == "object") {
        seen[name] = "object";
    } else if (value.isObject()) {
        for (const std::string& key : value.getMemberNames())
            WalkSchema(path.empty() ? key : path + "." + key, value[key], known, seen);
    } else if (value.isArray()) {
        for (const Json::Value& entry : value) WalkSchema(path + "[]", entry, known, seen);
    } else {
        const std::string type = value.isNull()       ? "null"
                                 : value.isBool()     ? "flag"
                                 : value.isString()   ? "text"
                                 : value.isIntegral() ? "number"
                                                      : "another";
        const bool either = listed != known.end() && listed->second.find(" or ") != std::string::npos &&
                            listed->second.find(type) != std::string::npos;
        seen[name] = either ? listed->second : type;
    }
}

/// Members of lists that no document had an entry of are not missed.
inline bool CanBeAbsent(const std::string& member, const std::map<std::string, std::string>& seen) {
    const size_t list = member.rfind("[]");
    if (list == std::string::npos) return member == "values.*";
    for (const auto& [name, type] : seen) {
        if (name.compare(0, list + 2, member, 0, list + 2) == 0) return false;
    }
    return true;
}

/// Both ways: what is documented is seen with its type, and what is seen is documented.
inline void ExpectSchema(const std::string& schema, const std::map<std::string, std::string>& members,
                         const std::map<std::string, std::string>& seen) {
    for (const auto& [member, type] : members) {
        const auto found = seen.find(member);
        if (found == seen.end()) {
            EXPECT_TRUE(CanBeAbsent(member, seen)) << schema << " has no " << member;
        } else {
            EXPECT_EQ(found->second, type) << schema << " " << member;
        }
    }
    for (const auto& [member, type] : seen) EXPECT_EQ(members.count(member), 1u) << schema << " " << member;
}

}  // namespace support
