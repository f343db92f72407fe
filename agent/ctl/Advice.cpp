// Arithmetic and words of the advice.
#include "Advice.h"

#include <algorithm>

#include "HumanText.h"
#include "Printable.h"
#include "Text.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr int64_t kHeadRoomPercent = 25;
/// A group that is held back more often than this wants more than it shows.
constexpr int64_t kOftenPercent = 1;
/// A group that takes less of its limit than this in its busiest minutes has enough of it.
constexpr int64_t kNearPercent = 70;
constexpr int64_t kPercent = 100;
constexpr int64_t kKbPerMb = 1024;
constexpr int64_t kCpuStep = 10;  // hundredths of a percent

int64_t Percentile99(std::vector<int64_t>& values) {
    if (values.empty()) return -1;
    const size_t index = (values.size() * 99 + 99) / 100 - 1;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
    return values[index];
}

int64_t RoundUp(int64_t value, int64_t step) {
    return (value + step - 1) / step * step;
}

/// Sets peak, p99 and the proposal from the figures of the known minutes. `often`: the limit was hit so much that the
/// figures show the limit rather than the need.
void Judge(std::vector<int64_t> values, bool often, int64_t step, LimitAdvice& out) {
    out.knownMinutes = static_cast<int64_t>(values.size());
    if (!values.empty()) out.peak = *std::max_element(values.begin(), values.end());
    out.p99 = Percentile99(values);
    if (out.knownMinutes < kLeastMinutes) return;
    const int64_t need = std::max(out.peak, out.p99 + out.p99 * kHeadRoomPercent / kPercent);
    out.raised = often && out.limit > 0;
    out.proposal = RoundUp(out.raised ? std::max(need, out.limit + out.limit / 2) : std::max(need, step), step);
}

/// The minutes of one limit that are ground for a proposal.
struct Ground {
    std::vector<UsePoint> points;
    bool observed = false;
};

/// While a limit was only observed the group took what it wanted, otherwise what the limit left it: the two say nothing
/// of each other. Where enough minutes were observed these alone count, else the others do; where those are fewer
/// still, the observed ones.
Ground FindGround(const GroupUse& group, int bit, int64_t UsePoint::*value) {
    std::vector<UsePoint> observed;
    std::vector<UsePoint> held;
    for (const UsePoint& point : group.points) {
        if (point.*value < 0) continue;
        ((point.observed & bit) != 0 ? observed : held).push_back(point);
    }
    const size_t enough = std::min<size_t>(held.size() + 1, kLeastMinutes);
    if (!observed.empty() && observed.size() >= enough) return {std::move(observed), true};
    return {std::move(held), false};
}

LimitAdvice AdviseOnCpu(const GroupUse& group) {
    LimitAdvice out;
    std::vector<int64_t> values;
    int64_t throttled = 0;
    const Ground ground = FindGround(group, zel::kModeCpu, &UsePoint::cpu100Times);
    for (const UsePoint& point : ground.points) {
        values.push_back(point.cpu100Times);
        if (point.throttled100Times > 0) {
            ++out.hitMinutes;
            throttled += point.throttled100Times;
        }
    }
    out.limit = group.points.empty() ? 0 : group.points.back().cpuLimit100Times;
    const bool often = throttled > static_cast<int64_t>(values.size()) * kOftenPercent * kPercent;
    std::vector<int64_t> sorted = values;
    const bool near = Percentile99(sorted) * kPercent >= out.limit * kNearPercent;
    // What was only observed took what it needs.
    Judge(std::move(values), often && near && !ground.observed, kCpuStep, out);
    // What is taken in a minute is no measure for what is wanted in a tenth of a second.
    out.bursts = often && !near && out.proposal > 0;
    if (out.bursts) out.proposal = std::max(out.proposal, out.limit);
    return out;
}

LimitAdvice AdviseOnMemory(const GroupUse& group) {
    LimitAdvice out;
    std::vector<int64_t> values;
    const Ground ground = FindGround(group, zel::kModeMemory, &UsePoint::memoryKb);
    for (const UsePoint& point : ground.points) {
        values.push_back(point.memoryKb);
        if (point.hits > 0) ++out.hitMinutes;
    }
    out.limit = group.points.empty() ? 0 : group.points.back().memoryLimitKb;
    Judge(std::move(values), out.hitMinutes > 0 && !ground.observed, kKbPerMb, out);
    return out;
}

std::string Cpu(int64_t hundredths) {
    return hundredths < 0 ? "?" : Text("%.2f%%", static_cast<double>(hundredths) / static_cast<double>(kPercent));
}

std::string Memory(int64_t kb) {
    return kb < 0 ? "?" : Text("%.1fM", static_cast<double>(kb) / static_cast<double>(kKbPerMb));
}

std::string Line(const std::string& name, const LimitAdvice& advice, std::string (*show)(int64_t)) {
    const std::string share =
        advice.limit == 0 || advice.knownMinutes == 0
            ? "-"
            : Text("%lld/%lld", static_cast<long long>(advice.hitMinutes), static_cast<long long>(advice.knownMinutes));
    const char* const remark = advice.raised ? " raise, look again" : advice.bursts ? " bursts only" : "";
    return Text("%-32s %9s %9s %9s %11s %9s%s\n", name.c_str(), show(advice.peak).c_str(), show(advice.p99).c_str(),
                advice.limit == 0 ? "none" : show(advice.limit).c_str(), share.c_str(),
                advice.proposal == 0 ? "-" : show(advice.proposal).c_str(), remark);
}

