// From events and limits to marks.
#include "ReportMarks.h"

#include <json/json.h>

#include <algorithm>
#include <map>

#include "EventWords.h"
#include "Text.h"

namespace agent {

namespace {

constexpr size_t kMostTextBytes = 400;
constexpr int kPercent = 100;
constexpr int kKbPerMb = 1024;

struct Look {
    const char* letter;
    const char* name;
};
/// In the order of MarkKind.
constexpr Look kLooks[kMarkKinds] = {{"M", "out-of-memory kill"},
                                     {"K", "self-kill"},
                                     {"W", "kill that an observed limit would have caused"},
                                     {"D", "drift of a limit"},
                                     {"C", "change of a limit"},
                                     {"E", "end of a component"},
                                     {"H", "host"}};

std::string Word(const Json::Value& value) {
    return value.isString() ? value.asString() : "";
}

void AddSubject(std::vector<std::string>& subjects, const std::string& name) {
    if (!name.empty() && subjects.size() < kMostGroups) subjects.push_back(name);
}

/// A component that ended for want of memory is marked as that.
MarkKind KindOf(EventKind kind, const Json::Value& body) {
    switch (kind) {
        case EventKind::kOom: return MarkKind::kOom;
        case EventKind::kSelfKill: return MarkKind::kKill;
        case EventKind::kWouldKill: return MarkKind::kWouldKill;
        case EventKind::kObservation: return MarkKind::kConfig;
        case EventKind::kDrift: return MarkKind::kDrift;
        case EventKind::kComponentEnd: return body["oom"].isObject() ? MarkKind::kOom : MarkKind::kEnd;
        case EventKind::kUncleanStop: return MarkKind::kEnd;
        default: return MarkKind::kHost;
    }
}

/// Whose limit it was is named by its leaf, else by its group.
std::vector<std::string> SubjectsOf(const Json::Value& body) {
    std::vector<std::string> subjects;
    if (body.isMember("items") && body["items"].isObject()) {
        for (const std::string& key : body["items"].getMemberNames()) {
            const Json::Value& item = body["items"][key];
            if (item.isObject()) AddSubject(subjects, Word(item["group"]));
        }
    }
    const std::string component = Word(body["component"]);
    AddSubject(subjects, component.empty() ? Word(body["group"]) : component);
    AddSubject(subjects, Word(body["process"]));
    return subjects;
}

std::string LimitText(int cpu100Times, int memoryKb, bool cpu) {
    if ((cpu ? cpu100Times : memoryKb) == 0) return "none";
    return cpu ? Text("%.2f %%", static_cast<double>(cpu100Times) / kPercent)
               : Text("%.1f MB", static_cast<double>(memoryKb) / kKbPerMb);
}

}  // namespace

const char* LetterOf(MarkKind kind) {
    return kLooks[static_cast<size_t>(kind)].letter;
}

const char* NameOf(MarkKind kind) {
    return kLooks[static_cast<size_t>(kind)].name;
}

std::vector<Mark> MarksOfEvents(const std::vector<TailEvent>& events, int64_t since) {
    std::vector<Mark> marks;
    for (const TailEvent& event : events) {
        if (event.time < since) continue;
        const Json::Value parsed = EventBody(event);
        const Json::Value body = parsed.isObject() ? parsed : Json::Value(Json::objectValue);
        const EventInWords words = WordEvent(event);
        Mark mark;
        mark.time = event.time;
        mark.kind = KindOf(words.kind, body);
        mark.text = (words.about[0] + ": " + words.what).substr(0, kMostTextBytes);
        mark.subjects = SubjectsOf(body);
        marks.push_back(std::move(mark));
    }
    return marks;
}

std::vector<Mark> MarksOfLimits(const DayHistory& day) {
    std::map<int64_t, Mark> found;
    const auto note = [&found](int64_t time, const std::string& name, const std::string& change) {
        Mark& mark = found[time];
        mark.time = time;
        mark.kind = MarkKind::kConfig;
        if (mark.text.size() < kMostTextBytes) {
            mark.text += (mark.text.empty() ? "" : "; ") + (name.empty() ? std::string("whole agent") : name) + change;
        }
        mark.subjects.push_back(name.empty() ? "/" : name);
    };
    for (const GroupUse& group : day.groups) {
        for (size_t i = 1; i < group.points.size(); ++i) {
            const UsePoint& was = group.points[i - 1];
            const UsePoint& is = group.points[i];
            for (const bool cpu : {true, false}) {
                const std::string before = LimitText(was.cpuLimit100Times, was.memoryLimitKb, cpu);
                const std::string after = LimitText(is.cpuLimit100Times, is.memoryLimitKb, cpu);
                if (before == after) continue;
                note(is.to, group.name, std::string(cpu ? " CPU " : " memory ") + before + " to " + after);
            }
        }
    }
    std::vector<Mark> marks;
    marks.reserve(found.size());
    for (auto& entry : found) marks.push_back(std::move(entry.second));
    return marks;
}

bool Concerns(const Mark& mark, const std::string& group) {
    if (mark.subjects.empty()) return true;
    const std::string leaf = group.substr(group.rfind('/') == std::string::npos ? 0 : group.rfind('/') + 1);
    return std::any_of(mark.subjects.begin(), mark.subjects.end(), [&](const std::string& subject) {
        return subject == group || subject == leaf || (group.empty() && subject == "/");
    });
}

}  // namespace agent
