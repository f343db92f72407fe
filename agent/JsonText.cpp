// The one place where the agent's programs set up a JSON parser.
#include "JsonText.h"

#include <json/reader.h>

#include <algorithm>
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

}  // namespace agent
