// Finding the event, its record and the configuration; the story itself is told elsewhere.
#include "Explain.h"

#include <json/json.h>
#include <sys/utsname.h>

#include <cstdio>
#include <optional>

#include "AskAgent.h"
#include "CtlExit.h"
#include "EventLog.h"
#include "EventWords.h"
#include "JsonText.h"
#include "MemoryRefusal.h"
#include "Printable.h"
#include "Story.h"
#include "View.h"
#include "base/FilePath.h"
#include "base/TrustedRead.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/LimitKeys.h"

namespace agent {

namespace {

constexpr size_t kMostRecordBytes = 1024 * 1024;

int Fail(CtlExit code, const std::string& sentence) {
    fprintf(stderr, "tervanectl: %s\n", Printable(sentence).c_str());
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

/// What keeps the legacy mode from asking the kernel for a memory limit at all.
void AddMemoryRefusal(const ExplainOptions& options, const StatusReport& report, const ConfigPicture& picture,
                      Story& story) {
    if ((ModeToHold(report) & zel::kModeMemory) == 0 || report.unified || HoldsOwnLimit(report.cgroup.mem)) return;
    if (const std::optional<MemoryPause> pause = ReadMemoryPause(options.appDir, report.now)) {
        story.measured.push_back("the memory limit is " + DescribePause(*pause) + ", as " + pause->path + " has it");
        story.todo.push_back("remove the reason that the log names, then remove " + pause->path + " to try at once");
    }
    const ConfigRow* row = FindRow(picture, zel::kKernelRangeKey.resourceName);
    const bool named = row != nullptr && !row->file.empty();
    const std::string path = named ? row->file : PathOf(ConfigFile::kResource, options.appDir);
    const base::Result<std::string> text = ReadConfigText(path);
    utsname kernel{};
    const std::string refusal = text && uname(&kernel) == 0 ? ExplainKernelList(*text, kernel.release) : "";
    if (refusal.empty()) return;
    story.measured.push_back("the memory limit is refused by " + path + ": " + refusal);
    if (row != nullptr) story.limits.push_back({row->key + " " + row->value, OriginOf(*row), row->note});
    story.todo.push_back("name this kernel in " + std::string(zel::kKernelRangeKey.resourceName) +
                         " if its memory limits are known to work");
}

int ExplainLimits(const ExplainOptions& options) {
    const base::Result<StatusReport> report = ReadStatus(AskAgent(options.appDir, options.process, "status"));
    if (!report) return Fail(kUnreachable, report.GetError().Text());
    const ConfigPicture picture = ReadConfigPicture(options.appDir, options.process);
    Story story = TellLimits(*report, picture);
    AddMemoryRefusal(options, *report, picture, story);
    return Print(options, story, nullptr);
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
