// Finding the event, its record and the configuration; the story itself is told elsewhere.
#include "Explain.h"

#include <json/json.h>

#include <cstdio>

#include "AskAgent.h"
#include "CtlExit.h"
#include "EventLog.h"
#include "EventWords.h"
#include "JsonText.h"
#include "Printable.h"
#include "Story.h"
#include "View.h"
#include "base/FilePath.h"
#include "base/TrustedRead.h"

namespace agent {

namespace {

constexpr size_t kMostRecordBytes = 1024 * 1024;

int Fail(CtlExit code, const std::string& sentence) {
    fprintf(stderr, "tervanectl: %s\n", sentence.c_str());
    return code;
}

/// What tells a story of its own; figures of the host come by the dozen.
bool IsStory(const TailEvent& event) {
    const EventKind kind = WordEvent(event).kind;
    return kind != EventKind::kHost && kind != EventKind::kOther;
}

/// The record of a self-kill; null when the event has none, or it is not where records are.
Json::Value ReadRecord(const std::string& appDir, const TailEvent& event) {
    const Json::Value body = EventBody(event);
    const Json::Value& path = body.isObject() ? body["record"] : Json::Value::nullSingleton();
    if (!path.isString() || path.asString().empty()) return {};
    // Wherever the agent was at home when it wrote it: by its name.
    const std::string place = appDir + "/selfkill/" + base::FileNameOf(path.asString());
    const base::Result<std::string> text = base::ReadTrusted(place, kMostRecordBytes, base::TrustScope::kWithPlace);
    const base::Result<Json::Value> record = text ? ParseJson(*text) : text.GetError();
    return record && record->isObject() ? *record : Json::Value();
}

int Print(const ExplainOptions& options, const Story& story, const TailEvent* event) {
    if (!options.json) {
        fputs(WordStory(story).c_str(), stdout);
        return kOk;
    }
    Json::Value view = NewView("explain");
    view["id"] = event == nullptr ? "" : event->id;
    view["time"] = Json::Int64(event == nullptr ? 0 : event->time);
    view["type"] = event == nullptr ? "limits" : NameOf(WordEvent(*event).kind);
    AddStory(story, view);
    fputs(ViewText(view).c_str(), stdout);
    return kOk;
}

int ExplainLimits(const ExplainOptions& options) {
    const base::Result<StatusReport> report = ReadStatus(AskAgent(options.appDir, options.process, "status"));
    if (!report) return Fail(kUnreachable, report.GetError().Text());
    return Print(options, TellLimits(*report, ReadConfigPicture(options.appDir, options.process)), nullptr);
}

}  // namespace

int RunExplain(const ExplainOptions& options) {
    if (options.which == "limits") return ExplainLimits(options);
    EventQuery query;
    const bool last = options.which == "last";
    query.most = last ? 1 : 10;
    if (options.named) query.process = options.process;
    query.wanted = [&](const TailEvent& event) { return last ? IsStory(event) : MeansId(options.which, event.id); };
    const EventPage page = ReadEvents(options.appDir, query);
    if (page.events.empty()) {
        for (const std::string& sentence : page.unread) Fail(kUnreachable, sentence);
        if (!page.unread.empty()) return kUnreachable;
        return Fail(kRefused, last ? "no event that tells a story was delivered yet"
                                   : "there is no event " + Printable(options.which) +
                                         "; tervanectl events --since 7d lists them with their ids");
    }
    if (page.events.size() > 1) {
        std::string ids;
        for (const TailEvent& event : page.events) ids += " " + Printable(event.id);
        return Fail(kRefused, Printable(options.which) + " may be any of" + ids + ": name the whole id");
    }
    const TailEvent& event = page.events[0];
    const ConfigPicture picture = ReadConfigPicture(options.appDir, options.process);
    return Print(options, TellStory(event, ReadRecord(options.appDir, event), picture, options.appDir), &event);
}

}  // namespace agent
