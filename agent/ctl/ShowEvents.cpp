// Delivered events from the JSON-lines files, findings about the host from the two databases, opened read-only.
#include "ShowEvents.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

#include "CtlExit.h"
#include "EventLog.h"
#include "EventWords.h"
#include "HumanText.h"
#include "Printable.h"
#include "Text.h"
#include "View.h"
#include "base/Database.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr unsigned int kFewEvents = 20;
constexpr unsigned int kMostEvents = 10000;
constexpr unsigned int kLookUs = 500 * 1000;
constexpr int kDiskFinding = 2;

struct Finding {
    int64_t time = 0;
    std::string type;
    std::string what;
};

bool IsAbout(const EventInWords& words, const TailEvent& event, const std::string& name) {
    return event.process == name || std::find(words.about.begin(), words.about.end(), name) != words.about.end();
}

EventFilter FilterOf(const EventsOptions& options) {
    return [&options](const TailEvent& event) {
        if (options.types.empty() && options.component.empty()) return true;
        const EventInWords words = WordEvent(event);
        const bool typed = options.types.empty() ||
                           std::any_of(options.types.begin(), options.types.end(),
                                       [&](const std::string& word) { return IsOfType(event, words.kind, word); });
        return typed && (options.component.empty() || IsAbout(words, event, options.component));
    };
}

/// Findings of one store, the newest first.
void ReadStore(const std::string& path, int64_t since, unsigned int most, std::vector<Finding>& findings,
               std::vector<std::string>& unread) {
    base::DatabaseOptions options;
    options.readOnly = true;
    base::Database database;
    const base::Status opened = database.Open(path, options);
    if (!opened) {
        if (opened.GetError().kind == base::ErrorKind::kDenied) unread.push_back(opened.GetError().Text());
        return;
    }
    base::Statement rows(database,
                         "select event_time, type, data from os_abnormal where event_time >= ? order by event_time "
                         "desc limit ?");
    if (!rows.Bind(1, since) || !rows.Bind(2, static_cast<int64_t>(most))) return;
    while (rows.Row()) {
        TailEvent event;
        event.time = rows.Int(0);
        event.type = zel::kOsAbnormalMessage;
        event.body = rows.Text(2);
        findings.push_back({event.time, rows.Int(1) == kDiskFinding ? "disk" : "memory", WordEvent(event).what});
    }
}

/// Those that no filter leaves out, oldest first.
std::vector<Finding> ReadFindings(const EventsOptions& options, int64_t since, unsigned int most,
                                  std::vector<std::string>& unread) {
    const bool wanted = options.types.empty() || std::find(options.types.begin(), options.types.end(),
                                                           NameOf(EventKind::kHost)) != options.types.end();
    std::vector<Finding> findings;
    if (!wanted || !options.component.empty() || options.follow) return findings;
    ReadStore(options.appDir + zel::kCurrentOsAbnormalDbName, since, most, findings, unread);
    ReadStore(options.appDir + zel::kLastOsAbnormalDbName, since, most, findings, unread);
    std::sort(findings.begin(), findings.end(),
              [](const Finding& one, const Finding& other) { return one.time < other.time; });
    if (findings.size() > most) findings.erase(findings.begin(), findings.end() - most);
    return findings;
}

/// Lines under one another: time, id, type, whom it is about, what happened.
void PrintTable(const std::vector<TailEvent>& events, bool withHead) {
    size_t idWidth = 2;
    size_t aboutWidth = 5;
    for (const TailEvent& event : events) {
        idWidth = std::max(idWidth, ShortId(event.id).size());
        aboutWidth = std::max(aboutWidth, WordEvent(event).about[0].size());
    }
    const auto line = [&](const std::string& time, const std::string& id, const std::string& type,
                          const std::string& about) {
        return Text("%-19s  %-*s  %-13s  %-*s  ", time.c_str(), static_cast<int>(idWidth), id.c_str(), type.c_str(),
                    static_cast<int>(aboutWidth), about.c_str());
    };
    if (withHead) printf("%s\n", Painted(line("TIME", "ID", "TYPE", "ABOUT") + "WHAT", LineKind::kTableHead).c_str());
    for (const TailEvent& event : events) {
        const EventInWords words = WordEvent(event);
        const bool alarm = words.kind == EventKind::kOom || words.kind == EventKind::kSelfKill ||
                           words.kind == EventKind::kUncleanStop;
        const std::string text = line(ClockText(event.time), ShortId(event.id), NameOf(words.kind), words.about[0]);
        printf("%s\n", Painted(text + words.what, alarm ? LineKind::kAlarm : LineKind::kPlain).c_str());
    }
}

