// One story for each kind of event. Texts of bodies and records are anybody's and come through WordIn.
#include "Story.h"

#include <algorithm>
#include <cstdlib>

#include "EventWords.h"
#include "Health.h"
#include "HumanText.h"
#include "Printable.h"
#include "Text.h"
#include "View.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr size_t kMostThreads = 10;
constexpr size_t kMostStackLines = 20;
constexpr int64_t kBytesPerKb = 1024;
constexpr int64_t kKbPerMb = 1024;
constexpr char kGroupTable[] = "cgroup_groups";
constexpr char kComponentTable[] = "cgroup_components";

/// The entry of a list "name:...,name:..." that begins with the name; empty when there is none.
std::string EntryOf(const std::string& list, const std::string& name) {
    for (size_t at = 0; at <= list.size() && !name.empty();) {
        const size_t end = std::min(list.find(',', at), list.size());
        if (list.compare(at, name.size() + 1, name + ":") == 0) return list.substr(at, end - at);
        at = end + 1;
    }
    return "";
}

bool IsUnified(const ConfigPicture& picture) {
    const ConfigRow* mode = FindRow(picture, "resourceLimitMode");
    return mode != nullptr && (strtol(mode->value.c_str(), nullptr, 10) & zel::kModeUnified) != 0;
}

/// Whose share of what: the entry of a component or a group in the unified mode's table.
StoryLimit TableLimit(const ConfigPicture& picture, const char* table, const std::string& name) {
    const ConfigRow* row = FindRow(picture, table);
    const std::string entry = row == nullptr ? "" : EntryOf(row->value, name);
    StoryLimit limit;
    limit.what = entry.empty() ? "its share by the built-in table" : "its share: " + entry;
    limit.origin = row == nullptr || entry.empty() ? "" : OriginOf(*row);
    return limit;
}

/// The budget that everything else is a share of.
StoryLimit BudgetLimit(const ConfigPicture& picture, const char* key) {
    const ConfigRow* row = FindRow(picture, key);
    StoryLimit limit;
    if (row == nullptr) return limit;
    limit.what = "the budget of the agent: " + row->value + " " + row->unit;
    limit.origin = OriginOf(*row);
    limit.note = row->note;
    return limit;
}

/// The limits of a group: its budget, and its share of it where it is not the whole agent.
void AddTreeLimits(const ConfigPicture& picture, bool cpu, const std::string& group, const std::string& component,
                   Story& story) {
    if (picture.isElsewhere) return;
    story.limits.push_back(BudgetLimit(picture, cpu ? "groupMaxCpu" : "groupMaxMemory"));
    if (!group.empty()) story.limits.push_back(TableLimit(picture, kGroupTable, group));
    if (!component.empty()) story.limits.push_back(TableLimit(picture, kComponentTable, component));
}

std::string Set(bool cpu) {
    return cpu ? "raise its share, or the budget with tervanectl config set groupMaxCpu=PERCENT"
               : "raise its share, or the budget with tervanectl config set groupMaxMemory=MB";
}

// --- self-kill -------------------------------------------------------------------------------------------------------

void AddThreads(const Json::Value& record, Story& story) {
    const Json::Value& threads = record.isObject() ? record["threads"] : Json::Value::nullSingleton();
    for (Json::ArrayIndex i = 0; threads.isArray() && i < threads.size() && i < kMostThreads; ++i) {
        story.threads.push_back({NumberIn(threads[i], "tid"), WordIn(threads[i], "name"),
                                 NumberIn(threads[i], "load_100times"), NumberIn(threads[i], "system_100times")});
    }
}

void AddStack(const Json::Value& object, const char* key, Story& story) {
    const Json::Value& value = object.isObject() ? object[key] : Json::Value::nullSingleton();
    if (!value.isString()) return;
    const std::string text = value.asString();
    for (size_t at = 0; at < text.size() && story.stack.size() < kMostStackLines;) {
        const size_t end = std::min(text.find('\n', at), text.size());
        story.stack.push_back(Printable(text.substr(at, end - at)));
        at = end + 1;
    }
}

