// Lines of the console's protocol.
#include "console/ConsoleLines.h"

#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>

namespace fleet {
namespace {

constexpr int kDeepest = 8;
constexpr size_t kMostNameBytes = 512;
constexpr int64_t kLargestId = int64_t{1} << 53;  // what every JSON reader tells apart
constexpr double kLatestTime = 253402300799.0;    // the last second of the year 9999
constexpr size_t kMostShownBytes = 64;
constexpr uint64_t kLeastBytes = 1 << 20;  // of a stream: its longest message fits
constexpr uint64_t kMostBytes = uint64_t{1} << 60;
constexpr uint64_t kLeastAgeSeconds = 3600;
constexpr uint64_t kMostAgeSeconds = uint64_t{36500} * 86400;
constexpr char kEvents[] = "zel.events.";

base::Error Wrong(const std::string& sentence) {
    return base::SentenceError(sentence, base::ErrorKind::kMalformed);
}

std::string Shown(const std::string& text) {
    return "\"" + text.substr(0, kMostShownBytes) + "\"";
}

bool IsNameLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool IsName(const std::string& text) {
    return !text.empty() && text.size() <= kMostNameBytes && std::all_of(text.begin(), text.end(), IsNameLetter);
}

/// Whether it names events: tokens, "*" for any one, ">" at the end for all that follow.
bool IsEventSubject(const std::string& text) {
    if (text.compare(0, sizeof(kEvents) - 1, kEvents) != 0 || text.size() > kMostNameBytes) return false;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find('.', begin), text.size());
        const std::string token = text.substr(begin, end - begin);
        const bool isRest = token == ">" && end == text.size();
        if (!isRest && token != "*" && !IsName(token)) return false;
        begin = end + 1;
    }
    return true;
}

/// Takes the keys of one request, each once; what is left at the end nobody knows.
class Fields {
public:
    explicit Fields(const Json::Value& root) : m_root(root) {}

    std::string Text(const char* name, bool isNeeded, const std::string& otherwise = "") {
        const Json::Value* value = Take(name, isNeeded);
        if (value == nullptr) return otherwise;
        if (!value->isString()) return Fail(name, "a text"), "";
        return value->asString();
    }
    std::optional<uint64_t> Number(const char* name, bool isNeeded) {
        const Json::Value* value = Take(name, isNeeded);
        if (value == nullptr) return std::nullopt;
        if (!value->isUInt64() || value->type() == Json::realValue) return Fail(name, "a whole number"), std::nullopt;
        return value->asUInt64();
    }
    std::optional<double> Time(const char* name) {
        const Json::Value* value = Take(name, false);
        if (value == nullptr) return std::nullopt;
        const double time = value->isNumeric() ? value->asDouble() : -1;
        if (!(time >= 0 && time <= kLatestTime)) return Fail(name, "seconds since the epoch"), std::nullopt;
        return time;
    }
    bool Switch(const char* name) {
        const Json::Value* value = Take(name, false);
        if (value != nullptr && !value->isBool()) Fail(name, "true or false");
        return value != nullptr && value->isBool() && value->asBool();
    }
    bool Has(const char* name) const { return m_root.isMember(name); }
    void Fail(const char* name, const char* what) {
        if (m_error.empty()) m_error = std::string("\"") + name + "\" has to be " + what;
    }
    /// Returns: what is wrong first; empty: nothing.
    std::string End() {
        if (!m_error.empty() || m_taken == m_root.size()) return m_error;
        for (const std::string& name : m_root.getMemberNames()) {
            if (m_names.find(" " + name + " ") == std::string::npos) return "there is no key " + Shown(name) + " here";
        }
        return "a key has no place here";
    }

private:
    const Json::Value* Take(const char* name, bool isNeeded) {
        const Json::Value* value = m_root.find(name, name + std::char_traits<char>::length(name));
        if (value == nullptr && isNeeded && m_error.empty()) m_error = std::string("\"") + name + "\" is missing";
        if (value == nullptr) return nullptr;
        ++m_taken;
        m_names += std::string(" ") + name + " ";
        return value;
    }

