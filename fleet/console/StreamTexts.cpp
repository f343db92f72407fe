// Texts of the broker's own interface for streams.
#include "console/StreamTexts.h"

#include <json/json.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <memory>
#include <vector>

#include "base/TextScan.h"

namespace fleet {
namespace {

constexpr int kDeepest = 32;
// A reader whose output is not taken is not forgotten sooner.
constexpr int64_t kForgottenAfterNs = 300LL * 1000000000;
constexpr double kNsInSecond = 1e9;

std::string CompactText(const Json::Value& root) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, root);
}

base::Error NotAnAnswer() {
    return base::SentenceError("the broker's answer is not understood", base::ErrorKind::kMalformed);
}

/// Returns: the object, unless it says what is wrong.
base::Result<Json::Value> AnswerOf(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kDeepest;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr)) return NotAnAnswer();
    } catch (const Json::Exception&) {
        return NotAnAnswer();
    }
    if (!root.isObject()) return NotAnAnswer();
    const Json::Value& error = root["error"];
    if (!error.isObject()) return root;
    const Json::Value& words = error["description"];
    return base::SentenceError(words.isString() ? words.asString() : "the broker refuses it",
                               base::ErrorKind::kRefused);
}

uint64_t Count(const Json::Value& of, const char* name) {
    const Json::Value& value = of.isObject() ? of[name] : Json::Value::nullSingleton();
    return value.isUInt64() && value.type() != Json::realValue ? value.asUInt64() : 0;
}

int64_t Bound(const Json::Value& of, const char* name) {
    const Json::Value& value = of[name];
    return value.isInt64() && value.type() != Json::realValue && value.asInt64() > 0 ? value.asInt64() : -1;
}

std::string Word(const Json::Value& of, const char* name) {
    const Json::Value& value = of.isObject() ? of[name] : Json::Value::nullSingleton();
    return value.isString() ? value.asString() : "";
}

bool Truth(const Json::Value& of, const char* name) {
    return of[name].isBool() && of[name].asBool();
}

void DescribeCluster(const Json::Value& cluster, StreamReport& report) {
    if (!cluster.isObject()) return;
    report.leader = Word(cluster, "leader");
    if (!cluster["replicas"].isArray()) return;
    for (const Json::Value& one : cluster["replicas"]) {
        if (!one.isObject()) continue;
        report.replicas.push_back({Word(one, "name"), Truth(one, "current"), Truth(one, "offline"), Count(one, "lag")});
    }
}

}  // namespace

std::string FormatTime(double seconds) {
    double whole = std::floor(seconds);
    auto nanos = static_cast<int64_t>((seconds - whole) * kNsInSecond);
    if (nanos > 999999999) nanos = 999999999;
    const auto at = static_cast<time_t>(whole);
    std::tm parts{};
    gmtime_r(&at, &parts);
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%09lldZ", parts.tm_year + 1900, parts.tm_mon + 1,
             parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<long long>(nanos));
    return text;
}

std::optional<double> ParseTime(const std::string& text) {
    std::tm parts{};
    int length = 0;
    const int found = sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                             &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &length);
    const auto isIn = [](int value, int least, int most) { return value >= least && value <= most; };
    const bool isDay = isIn(parts.tm_year, 1, 9999) && isIn(parts.tm_mon, 1, 12) && isIn(parts.tm_mday, 1, 31);
    const bool isTime = isIn(parts.tm_hour, 0, 23) && isIn(parts.tm_min, 0, 59) && isIn(parts.tm_sec, 0, 60);
    if (found != 6 || !isDay || !isTime) return std::nullopt;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    auto seconds = static_cast<double>(timegm(&parts));
    auto at = static_cast<size_t>(length);
    double unit = 1;
    if (at < text.size() && text[at] == '.') {
        for (++at; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
            unit /= 10;
            seconds += unit * (text[at] - '0');
        }
    }
    if (at + 1 != text.size() || text[at] != 'Z') return std::nullopt;
    return seconds;
}