void AddFigures(const Json::Value& record, Story& story) {
    if (!record.isObject()) return;
    const Json::Value& figures = record["figures"];
    story.measured.push_back("CPU " + HumanPercent(NumberIn(figures, "cpu_100times")) + " in the last second, " +
                             HumanPercent(NumberIn(figures, "cpu_minute_100times")) + " in the last minute, " +
                             HumanPercent(NumberIn(figures, "cpu_hour_100times")) + " in the last hour");
    story.measured.push_back("memory " + HumanBytes(NumberIn(figures, "mem_kb") * kBytesPerKb) + ", " +
                             std::to_string(NumberIn(figures, "descriptors")) + " descriptors, reads " +
                             std::to_string(NumberIn(figures, "read_kbps")) + " KB/s, writes " +
                             std::to_string(NumberIn(figures, "write_kbps")) + " KB/s");
    if (NumberIn(figures, "missed_rounds") > 0) {
        story.measured.push_back(std::to_string(NumberIn(figures, "missed_rounds")) +
                                 " rounds of the sampling were missed: the process was starved or stopped");
    }
}

/// The maximum that the process was held to: its own key, or in the unified mode a component's share.
void AddOwnMaximum(const Json::Value& body, const ConfigPicture& picture, Story& story) {
    const bool cpu = WordIn(body, "resource") == "cpu";
    const int64_t limit = NumberIn(body, "limit");
    const std::string process = WordIn(body, "process");
    const std::string amount = cpu ? HumanPercent(limit) : HumanBytes(limit * kBytesPerKb);
    StoryLimit maximum;
    maximum.what = "the maximum of the process: " + amount;
    const ConfigRow* row = FindRow(picture, cpu ? "maxCpu" : "maxMemory");
    const bool component = IsUnified(picture);
    if (row != nullptr && !component) {
        maximum.origin = OriginOf(*row);
        const int64_t now = strtoll(row->value.c_str(), nullptr, 10) * (cpu ? 100 : kKbPerMb);
        if (now != limit) maximum.note = "it says " + row->value + " " + row->unit + " now: it was changed since";
    }
    story.limits.push_back(maximum);
    const std::string name = process == zel::kMainProcessName ? zel::kMainComponent : process;
    if (component) AddTreeLimits(picture, cpu, "", name, story);
}

void TellSelfKill(const Json::Value& body, const Json::Value& record, const ConfigPicture& picture, Story& story) {
    const bool cpu = WordIn(body, "resource") == "cpu";
    const std::string process = WordIn(body, "process");
    const auto amount = [&](const char* key) {
        return cpu ? HumanPercent(NumberIn(body, key)) : HumanBytes(NumberIn(body, key) * kBytesPerKb);
    };
    story.measured.push_back(
        (cpu ? "CPU " + amount("value") + " on the average of a minute" : "memory " + amount("value")) +
        ", not below " + amount("limit") + " for " + HumanDuration(NumberIn(body, "sustained_ms")));
    AddFigures(record, story);
    AddOwnMaximum(body, picture, story);
    AddThreads(record, story);
    AddStack(record, "busiest_thread_stack", story);
    const std::string file = WordIn(body, "record");
    story.done.push_back("warned when the maximum was reached, and again after a whole breach period");
    const bool unreadable = !record.isObject() && !picture.isElsewhere;
    story.done.push_back(file.empty() ? "could not write a record: the log of the process says why"
                                      : "wrote the record " + file + (unreadable ? ", which cannot be read now" : ""));
    story.done.push_back("asked process " + std::to_string(NumberIn(body, "pid")) + " to end, exit code 20" +
                         (process == zel::kMainProcessName
                              ? "; the service manager starts it again"
                              : "; the main process starts it again by its restart budget"));
    const std::string who = story.threads.empty() ? "" : "see what thread \"" + story.threads[0].name + "\" does; ";
    story.todo.push_back(who + (cpu ? "if the work is wanted: " : "look for what holds memory; if it is wanted: ") +
                         (!IsUnified(picture)
                              ? std::string("tervanectl config set ") + (cpu ? "maxCpu=PERCENT" : "maxMemory=MB")
                              : Set(cpu)));
}