void PrintWords(const EventPage& page, const std::vector<Finding>& findings, const EventsOptions& options) {
    if (page.events.empty() && page.unread.empty()) {
        printf("no event%s\n", options.since.empty() && options.types.empty() && options.component.empty()
                                   ? " was delivered yet"
                                   : " of this kind in this time");
    }
    if (page.cut && !options.since.empty()) printf("only the last %zu:\n", page.events.size());
    if (!page.events.empty()) PrintTable(page.events, true);
    if (findings.empty()) return;
    printf("\n%s\n", Painted("stored findings about the host", LineKind::kTitle).c_str());
    for (const Finding& finding : findings) {
        printf("%-19s  %-6s  %s\n", ClockText(finding.time).c_str(), finding.type.c_str(), finding.what.c_str());
    }
}

void PrintJson(const EventPage& page, const std::vector<Finding>& findings) {
    Json::Value view = NewView("events");
    view["cut"] = page.cut;
    view["unread"] = JsonList(page.unread);
    view["events"] = Json::Value(Json::arrayValue);
    view["findings"] = Json::Value(Json::arrayValue);
    for (const TailEvent& event : page.events) view["events"].append(EventJson(event));
    for (const Finding& finding : findings) {
        Json::Value& object = view["findings"].append(Json::Value(Json::objectValue));
        object["time"] = Json::Int64(finding.time);
        object["type"] = finding.type;
        object["what"] = finding.what;
    }
    fputs(ViewText(view).c_str(), stdout);
}

/// Until a signal ends the program or nobody reads it any more. `shown`: what was printed already.
int Follow(const EventsOptions& options, EventFollower& follower, const std::set<std::string>& shown) {
    const EventFilter wanted = FilterOf(options);
    while (fflush(stdout) == 0) {
        std::vector<TailEvent> events = follower.Next();
        events.erase(std::remove_if(events.begin(), events.end(),
                                    [&](const TailEvent& e) { return shown.count(e.id) > 0 || !wanted(e); }),
                     events.end());
        if (!options.json) {
            PrintTable(events, false);
        } else {
            for (const TailEvent& event : events) {
                Json::Value view = NewView("event");
                view["event"] = EventJson(event);
                fputs(ViewText(view, true).c_str(), stdout);
            }
        }
        if (events.empty()) usleep(kLookUs);
    }
    return kOk;
}

}  // namespace

Json::Value EventJson(const TailEvent& event) {
    const EventInWords words = WordEvent(event);
    Json::Value object(Json::objectValue);
    object["id"] = event.id;
    object["time"] = Json::Int64(event.time);
    object["process"] = event.process;
    object["type"] = NameOf(words.kind);
    object["message"] = event.type;
    object["about"] = JsonList(words.about);
    object["what"] = words.what;
    const Json::Value body = EventBody(event);
    object["body"] = body.isNull() ? Json::Value(Json::objectValue) : body;
    return object;
}

std::string JudgeType(const std::string& word) {
    for (const char* kind : kEventKindNames) {
        if (word == kind) return "";
    }
    const bool message = word.compare(0, 6, "T_MSG_") == 0;
    return message ? "" : "no type of events, nor a message's name as T_MSG_SELF_KILL: " + word;
}

std::string KnownTypes() {
    std::string kinds;
    for (const char* kind : kEventKindNames) kinds += (kinds.empty() ? "" : ",") + std::string(kind);
    return kinds;
}

int RunEvents(const EventsOptions& options) {
    EventQuery query;
    query.process = options.process;
    query.wanted = FilterOf(options);
    query.most = options.last != 0 ? options.last : options.since.empty() ? kFewEvents : kMostEvents;
    if (!options.since.empty()) {
        const base::Result<int64_t> since = ParseSince(options.since, time(nullptr));
        if (!since) {
            fprintf(stderr, "tervanectl: --since %s\n", since.GetError().Text().c_str());
            return kUsage;
        }
        query.since = *since;
    }
    EventFollower follower(options.appDir, options.process);  // before they are read: none falls between
    EventPage page = ReadEvents(options.appDir, query);
    const auto most = static_cast<unsigned int>(query.most);
    const std::vector<Finding> findings = ReadFindings(options, query.since, most, page.unread);
    if (options.json && !options.follow) PrintJson(page, findings);
    if (!options.json) PrintWords(page, findings, options);
    const bool said = options.json && !options.follow;
    for (const std::string& sentence : page.unread) {
        if (!said) fprintf(stderr, "tervanectl: %s\n", Printable(sentence).c_str());
    }
    if (!page.anyRead && findings.empty() && !page.unread.empty()) return kUnreachable;
    std::set<std::string> shown;
    for (const TailEvent& event : page.events) {
        if (!options.json) shown.insert(event.id);
    }
    if (options.follow) return Follow(options, follower, shown);
    return page.unread.empty() ? kOk : kPartly;
}

}  // namespace agent
