// The one place where the agent's programs set up a JSON parser.
#include "JsonText.h"

#include <json/reader.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace agent {

namespace {
constexpr int kDeepestNesting = 32;
}

base::Result<Json::Value> ParseJson(const std::string& text, JsonRules rules) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kDeepestNesting;
    builder["failIfExtra"] = rules == JsonRules::kStrict;
    builder["rejectDupKeys"] = rules == JsonRules::kStrict;
    Json::Value root;
    std::string problem;
    try {
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        if (reader->parse(text.data(), text.data() + text.size(), &root, &problem)) return root;
    } catch (const Json::Exception& error) {  // nested deeper than the limit
        problem = error.what();
    }
    std::replace(problem.begin(), problem.end(), '\n', ' ');  // it explains itself over several lines
    return base::SentenceError(problem, base::ErrorKind::kMalformed);
}

std::string EscapeControls(const std::string& json) {
    std::string shown;
    shown.reserve(json.size());
    // They stand in texts alone: what is between those is plain ASCII.
    for (size_t at = 0; at < json.size(); ++at) {
        unsigned char byte = static_cast<unsigned char>(json[at]);
        const unsigned char next = at + 1 < json.size() ? static_cast<unsigned char>(json[at + 1]) : 0;
        const bool isPair = byte == 0xC2 && next >= 0x80 && next < 0xA0;
        if (!isPair && byte != 0x7F) {
            shown += json[at];
            continue;
        }
        if (isPair) byte = static_cast<unsigned char>(json[++at]);
        char escaped[8];
        snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned int>(byte));
        shown += escaped;
    }
    return shown;
}

}  // namespace agent