// --- kills for memory, ends ------------------------------------------------------------------------------------------

void AddOomLimit(const Json::Value& oom, const ConfigPicture& picture, Story& story) {
    const std::string of = WordIn(oom, "limit_of");
    if (of == "host") {
        story.limits.push_back({"none of the agent's: the host itself ran out of memory", "", ""});
        story.todo.push_back("tervanectl events --type host says how short memory was; free memory on the host");
        return;
    }
    const bool component = of == "component";
    const std::string whose = component       ? "of component " + WordIn(oom, "victim")
                              : of == "group" ? "of group " + WordIn(oom, "group")
                                              : "of the whole agent";
    story.limits.push_back({"the memory limit " + whose + ": " + HumanBytes(NumberIn(oom, "limit_kb") * kBytesPerKb) +
                                " at " + WordIn(oom, "path"),
                            "", ""});
    AddTreeLimits(picture, false, of == "agent" ? "" : WordIn(oom, "group"), component ? WordIn(oom, "victim") : "",
                  story);
    story.todo.push_back("look for what holds memory there; if it is wanted: " + Set(false));
}

void TellComponentEnd(const TailEvent& event, const Json::Value& body, const ConfigPicture& picture,
                      const std::string& appDir, Story& story) {
    const std::string component = WordIn(body, "component");
    story.measured.push_back("process " + std::to_string(NumberIn(body, "pid")) + ": " + WordIn(body, "reason"));
    if (FlagIn(body, "budget_exhausted")) {
        story.done.push_back("does not start it again before the oldest of its ends is an hour ago");
        story.todo.push_back("mend what ends it; restarting the agent gives it a new restart budget");
    } else {
        story.done.push_back("starts it again at " +
                             ClockText(std::max<int64_t>(event.time, NumberIn(body, "next_start"))));
    }
    if (body["oom"].isObject()) {
        AddOomLimit(body["oom"], picture, story);
    } else {
        story.todo.push_back("its own log says why: " + appDir + "/log/" + component + ".log");
    }
}

void TellOom(const Json::Value& body, const ConfigPicture& picture, Story& story) {
    for (const std::string& key : body["items"].getMemberNames()) {
        const Json::Value& item = body["items"][key];
        if (NumberIn(item, "oom_kill_delta") <= 0) continue;
        const bool parent = FlagIn(item, "parent");
        story.measured.push_back((parent ? "whole agent" : "group " + WordIn(item, "group")) + ": " +
                                 std::to_string(NumberIn(item, "oom_kill_delta")) + " killed, " +
                                 std::to_string(NumberIn(item, "oom_kill")) + " since the group was made, at " +
                                 WordIn(item, "path"));
        if (!parent) AddTreeLimits(picture, false, WordIn(item, "group"), "", story);
    }
    story.done.push_back(
        "counted the kernel's kills; a component that was killed has an event of its own that says whose "
        "limit it was, and is started again");
    story.todo.push_back("tervanectl events --type component-end names the victims; explain them");
}

// --- the others ------------------------------------------------------------------------------------------------------

void TellDrift(const Json::Value& body, const ConfigPicture& picture, Story& story) {
    const std::string kind = WordIn(body, "kind");
    const bool cpu = kind.compare(0, 3, "cpu") == 0;
    const std::string path = WordIn(body, "path");
    story.measured.push_back("at " + path +
                             (NumberIn(body, "pid") > 0 ? ", process " + std::to_string(NumberIn(body, "pid")) : ""));
    story.measured.push_back("found " + WordIn(body, "found") + ", wanted " + WordIn(body, "wanted"));
    if (!WordIn(body, "cause").empty()) story.measured.push_back("cause: " + WordIn(body, "cause"));
    if (cpu || kind == "memory" || kind == "swap" || kind == "memory_soft") {
        AddTreeLimits(picture, cpu, WordIn(body, "group"), WordIn(body, "component"), story);
    }
    const bool repaired = FlagIn(body, "repaired");
    story.done.push_back(repaired ? "put it right" : "could not put it right: " + WordIn(body, "problem"));
    if (FlagIn(body, "contested")) {
        story.done.push_back("looks after it every 30 s from now on: it had to be repaired five times within a minute");
        story.todo.push_back("find the program that writes " + path + " and end or change it");
    } else {
        story.todo.push_back(repaired ? "nothing, unless it comes again: then find who writes " + path
                                      : "remove what is in the way; tervanectl status says when it is in force");
    }
}