std::string Table(const std::vector<GroupAdvice>& advice, const char* title, LimitAdvice GroupAdvice::*what,
                  std::string (*show)(int64_t)) {
    std::string text = Text("%-32s %9s %9s %9s %11s %9s\n", title, "peak", "p99", "limit", "hit/minutes", "proposal");
    for (const GroupAdvice& each : advice) {
        text += Line(each.name.empty() ? "whole agent" : Printable(each.name), each.*what, show);
    }
    return text;
}

/// What a group has used while a limit was only observed: nothing of the minutes in which it was in force.
struct ObservedUse {
    std::vector<int64_t> values;
    int64_t limit = 0;  ///< of the last such minute
    int64_t hits = 0;
    int64_t minutes = 0;
    int64_t hitMinutes = 0;

    std::string Sentence(const char* name, std::string (*show)(int64_t)) const {
        std::vector<int64_t> sorted = values;
        const int64_t peak = values.empty() ? -1 : *std::max_element(values.begin(), values.end());
        return std::string(name) + " peak " + show(peak) + ", p99 " + show(Percentile99(sorted)) + " of " + show(limit);
    }
};

/// `value` and `hits` of the limit whose bit of the mode is `bit`.
ObservedUse UseWhileObserved(const GroupUse& group, int bit, int64_t UsePoint::*value, int64_t UsePoint::*hits,
                             int UsePoint::*limit) {
    ObservedUse use;
    for (const UsePoint& point : group.points) {
        if ((point.observed & bit) == 0) continue;
        use.limit = point.*limit;
        if (point.*value >= 0) use.values.push_back(point.*value);
        if (point.*hits < 0) continue;
        ++use.minutes;
        use.hitMinutes += point.*hits > 0 ? 1 : 0;
        use.hits += point.*hits;
    }
    return use;
}

std::string ObservedCpu(const GroupUse& group) {
    const ObservedUse use = UseWhileObserved(group, zel::kModeCpu, &UsePoint::cpu100Times, &UsePoint::throttledMs,
                                             &UsePoint::cpuLimit100Times);
    if (use.limit == 0 || use.minutes == 0) return "";
    return use.Sentence("CPU", Cpu) + Text(": held back in %lld of %lld minutes, for %s",
                                           static_cast<long long>(use.hitMinutes), static_cast<long long>(use.minutes),
                                           HumanDuration(use.hits).c_str());
}

std::string ObservedMemory(const GroupUse& group) {
    const ObservedUse use =
        UseWhileObserved(group, zel::kModeMemory, &UsePoint::memoryKb, &UsePoint::hits, &UsePoint::memoryLimitKb);
    if (use.limit == 0) return "";
    return use.Sentence("memory", Memory) + Text(": %lld would have been killed", static_cast<long long>(use.hits));
}

std::string ObservedHead(const DayHistory& day) {
    if (day.observedRows == day.rows) {
        return Text("observed only, nothing is limited: with these limits, in the last %s:\n",
                    HumanDuration((day.to - day.from) * 1000).c_str());
    }
    return Text("observed only in %zu of %zu recorded minutes%s; with these limits, in those minutes:\n",
                day.observedRows, day.rows, day.observedAtEnd == 0 ? ", in force at the end" : "");
}

}  // namespace

std::string ObservedText(const DayHistory& day) {
    if (day.observed == 0) return "";
    std::string text = ObservedHead(day);
    for (const GroupUse& group : day.groups) {
        const std::string cpu = ObservedCpu(group);
        const std::string memory = ObservedMemory(group);
        if (cpu.empty() && memory.empty()) continue;
        text += "  " + (group.name.empty() ? std::string("whole agent") : Printable(group.name)) + ": " + cpu +
                (cpu.empty() || memory.empty() ? "" : "; ") + memory + "\n";
    }
    return text;
}

std::vector<GroupAdvice> MakeAdvice(const DayHistory& day) {
    std::vector<GroupAdvice> advice;
    for (const GroupUse& group : day.groups) advice.push_back({group.name, AdviseOnCpu(group), AdviseOnMemory(group)});
    return advice;
}

std::string AdviceText(const DayHistory& day, const std::vector<GroupAdvice>& advice) {
    std::string text;
    for (const std::string& problem : day.problems) text += "note: " + Printable(problem) + "\n";
    if (advice.empty()) {
        return text +
               "nothing is known of any group yet: the main process records them once a minute while it keeps a "
               "unified "
               "tree (resource_limit_mode has bit 8)\n";
    }
    text += Text("from %zu recorded minutes of the last %.1f hours\n\n", day.rows,
                 static_cast<double>(day.to - day.from) / 3600);
    const std::string observed = ObservedText(day);
    if (!observed.empty()) text += observed + "  when each was: tervanectl events --type would-kill\n\n";
    text += Table(advice, "CPU, of one processor", &GroupAdvice::cpu, Cpu) + "\n";
    text += Table(advice, "memory", &GroupAdvice::memory, Memory) + "\n";
    return text +
           Text(
               "hit: minutes in which the limit held the group back (CPU) or was reached (memory).\n"
               "proposal: the highest minute, or p99 and %lld %% above it, whichever is more; none from fewer than "
               "%lld.\n"
               "\"raise, look again\": the limit was hit so much that the need cannot be seen; half as much again is a "
               "step.\n\"bursts only\": it held back bursts of a group that takes less than %lld %% of it in a minute; "
               "it "
               "stays.\nMemory is seen once a minute: what comes and goes within one shows only as a hit.\n",
               static_cast<long long>(kHeadRoomPercent), static_cast<long long>(kLeastMinutes),
               static_cast<long long>(kNearPercent));
}

}  // namespace agent