    const Json::Value& m_root;
    std::string m_error;
    std::string m_names;
    Json::ArrayIndex m_taken = 0;
};

void TakeBucket(Fields& fields, ConsoleRequest& request) {
    request.bucket = fields.Text("bucket", true);
    if (request.bucket != kStateBucket && request.bucket != kConfigBucket) fields.Fail("bucket", "state or config");
}

void TakeKey(Fields& fields, ConsoleRequest& request) {
    TakeBucket(fields, request);
    request.key = fields.Text("key", true);
    if (!IsKey(request.key) || request.key.size() > kMostNameBytes) {
        fields.Fail("key", "1 to 512 letters, digits and - _ = . /");
    }
}

void TakePut(Fields& fields, ConsoleRequest& request) {
    TakeKey(fields, request);
    if (fields.Has("value")) request.value = fields.Text("value", true);
    request.expected = fields.Number("expected", false);
}

void TakeStream(Fields& fields, ConsoleRequest& request, const char* name) {
    request.stream = fields.Text(name, false, "EVENTS");
    if (!IsName(request.stream)) fields.Fail(name, "the name of a stream");
}

void TakeEvents(Fields& fields, ConsoleRequest& request) {
    request.subject = fields.Text("subject", true);
    if (!IsEventSubject(request.subject)) fields.Fail("subject", "one of events, as zel.events.>");
    TakeStream(fields, request, "stream");
    request.since = fields.Time("since");
    request.follow = fields.Switch("follow");
}

void TakeTarget(Fields& fields, ConsoleRequest& request) {
    request.target = static_cast<int64_t>(std::min(fields.Number("target", true).value_or(0), uint64_t{1} << 62));
}

void TakeSetup(Fields& fields, ConsoleRequest& request) {
    SetupWish& wish = request.setup;
    const uint64_t replicas = fields.Number("replicas", false).value_or(0);
    if (replicas != 0 && replicas != 1 && replicas != 3) fields.Fail("replicas", "1 or 3");
    const uint64_t bytes = fields.Number("maxBytes", false).value_or(kLeastBytes);
    if (bytes < kLeastBytes || bytes > kMostBytes) fields.Fail("maxBytes", "bytes, a megabyte at least");
    const uint64_t age = fields.Number("maxAge", false).value_or(kLeastAgeSeconds);
    if (age < kLeastAgeSeconds || age > kMostAgeSeconds) fields.Fail("maxAge", "seconds, an hour to a hundred years");
    wish.replicas = static_cast<int>(replicas == 3 ? 3 : replicas == 1 ? 1 : 0);
    wish.maxBytes = fields.Has("maxBytes") ? static_cast<int64_t>(std::min(bytes, kMostBytes)) : 0;
    wish.maxAgeSeconds = fields.Has("maxAge") ? static_cast<int64_t>(std::min(age, kMostAgeSeconds)) : 0;
    wish.change = fields.Switch("change");
}

using Taker = void (*)(Fields&, ConsoleRequest&);
struct Operation {
    ConsoleOp op;
    Taker take;
};

const std::map<std::string, Operation>& Operations() {
    static const std::map<std::string, Operation> all{
        {"info", {ConsoleOp::kInfo, [](Fields&, ConsoleRequest&) {}}},
        {"keys", {ConsoleOp::kKeys, TakeBucket}},
        {"history", {ConsoleOp::kHistory, TakeKey}},
        {"get", {ConsoleOp::kGet, TakeKey}},
        {"put", {ConsoleOp::kPut, TakePut}},
        {"events", {ConsoleOp::kEvents, TakeEvents}},
        {"stream", {ConsoleOp::kStream, [](Fields& fields, ConsoleRequest& to) { TakeStream(fields, to, "name"); }}},
        {"setup", {ConsoleOp::kSetup, TakeSetup}},
        {"cancel", {ConsoleOp::kCancel, TakeTarget}}};
    return all;
}