void TellStall(const Json::Value& body, Story& story) {
    story.measured.push_back("thread \"" + WordIn(body, "thread") + "\", number " +
                             std::to_string(NumberIn(body, "tid")) + ", was silent for " +
                             HumanDuration(NumberIn(body, "silent_ms")) + " and had promised a sign of life every " +
                             std::to_string(NumberIn(body, "timeout_seconds")) + " s");
    AddStack(body, "stack", story);
    story.done.push_back(FlagIn(body, "recovered") ? "told that it works again" : "told it, with its kernel stack");
    story.todo.push_back(FlagIn(body, "recovered") ? "nothing, unless it comes again"
                                                   : "tervanectl --name " + WordIn(body, "process") +
                                                         " threads says what it does now; a restart ends it");
}

void TellUncleanStop(const Json::Value& body, Story& story) {
    story.measured.push_back("process " + std::to_string(NumberIn(body, "pid")) + ", started " +
                             ClockText(NumberIn(body, "started_at")));
    for (const Json::Value& known : body["known"]) {
        if (known.isString()) story.measured.push_back(Printable(known.asString()));
    }
    for (const Json::Value& unknown : body["unknown"]) {
        if (unknown.isString()) story.measured.push_back("not known: " + Printable(unknown.asString()));
    }
    story.done.push_back("told it at its next start; what the run had limited was taken down or taken over");
    story.todo.push_back(WordIn(body, "cause") == "out_of_memory"
                             ? "see how much memory the main process needs, and raise its share or the budget"
                             : "the log of that time says what came before");
}

std::string TitleOf(const TailEvent& event, const EventInWords& words) {
    return std::string(NameOf(words.kind)) + " of " + words.about[0] + ", " + ClockText(event.time) + ", event " +
           ShortId(event.id);
}

void AddSection(std::vector<TextLine>& lines, const char* name, const std::vector<std::string>& texts) {
    for (size_t i = 0; i < texts.size(); ++i) lines.push_back({Text("%-9s ", i == 0 ? name : "") + texts[i]});
}

}  // namespace

Story TellStory(const TailEvent& event, const Json::Value& record, const ConfigPicture& picture,
                const std::string& appDir) {
    const EventInWords words = WordEvent(event);
    const Json::Value body = EventBody(event);
    Story story;
    story.title = TitleOf(event, words);
    switch (words.kind) {
        case EventKind::kSelfKill: TellSelfKill(body, record, picture, story); break;
        case EventKind::kComponentEnd: TellComponentEnd(event, body, picture, appDir, story); break;
        case EventKind::kOom: TellOom(body, picture, story); break;
        case EventKind::kDrift: TellDrift(body, picture, story); break;
        case EventKind::kStall: TellStall(body, story); break;
        case EventKind::kUncleanStop: TellUncleanStop(body, story); break;
        case EventKind::kHost:
            story.measured.push_back(words.what);
            story.done.push_back("told it; the agent's own limits do not depend on it");
            story.todo.push_back("free memory or disk space on the host");
            break;
        case EventKind::kPressure:
            story.measured.push_back(words.what);
            if (!WordIn(body, "component").empty()) {
                story.done.push_back("told it; the limit holds as it was asked for");
                story.todo.push_back(AdviseOnStall(StallIn(body)));
                break;
            }
            story.done.push_back("told it; the agent's own limits do not depend on it");
            story.todo.push_back("give those processes a limit of their own, or the host more of what it waits for; " +
                                 std::string("thresholds: \"pressure\" in conf/agent.json"));
            break;
        case EventKind::kObservation:
            story.measured.push_back(words.what);
            story.done.push_back("told it");
            story.todo.push_back("tervanectl advise says what the limits would have done");
            break;
        case EventKind::kWouldKill:
            story.measured.push_back(words.what);
            story.done.push_back("told it, and left the process alone");
            story.todo.push_back(
                "raise that limit before it is put in force, or find out why so much is taken: "
                "tervanectl advise");
            break;
        case EventKind::kOther: story.measured.push_back(words.what); break;
    }
    return story;
}

