// Messages of the stream taken apart, and the view of them.
#include "FleetEvents.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <deque>

#include "CtlExit.h"
#include "EventWords.h"
#include "FleetReading.h"
#include "FleetRoster.h"
#include "HumanText.h"
#include "Printable.h"
#include "ShowEvents.h"
#include "Text.h"
#include "View.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr char kSubjects[] = "zel.events.";
constexpr char kAnyHost[] = "h";  // an event's own id has none
constexpr size_t kFewEvents = 20;
constexpr size_t kMostEvents = 10000;
constexpr int64_t kUsualSeconds = 3600;
constexpr size_t kMostTextBytes = 1000;
constexpr size_t kMostHostBytes = 256;
constexpr size_t kMostIdBytes = 64;

/// The host's part of "zel.events.<host>.<process>"; empty where it is no such subject.
std::string KeyOf(const std::string& subject) {
    constexpr size_t kBegin = sizeof kSubjects - 1;
    if (subject.compare(0, kBegin, kSubjects) != 0) return "";
    const size_t end = subject.find('.', kBegin);
    return end == std::string::npos ? "" : subject.substr(kBegin, std::min(end - kBegin, kMostHostBytes));
}

std::string TextIn(const Json::Value& item, const char* member) {
    return item[member].isString() ? item[member].asString() : "";
}

bool IsWantedType(const TailEvent& event, const std::vector<std::string>& types) {
    if (types.empty()) return true;
    const EventKind kind = WordEvent(event).kind;
    return std::any_of(types.begin(), types.end(),
                       [&](const std::string& word) { return IsOfType(event, kind, word); });
}

bool IsAlarm(EventKind kind) {
    return kind == EventKind::kOom || kind == EventKind::kSelfKill || kind == EventKind::kUncleanStop;
}

/// What is shown of an event: many are kept, so no more than that.
struct EventLine {
    std::vector<std::string> cells;  ///< time, name, type, whom it is about, what happened
    LineKind kind = LineKind::kPlain;
};

EventLine LineOf(const FleetEvent& event) {
    const EventInWords words = WordEvent(event.event);
    return {{ClockText(event.event.time), EventName(event), NameOf(words.kind), ShortText(words.about[0], 100),
             ShortText(words.what, kMostTextBytes)},
            IsAlarm(words.kind) ? LineKind::kAlarm : LineKind::kPlain};
}

Json::Value JsonOf(const FleetEvent& event) {
    Json::Value object = EventJson(event.event);
    object["host"] = event.host;
    object["key"] = ShortText(event.key, kMostHostBytes);
    object["stored"] = Json::Int64(event.storedAt);
    return object;
}

void PrintPage(const std::deque<EventLine>& lines) {
    std::vector<std::vector<std::string>> cells{{"TIME", "EVENT", "TYPE", "ABOUT", "WHAT"}};
    for (const EventLine& line : lines) cells.push_back(line.cells);
    const std::vector<std::string> aligned = AlignColumns(cells);
    for (size_t i = 0; i < aligned.size(); ++i) {
        printf("%s\n", Painted(aligned[i], i == 0 ? LineKind::kTableHead : lines[i - 1].kind).c_str());
    }
}

int Follow(FleetLink& link, const FleetEventsOptions& options, const FleetEventQuery& query) {
    FleetEventReader reader;
    std::vector<size_t> widths{19, 20, 13, 12, 0};
    const base::Status read = ReadFleetEvents(link, query, reader, [&](const FleetEvent& event) {
        if (!IsWantedType(event.event, options.types)) return true;
        if (options.json) {
            Json::Value view = NewView("fleet-event");
            view["event"] = JsonOf(event);
            fputs(ViewText(view, true).c_str(), stdout);
        } else {
            const EventLine line = LineOf(event);
            std::string text;
            for (size_t i = 0; i < line.cells.size(); ++i) {
                widths[i] = std::max(widths[i], line.cells[i].size());
                text += i + 1 == line.cells.size()
                            ? line.cells[i]
                            : line.cells[i] + std::string(widths[i] - line.cells[i].size() + 2, ' ');
            }
            printf("%s\n", Painted(text, line.kind).c_str());
        }
        return fflush(stdout) == 0;
    });
    return read ? kOk : FleetFail(kUnreachable, read.GetError().Text());
}

void SayUnread(const FleetEventReader& reader) {
    if (reader.Unread() == 0) return;
    fprintf(stderr, "tervanectl: %llu lines of the stream are no events and are left out\n",
            static_cast<unsigned long long>(reader.Unread()));
}

int ShowJson(FleetLink& link, const FleetEventsOptions& options, const FleetEventQuery& query, size_t most) {
    FleetEventReader reader;
    std::deque<std::string> texts;
    bool cut = false;
    const base::Status read = ReadFleetEvents(link, query, reader, [&](const FleetEvent& event) {
        if (!IsWantedType(event.event, options.types)) return true;
        const std::string text = ViewText(JsonOf(event), true);
        texts.push_back(text.substr(0, text.size() - 1));
        cut = cut || texts.size() > most;
        if (texts.size() > most) texts.pop_front();
        return true;
    });
    if (!read) return FleetFail(kUnreachable, read.GetError().Text());
    Json::Value view = NewView("fleet-events");
    view["cut"] = cut;
    view["repeated"] = Json::UInt64(reader.Repeated());
    view["unread"] = Json::UInt64(reader.Unread());
    const std::string head = ViewText(view, true);
    printf("%s,\"events\":[", head.substr(0, head.rfind('}')).c_str());
    for (size_t i = 0; i < texts.size(); ++i) printf("%s%s", i == 0 ? "\n" : ",\n", texts[i].c_str());
    printf("]}\n");
    return kOk;
}