base::Result<ConsoleRequest> RequestOf(const Json::Value& root, int64_t id) {
    Fields fields(root);
    ConsoleRequest request;
    request.id = id;
    fields.Number("id", true);
    if (id == 0) fields.Fail("id", "a whole number from 1 on");
    const std::string op = fields.Text("op", true);
    const auto found = Operations().find(op);
    if (fields.Has("op") && found == Operations().end()) fields.Fail("op", "one that is known");
    if (found != Operations().end()) {
        request.op = found->second.op;
        found->second.take(fields, request);
    }
    const std::string wrong = fields.End();
    if (!wrong.empty()) return Wrong(wrong);
    return request;
}

int64_t IdOf(const Json::Value& root) {
    const Json::Value& id = root["id"];
    const bool isId = id.isInt64() && id.type() != Json::realValue && id.asInt64() >= 1 && id.asInt64() <= kLargestId;
    return isId ? id.asInt64() : 0;
}

std::string LineOf(const Json::Value& root) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 6;
    builder["precisionType"] = "decimal";
    return Json::writeString(builder, root) + "\n";
}

Json::Value Head(int64_t id) {
    Json::Value root;
    root["id"] = Json::Int64(id);
    return root;
}

double Seconds(int64_t count, double unit) {
    return static_cast<double>(count) / unit;
}

/// Leaves a text out that makes its line too long.
std::string Bounded(Json::Value& root, Json::Value& at, const char* text) {
    std::string line = LineOf(root);
    if (line.size() <= kMostAnswerBytes) return line;
    at[text] = "";
    at["cut"] = true;
    return LineOf(root);
}

void Describe(Json::Value& at, const KvEntry& entry) {
    at["revision"] = Json::UInt64(entry.revision);
    at["time"] = Seconds(entry.timeMs, 1e3);
    at["value"] = entry.value;
    at["deleted"] = entry.deleted;
}

}  // namespace

ParsedRequest ParseConsoleRequest(std::string_view line) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kDeepest;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(line.data(), line.data() + line.size(), &root, nullptr) || !root.isObject()) {
            return {0, Wrong("a request is one JSON object on a line")};
        }
        const int64_t id = IdOf(root);
        return {id, RequestOf(root, id)};
    } catch (const Json::Exception&) {
        return {0, Wrong("a request is one JSON object on a line")};
    }
}

void RequestLines::Add(std::string_view bytes, std::vector<Line>& lines) {
    while (!bytes.empty()) {
        const size_t end = bytes.find('\n');
        const std::string_view piece = bytes.substr(0, end);
        if (!m_skips && m_kept.size() + piece.size() > kMostRequestBytes) {
            m_skips = true;
            m_kept = std::string();
            lines.push_back({"", true});
        }
        if (!m_skips) m_kept += piece;
        if (end == std::string_view::npos) return;
        if (!m_skips) lines.push_back({std::move(m_kept), false});
        m_skips = false;
        m_kept = std::string();
        bytes.remove_prefix(end + 1);
    }
}

void RequestLines::End(std::vector<Line>& lines) {
    if (!m_kept.empty()) lines.push_back({std::move(m_kept), false});
    m_kept = std::string();
    m_skips = false;
}

std::string OkAnswer(int64_t id) {
    Json::Value root = Head(id);
    root["ok"] = true;
    return LineOf(root);
}

std::string ErrorAnswer(int64_t id, const std::string& sentence, const char* outcome) {
    Json::Value root = Head(id);
    root["error"] = sentence;
    if (outcome != nullptr) root["outcome"] = outcome;
    return LineOf(root);
}

std::string ListAnswer(int64_t id, double brokerTime) {
    Json::Value root = Head(id);
    root["ok"] = true;
    if (brokerTime > 0) root["now"] = brokerTime;
    return LineOf(root);
}

std::string InfoAnswer(int64_t id, bool isConnected, const std::optional<ServerInfo>& server, const std::string& why) {
    Json::Value root = Head(id);
    root["ok"] = true;
    if (!why.empty()) root["reason"] = why;
    root["connected"] = isConnected;
    root["server"] = Json::Value(Json::objectValue);
    if (!server) return LineOf(root);
    root["server"]["version"] = server->version;
    root["server"]["cluster"] = server->cluster;
    const base::Status judged = JudgeServer(*server);
    if (!judged) root["server"]["unfit"] = judged.GetError().Text();
    return LineOf(root);
}