std::string ConsumerRequest(const std::string& stream, const std::string& filter, const ReadFrom& from) {
    Json::Value root;
    root["stream_name"] = stream;
    Json::Value& config = root["config"];
    config["ack_policy"] = "none";
    config["replay_policy"] = "instant";
    config["filter_subject"] = filter;
    config["inactive_threshold"] = Json::Int64(kForgottenAfterNs);
    config["num_replicas"] = 1;
    config["mem_storage"] = true;
    switch (from.kind) {
        case ReadFrom::Kind::kFirst: config["deliver_policy"] = "all"; break;
        case ReadFrom::Kind::kLastOfEach: config["deliver_policy"] = "last_per_subject"; break;
        case ReadFrom::Kind::kTime:
            config["deliver_policy"] = "by_start_time";
            config["opt_start_time"] = FormatTime(from.time);
            break;
        case ReadFrom::Kind::kSequence:
            config["deliver_policy"] = "by_start_sequence";
            config["opt_start_seq"] = Json::UInt64(from.sequence);
            break;
    }
    return CompactText(root);
}

base::Result<MadeConsumer> ParseMadeConsumer(const std::string& answer) {
    const auto root = AnswerOf(answer);
    if (!root) return root.GetError();
    MadeConsumer made{Word(*root, "name"), Count(*root, "num_pending"), ParseTime(Word(*root, "created")).value_or(0)};
    if (made.name.empty()) return NotAnAnswer();
    return made;
}

std::string PullRequest(int count, size_t mostBytes, int64_t waitMs) {
    Json::Value root;
    root["batch"] = count;
    root["expires"] = Json::Int64(waitMs * 1000000);
    if (mostBytes > 0) root["max_bytes"] = Json::UInt64(mostBytes);
    return CompactText(root);
}

std::optional<Delivery> ParseDelivery(std::string_view subject) {
    // $JS.ACK.<stream>.<consumer>.<times>.<in stream>.<to consumer>.<time>.<pending>; newer brokers name their domain
    // and account before the stream, and may end with one more.
    constexpr size_t kShort = 9, kLong = 11, kMost = 12;
    std::vector<std::string_view> parts;
    while (!subject.empty() && parts.size() <= kMost) parts.push_back(base::NextPiece(subject, '.'));
    if (parts.size() < kShort || parts.size() == kShort + 1 || parts.size() > kMost) return std::nullopt;
    if (parts[0] != "$JS" || parts[1] != "ACK") return std::nullopt;
    const size_t at = parts.size() == kShort ? 5 : 5 + kLong - kShort;
    const auto inStream = base::ParseUnsigned(parts[at]), toConsumer = base::ParseUnsigned(parts[at + 1]);
    const auto time = base::ParseUnsigned(parts[at + 2]), pending = base::ParseUnsigned(parts[at + 3]);
    if (!inStream || !toConsumer || !time || !pending) return std::nullopt;
    if (*time > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
    return Delivery{*inStream, *toConsumer, static_cast<int64_t>(*time), *pending};
}

base::Result<StreamReport> ParseStreamReport(const std::string& answer) {
    const auto root = AnswerOf(answer);
    if (!root) return root.GetError();
    const Json::Value& state = (*root)["state"];
    const Json::Value& config = (*root)["config"];
    if (!state.isObject() || !config.isObject()) return NotAnAnswer();
    StreamReport report;
    report.messages = Count(state, "messages");
    report.bytes = Count(state, "bytes");
    report.firstSequence = Count(state, "first_seq");
    report.lastSequence = Count(state, "last_seq");
    report.subjects = Count(state, "num_subjects");
    if (report.messages > 0) {
        report.firstTime = ParseTime(Word(state, "first_ts")).value_or(0);
        report.lastTime = ParseTime(Word(state, "last_ts")).value_or(0);
    }
    report.maxBytes = Bound(config, "max_bytes");
    report.discard = Word(config, "discard");
    report.maxMessages = Bound(config, "max_msgs");
    const int64_t age = Bound(config, "max_age");
    report.maxAgeSeconds = age > 0 ? static_cast<double>(age) / kNsInSecond : 0;
    report.created = Word(*root, "created");
    DescribeCluster((*root)["cluster"], report);
    return report;
}

}  // namespace fleet