int ShowPage(FleetLink& link, const FleetEventsOptions& options, const FleetEventQuery& query, size_t most) {
    FleetEventReader reader;
    std::deque<EventLine> lines;
    bool cut = false;
    const base::Status read = ReadFleetEvents(link, query, reader, [&](const FleetEvent& event) {
        if (!IsWantedType(event.event, options.types)) return true;
        lines.push_back(LineOf(event));
        cut = cut || lines.size() > most;
        if (lines.size() > most) lines.pop_front();
        return true;
    });
    if (!read) return FleetFail(kUnreachable, read.GetError().Text());
    if (cut) printf("only the last %zu:\n", lines.size());
    if (lines.empty())
        printf("no event%s\n", options.since.empty() ? " in the last hour" : " of this kind in this time");
    if (!lines.empty()) PrintPage(lines);
    SayUnread(reader);
    return kOk;
}

}  // namespace

std::string EventName(const FleetEvent& event) {
    return event.host + "/" + ShortId(ShortText(event.event.id, kMostIdBytes));
}

bool MeansEvent(const std::string& word, const FleetEvent& event) {
    const size_t slash = word.rfind('/');
    if (slash == std::string::npos) return MeansId(word, event.event.id);
    const std::string host = word.substr(0, slash);
    return (host == event.host || host == event.key) && MeansId(word.substr(slash + 1), event.event.id);
}

FleetEventReader::Known& FleetEventReader::KnownOf(const std::string& spool) {
    const auto found = m_bySpool.find(spool);
    if (found != m_bySpool.end()) {
        m_known.splice(m_known.begin(), m_known, found->second);
        return m_known.front();
    }
    if (m_known.size() >= m_mostSpools) {
        m_bySpool.erase(m_known.back().spool);
        m_known.pop_back();
    }
    m_known.push_front({spool, -1});
    m_bySpool.emplace(m_known.front().spool, m_known.begin());
    return m_known.front();
}

bool FleetEventReader::IsNew(const std::string& host, const std::string& id) {
    const std::optional<fleet::MessageId> named = fleet::ParseMessageId(kAnyHost, std::string(kAnyHost) + "/" + id);
    if (!named) return false;
    Known& known = KnownOf(host + "/" + named->spool);
    if (named->number <= known.highest) {
        ++m_repeated;
        return false;
    }
    known.highest = named->number;
    return true;
}

bool FleetEventReader::Take(const Json::Value& item, const OnEvent& onEvent) {
    FleetEvent event;
    event.key = KeyOf(TextIn(item, "subject"));
    if (event.key.empty()) {
        ++m_unread;
        return true;
    }
    event.host = ShortText(fleet::NameOfKey(event.key), kMostHostBytes);
    event.storedAt = BrokerTimeIn(item["time"]);
    const std::string payload = TextIn(item, "payload");
    for (size_t at = 0; at < payload.size();) {
        const size_t end = std::min(payload.find('\n', at), payload.size());
        event.event = TailEvent();
        const bool isEvent = ParseEventLine(payload.substr(at, end - at), event.event);
        at = end + 1;
        const uint64_t repeated = m_repeated;
        if (isEvent && IsNew(event.key, event.event.id)) {
            if (!onEvent(event)) return false;
        } else if (m_repeated == repeated) {
            ++m_unread;
        }
    }
    return true;
}

base::Status ReadFleetEvents(FleetLink& link, const FleetEventQuery& query, FleetEventReader& reader,
                             const FleetEventReader::OnEvent& onEvent) {
    Json::Value request(Json::objectValue);
    request["op"] = "events";
    request["subject"] = kSubjects + (query.host.empty() ? ">" : fleet::EscapeName(query.host) + ".>");
    request["follow"] = query.follow;
    if (query.since > 0) request["since"] = Json::Int64(query.since);
    const base::Result<FleetAnswer> answer =
        link.Ask(std::move(request), [&](const Json::Value& item) { return reader.Take(item, onEvent); });
    if (!answer) return answer.GetError();
    if (!answer->ok) return base::SentenceError("the events cannot be read: " + answer->error);
    return {};
}

int ShowFleetEvents(FleetLink& link, const FleetEventsOptions& options) {
    const int64_t now = time(nullptr);
    FleetEventQuery query;
    query.host = options.host;
    query.follow = options.follow;
    query.since = options.follow ? now : now - kUsualSeconds;
    if (!options.since.empty()) {
        const base::Result<int64_t> since = ParseSince(options.since, now);
        if (!since) return FleetFail(kUsage, "--since " + since.GetError().Text());
        query.since = *since;
    }
    if (options.follow) return Follow(link, options, query);
    const size_t most = options.last != 0 ? options.last : options.since.empty() ? kFewEvents : kMostEvents;
    return options.json ? ShowJson(link, options, query, most) : ShowPage(link, options, query, most);
}

}  // namespace agent