std::string KeyItem(int64_t id, const KvEntry& entry) {
    Json::Value root = Head(id);
    Json::Value& item = root["item"];
    item["key"] = entry.key;
    Describe(item, entry);
    return Bounded(root, item, "value");
}

std::string GetAnswer(int64_t id, const std::optional<KvEntry>& entry) {
    Json::Value root = Head(id);
    root["ok"] = true;
    root["found"] = entry.has_value();
    if (entry) Describe(root, *entry);
    return Bounded(root, root, "value");
}

std::string PutAnswer(int64_t id, uint64_t revision) {
    Json::Value root = Head(id);
    root["ok"] = true;
    root["revision"] = Json::UInt64(revision);
    return LineOf(root);
}

std::string EventLine(int64_t id, const EventItem& item) {
    Json::Value root = Head(id);
    Json::Value& at = root["item"];
    at["subject"] = item.subject;
    at["sequence"] = Json::UInt64(item.sequence);
    at["time"] = Seconds(item.timeNs, 1e9);
    at["messageId"] = item.messageId;
    at["first"] = Json::Int64(item.first);
    at["payload"] = item.payload;
    return Bounded(root, at, "payload");
}

std::string StreamAnswer(int64_t id, const StreamReport& report) {
    Json::Value root = Head(id);
    root["ok"] = true;
    root["messages"] = Json::UInt64(report.messages);
    root["bytes"] = Json::UInt64(report.bytes);
    root["maxBytes"] = Json::Int64(report.maxBytes);
    root["discard"] = report.discard;
    root["maxMessages"] = Json::Int64(report.maxMessages);
    root["maxAge"] = report.maxAgeSeconds;
    root["firstTime"] = report.firstTime;
    root["lastTime"] = report.lastTime;
    root["firstSequence"] = Json::UInt64(report.firstSequence);
    root["lastSequence"] = Json::UInt64(report.lastSequence);
    root["subjects"] = Json::UInt64(report.subjects);
    root["leader"] = report.leader;
    root["replicas"] = Json::Value(Json::arrayValue);
    for (const StreamReplica& one : report.replicas) {
        Json::Value replica;
        replica["name"] = one.name;
        replica["current"] = one.current;
        replica["lag"] = Json::UInt64(one.lag);
        replica["offline"] = one.offline;
        root["replicas"].append(replica);
    }
    return LineOf(root);
}

std::string SetupAnswer(int64_t id, const std::vector<SetupReport>& reports) {
    constexpr const char* kStates[] = {"unknown", "made", "right", "differs", "changed"};
    Json::Value root = Head(id);
    root["ok"] = true;
    root["streams"] = Json::Value(Json::arrayValue);
    for (const SetupReport& report : reports) {
        Json::Value stream;
        stream["name"] = report.stream;
        stream["state"] = kStates[static_cast<int>(report.state)];
        if (!report.error.empty()) stream["error"] = report.error;
        stream["differences"] = Json::Value(Json::arrayValue);
        for (const StreamDifference& one : report.differences) {
            Json::Value difference;
            difference["setting"] = one.setting;
            difference["is"] = one.is;
            difference["should"] = one.should;
            difference["kept"] = one.kept;
            stream["differences"].append(difference);
        }
        root["streams"].append(stream);
    }
    return LineOf(root);
}

const char* PutOutcome(const Answer& answer) {
    using Outcome = Answer::Outcome;
    if (answer.outcome == Outcome::kError && answer.code == kCodeWrongSequence) return "conflict";
    // Without a right to answers it may well be stored; without one to publish it is not.
    const bool isUnheard = answer.notPermitted && answer.text.find("ubscription") != std::string::npos;
    const bool isSilent = answer.outcome == Outcome::kTimeout && (!answer.notPermitted || isUnheard);
    return isSilent || answer.outcome == Outcome::kDisconnected ? "unknown" : "refused";
}

}  // namespace fleet