Story TellLimits(const StatusReport& report, const ConfigPicture& picture) {
    Story story;
    const std::vector<Trouble> found = FindTrouble(report);
    story.title = "limits of " + report.process + ", " + ClockText(report.now) +
                  (found.empty() && picture.refusals.empty() ? ": all that were asked for are in force" : "");
    story.measured.push_back(report.modeReason);
    for (const char* key : {"resourceLimitMode", "maxCpu", "maxMemory"}) {
        const ConfigRow* row = FindRow(picture, key);
        if (row != nullptr) story.limits.push_back({std::string(key) + " " + row->value, OriginOf(*row), row->note});
    }
    for (const Trouble& trouble : found) {
        story.measured.push_back(trouble.what);
        const std::string& remedy = trouble.remedy;
        if (std::find(story.todo.begin(), story.todo.end(), remedy) == story.todo.end()) story.todo.push_back(remedy);
    }
    if (!report.keeper.lastRepair.empty()) story.done.push_back("put right last: " + report.keeper.lastRepair);
    for (const ConfigRefusal& refusal : picture.refusals) {
        story.measured.push_back("refused: " + WordRefusal(refusal.file, refusal.finding));
        story.todo.push_back("correct " + refusal.file + "; tervanectl config check says what the agent makes of it");
    }
    return story;
}

std::string WordStory(const Story& story) {
    std::vector<TextLine> lines{{story.title, LineKind::kTitle}};
    AddSection(lines, "measured", story.measured);
    std::vector<std::string> limits;
    for (const StoryLimit& limit : story.limits) {
        limits.push_back(limit.what + (limit.origin.empty() ? "" : ": " + limit.origin) +
                         (limit.note.empty() ? "" : " (" + limit.note + ")"));
    }
    AddSection(lines, "limit", limits);
    std::vector<std::string> threads;
    if (!story.threads.empty()) threads.emplace_back("    TID       CPU    SYSTEM  NAME");
    for (const StoryThread& thread : story.threads) {
        threads.push_back(Text("%7lld  %8s  %8s  ", static_cast<long long>(thread.tid),
                               HumanPercent(thread.cpu100Times).c_str(), HumanPercent(thread.system100Times).c_str()) +
                          thread.name);
    }
    AddSection(lines, "threads", threads);
    AddSection(lines, "stack", story.stack);
    AddSection(lines, "done", story.done);
    AddSection(lines, "to do", story.todo);
    return PaintLines(lines);
}

void AddStory(const Story& story, Json::Value& view) {
    view["title"] = story.title;
    view["measured"] = JsonList(story.measured);
    view["stack"] = JsonList(story.stack);
    view["done"] = JsonList(story.done);
    view["todo"] = JsonList(story.todo);
    view["limits"] = Json::Value(Json::arrayValue);
    view["threads"] = Json::Value(Json::arrayValue);
    for (const StoryLimit& limit : story.limits) {
        Json::Value& object = view["limits"].append(Json::Value(Json::objectValue));
        object["what"] = limit.what;
        object["origin"] = limit.origin;
        object["note"] = limit.note;
    }
    for (const StoryThread& thread : story.threads) {
        Json::Value& object = view["threads"].append(Json::Value(Json::objectValue));
        object["tid"] = Json::Int64(thread.tid);
        object["name"] = thread.name;
        object["cpu_100times"] = Json::Int64(thread.cpu100Times);
        object["system_100times"] = Json::Int64(thread.system100Times);
    }
}

}  // namespace agent
