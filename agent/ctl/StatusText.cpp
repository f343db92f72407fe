// Wording and columns. Every text that another process has said was made printable when its status was read.
#include "StatusText.h"

#include <algorithm>
#include <string_view>

#include "EventWords.h"
#include "HumanText.h"
#include "Text.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

using Lines = std::vector<TextLine>;

void Add(Lines& lines, std::string text, LineKind kind = LineKind::kPlain) {
    lines.push_back({std::move(text), kind});
}

void AddRow(Lines& lines, std::string text, LineKind kind) {
    lines.push_back({std::move(text), kind, true});
}

std::string Percent(int64_t hundredths) {
    return Text("%lld.%02lld %%", static_cast<long long>(hundredths / 100), static_cast<long long>(hundredths % 100));
}

double MbOfKb(int64_t kb) {
    return static_cast<double>(kb) / 1024.0;
}

double MbOfBytes(int64_t bytes) {
    return static_cast<double>(bytes) / 1048576.0;
}

double SecondsOfUs(int64_t us) {
    return static_cast<double>(us) / 1e6;
}

unsigned long long Number(uint64_t value) {
    return value;
}

long long AtLeastZero(int64_t value) {
    return value < 0 ? 0 : value;
}

/// A counter that the kernel may not keep.
std::string Count(int64_t value) {
    return value < 0 ? "unknown" : std::to_string(value);
}

/// How long before its status that was; another process's word.
int64_t SecondsSince(int64_t time, const StatusReport& report) {
    return time >= 0 && report.now > time ? report.now - time : 0;
}

/// For how many of its periods a group was held back.
std::string HeldBack(int64_t throttled, int64_t periods) {
    if (periods < 0) return "an unknown number of periods";
    return Text("%lld of %lld periods", static_cast<long long>(throttled), static_cast<long long>(periods));
}

int DepthOf(const zel::CgroupNodeStatus& node) {
    return node.level == zel::CgroupLevel::kParent ? 0 : node.level == zel::CgroupLevel::kGroup ? 1 : 2;
}

/// How often work was told to hold back, when it was.
void AddHeldBack(Lines& lines, const StatusReport& report) {
    uint64_t told = 0;
    uint64_t sleptMs = 0;
    std::string each;
    for (const HoldBackFigures& figures : report.holdBacks) {
        told += figures.answers;
        sleptMs += figures.sleptMs;
        each += Text("%s%llu", each.empty() ? "" : ", ", Number(figures.answers));
    }
    if (told == 0) return;
    Add(lines, Text("held back so far  %s times by priority, paused for %.1f s", each.c_str(),
                    static_cast<double>(sleptMs) / 1000));
}

void AddOwnUse(Lines& lines, const StatusReport& report) {
    const zelhost::SamplerFigures& own = report.sampler;
    Add(lines,
        Text("%s, process %d, up %lld s; %s", report.process.c_str(), report.pid,
             static_cast<long long>(report.uptimeSeconds), report.modeReason.c_str()),
        LineKind::kTitle);
    if (!report.samplerRuns) {
        Add(lines, "itself  is not sampled");
    } else {
        Add(lines,
            Text("itself  cpu %s of %d %% (level %d), minute %s; memory %.1f of %d MB (level %d); %lld descriptors",
                 Percent(own.cpu100Times).c_str(), own.maxCpu, own.cpuLevel, Percent(own.cpuMinute100Times).c_str(),
                 MbOfKb(own.memKb), own.maxMemMb, own.memLevel, static_cast<long long>(own.descriptors)),
            own.cpuLevel >= 2 || own.memLevel >= 2 ? LineKind::kAlarm : LineKind::kPlain);
    }
    Add(lines,
        Text("hold back now?  priority 0 %s, 1 %s, 2 %s%s", report.cpuNeedLimit[0] ? "yes" : "no",
             report.cpuNeedLimit[1] ? "yes" : "no", report.cpuNeedLimit[2] ? "yes" : "no",
             report.diskFull ? "; the disk is full" : ""),
        report.diskFull ? LineKind::kAlarm : LineKind::kPlain);
    AddHeldBack(lines, report);
    const std::pair<const char*, const WorkerFigures*> kinds[] = {{"greedy", &report.greedy},
                                                                  {"polite", &report.polite}};
    for (const auto& [name, worker] : kinds) {
        if (worker->threads == 0) continue;
        Add(lines, Text("%s  %d threads, %llu pieces done, asked %llu times, told to hold back %llu times%s", name,
                        worker->threads, Number(worker->pieces), Number(worker->asked), Number(worker->held),
                        worker == &report.greedy ? " and did not" : " and did"));
    }
}

std::string NoLimit(const char* name, const zel::CgroupControllerStatus& controller, bool observed) {
    if (observed) return std::string(name) + " no limit is set, " + controller.advice;
    return std::string(name) + " no limit in force: " + controller.reason +
           (controller.advice.empty() ? "" : "; " + controller.advice);
}

/// What one group's limits would have done.
std::string ObservedRow(const zel::ObservedGroup& group) {
    const zel::CgroupFigures& figures = group.figures;
    std::string text = figures.name.empty() ? "whole agent" : figures.name;
    if (figures.cpuLimit100Times > 0 && figures.throttledMs >= 0) {
        text +=
            Text(": cpu peak %s of %s, held back %s, %.1f s", Percent(group.peakCpu100Times).c_str(),
                 Percent(figures.cpuLimit100Times).c_str(), HeldBack(figures.throttledPeriods, figures.periods).c_str(),
                 static_cast<double>(figures.throttledMs) / 1000);
    }
    if (figures.memoryLimitKb > 0) {
        text += Text("%s memory peak %.1f of %.1f MB, %llu would have been killed",
                     text.find(':') == std::string::npos ? ":" : ";", MbOfKb(group.peakMemoryKb),
                     MbOfKb(figures.memoryLimitKb), Number(group.memoryKills));
    }
    return text;
}

/// With these limits: what would have been, since they are observed.
void AddObserved(Lines& lines, const StatusReport& report) {
    if (report.observed == 0) return;
    if (report.wouldEnd > 0 || report.sampler.observedHoldBacks > 0) {
        Add(lines, Text("observed  this process would have ended itself %llu times; work asked %llu times while it "
                        "would have been told to hold back, and went on",
                        Number(report.wouldEnd), Number(report.sampler.observedHoldBacks)));
    }
    if (report.observedGroups.empty()) return;
    Add(lines, Text("observed  with these limits, in the last %s:",
                    HumanDuration(report.observedGroups.front().observedMs).c_str()));
    for (const zel::ObservedGroup& group : report.observedGroups) {
        if (group.figures.cpuLimit100Times == 0 && group.figures.memoryLimitKb == 0) continue;
        Add(lines, "          " + ObservedRow(group),
            group.memoryKills > 0 || group.figures.throttledPeriods > 0 ? LineKind::kAlarm : LineKind::kPlain);
    }
}

void AddOwnGroup(Lines& lines, const StatusReport& report) {
    const zel::CgroupCpuStatus& cpu = report.cgroup.cpu;
    const zel::CgroupMemStatus& memory = report.cgroup.mem;
    if (cpu.limited) {
        Add(lines, Text("cpu     limit %s in %s; throttled %s", Percent(cpu.limit100Times).c_str(),
                        cpu.limitPath.c_str(), HeldBack(cpu.throttledPeriods, cpu.periods).c_str()) +
                       (cpu.throttledUs < 0 ? ", the kernel keeps no throttling counters"
                                            : Text(", %.1f s", SecondsOfUs(cpu.throttledUs))));
    } else {
        Add(lines, NoLimit("cpu    ", cpu, (report.mode & report.observed & zel::kModeCpu) != 0));
    }
    if (memory.limited) {
        Add(lines, Text("memory  limit %.1f MB in %s, used %s; limit reached %s times, %s killed",
                        MbOfBytes(memory.limitBytes), memory.limitPath.c_str(),
                        memory.usageBytes < 0 ? "unknown" : Text("%.1f MB", MbOfBytes(memory.usageBytes)).c_str(),
                        Count(memory.limitHits).c_str(), Count(memory.oomKills).c_str()));
    } else {
        Add(lines, NoLimit("memory ", memory, (report.mode & report.observed & zel::kModeMemory) != 0));
    }
}

/// A figure against its bound, in the columns of a wide table with units and of a narrow one without.
std::string UseOf(double used, bool known, double limit, const char* unit, int decimals, bool wide) {
    const std::string one = known ? Text("%.*f%s", decimals, used, wide ? unit : "") : "-";
    const std::string other = limit > 0 ? Text("%.*f%s", decimals, limit, wide ? unit : "") : wide ? "no limit" : "-";
    return Text(wide ? "%9s of %-12s" : "%6s/%-7s", one.c_str(), other.c_str());
}

/// Held back since the last picture where that is known, else since the group is there.
std::string ThrottledText(const zel::CgroupUse& cpu, const CpuShares* now) {
    if (!cpu.present) return "-";
    if (cpu.periods < 0) return "not counted";
    const double seconds = SecondsOfUs(cpu.throttledUs);
    const auto share = now == nullptr ? CpuShares::const_iterator() : now->find(cpu.path);
    if (now != nullptr && share != now->end()) {
        return Text("%3lld %% %7.1fs", static_cast<long long>(share->second / 100), seconds);
    }
    return Text("%lld/%lld %.1fs", static_cast<long long>(cpu.throttledPeriods), static_cast<long long>(cpu.periods),
                seconds);
}

/// One group of the tree in the table's columns.
std::string TableRow(const zel::CgroupNodeStatus& node, const CpuShares& shares, const CpuShares* held, bool wide) {
    const std::string name = node.level == zel::CgroupLevel::kParent
                                 ? "whole agent"
                                 : std::string(static_cast<size_t>(DepthOf(node)) * 2, ' ') + node.name;
    const auto share = shares.find(node.cpu.path);
    const bool shareKnown = share != shares.end();
    const std::string cpu = UseOf(shareKnown ? static_cast<double>(share->second) / 100 : 0, shareKnown,
                                  static_cast<double>(node.cpu.limit) / 100, " %", 2, wide);
    const std::string throttled = ThrottledText(node.cpu, held);
    const std::string memory =
        UseOf(MbOfKb(node.memory.used), node.memory.used >= 0, MbOfKb(node.memory.limit), " MB", 1, wide);
    const char* member = node.level != zel::CgroupLevel::kComponent ? ""
                         : node.pids.empty()                        ? "empty"
                         : node.membershipVerified                  ? "verified"
                                                                    : "NOT VERIFIED";
    std::string row = Text(wide ? "%-26s%s%-18s%s%-5lld%s" : "%-19s%s%-15s%s%-4lld%s", name.c_str(), cpu.c_str(),
                           throttled.c_str(), memory.c_str(), AtLeastZero(node.memory.oomKills), member);
    row.erase(row.find_last_not_of(' ') + 1);
    return row;
}

/// What a component is ordered by, the greatest first.
int64_t Weight(const zel::CgroupNodeStatus& node, const CpuShares& shares, SortOrder order) {
    switch (order) {
        case SortOrder::kTree: break;
        case SortOrder::kCpu: {
            const auto share = shares.find(node.cpu.path);
            return share == shares.end() ? -1 : share->second;
        }
        case SortOrder::kMemory: return node.memory.used;
        case SortOrder::kThrottling: return node.cpu.throttledUs;
    }
    return 0;
}

/// The tree's rows: groups stay where they are, the components of each are put in order.
std::vector<zel::CgroupNodeStatus> Sorted(const StatusReport& report, const CpuShares& shares, SortOrder order) {
    std::vector<zel::CgroupNodeStatus> nodes = report.tree.nodes;
    const auto isComponent = [](const zel::CgroupNodeStatus& node) {
        return node.level == zel::CgroupLevel::kComponent;
    };
    for (auto begin = nodes.begin(); begin != nodes.end();) {
        begin = std::find_if(begin, nodes.end(), isComponent);
        const auto end = std::find_if_not(begin, nodes.end(), isComponent);
        std::stable_sort(begin, end, [&](const zel::CgroupNodeStatus& one, const zel::CgroupNodeStatus& other) {
            return Weight(one, shares, order) > Weight(other, shares, order);
        });
        begin = end;
    }
    return nodes;
}

/// Whether a group was held back in most of its periods just now.
bool IsShort(const zel::CgroupNodeStatus& node, const CpuShares* throttled) {
    constexpr int64_t kMost = 5000;
    if (throttled == nullptr) return false;
    const auto share = throttled->find(node.cpu.path);
    return share != throttled->end() && share->second > kMost;
}

void AddTree(Lines& lines, const StatusReport& report, const CpuShares& shares, const PictureOptions& options) {
    if (report.tree.nodes.empty() || !report.tree.present) return;
    Add(lines, "");
    AddRow(lines,
           options.wide
               ? Text("%-26s%-25s%-18s%-25s%-5s%s", "group", "cpu used of quota", "throttled", "memory used of limit",
                      "oom", "member")
               : Text("%-19s%-14s%-15s%-14s%-4s%s", "group", "  cpu %", "throttled", "  memory MB", "oom", "member"),
           LineKind::kTableHead);
    for (const zel::CgroupNodeStatus& node : Sorted(report, shares, options.order)) {
        const bool astray =
            node.level == zel::CgroupLevel::kComponent && !node.pids.empty() && !node.membershipVerified;
        AddRow(lines, TableRow(node, shares, options.throttled, options.wide),
               astray                             ? LineKind::kAlarm
               : IsShort(node, options.throttled) ? LineKind::kNotice
                                                  : LineKind::kPlain);
    }
}

/// The answers of the components to their workers.
void AddCooperation(Lines& lines, const Cooperation& components) {
    Add(lines, "");
    AddRow(lines,
           Text("%-19s%-11s%-14s%-10s%-10s%s", "holds back", "cpu level", "memory level", "prio 0", "prio 1",
                "prio 2    looks    told so far    paused"),
           LineKind::kTableHead);
    for (const auto& [name, seen] : components) {
        std::string row = Text("  %-17s%-11d%-14d", name.c_str(), seen.cpuLevel, seen.memoryLevel);
        for (size_t priority = 0; priority < kPriorities; ++priority) {
            const uint64_t share = seen.held[priority] * 100 / std::max<uint64_t>(1, seen.looks);
            row += Text("%-4s%3llu %% ", seen.now[priority] ? "yes" : "no", Number(share));
        }
        row += Text("of %-4llu %10llu %9.1fs", Number(seen.looks), Number(seen.told),
                    static_cast<double>(seen.sleptMs) / 1000);
        AddRow(lines, row, seen.now[kPriorities - 1] ? LineKind::kNotice : LineKind::kPlain);
    }
}

/// What others have changed on the tree, when they have.
void AddKept(Lines& lines, const StatusReport& report) {
    const zel::CgroupKeeperStatus& keeper = report.keeper;
    uint64_t all = 0;
    std::string kinds;
    for (size_t kind = 0; kind < keeper.found.size(); ++kind) {
        if (keeper.found[kind] == 0) continue;
        all += keeper.found[kind];
        kinds += Text("%s%s %llu", kinds.empty() ? "" : ", ", zel::kCgroupDriftKinds[kind], Number(keeper.found[kind]));
    }
    if (all == 0 && keeper.notInForce.empty()) return;
    Add(lines, "");
    std::string text = Text("kept    %llu changes by others (%s)", Number(all), kinds.c_str());
    if (keeper.lastRepairedAt > 0) {
        const auto ago = static_cast<long long>(SecondsSince(keeper.lastRepairedAt, report));
        text += Text(", last repaired %lld s ago: ", ago) + keeper.lastRepair;
    }
    Add(lines, text);
    for (const std::string& thing : keeper.contested) {
        Add(lines, "        contested by another program: " + thing, LineKind::kAlarm);
    }
    for (const std::string& thing : keeper.notInForce) Add(lines, "        not in force: " + thing, LineKind::kAlarm);
}

/// What the host waits for, where its kernel tells.
void AddPressure(Lines& lines, const StatusReport& report) {
    std::string figures;
    std::string stalls;
    bool lasts = false;
    for (const PressureStatus& pressure : report.pressure) {
        if (pressure.avg10_100times >= 0) {
            figures += (figures.empty() ? "" : ", ") + pressure.resource + " " + Percent(pressure.avg10_100times);
        }
        if (pressure.stalls == 0) continue;
        lasts = lasts || pressure.lasts;
        stalls += Text(
            "%s%s %llu%s", stalls.empty() ? "" : ", ", pressure.resource.c_str(), Number(pressure.stalls),
            pressure.lasts
                ? ", now"
                : Text(", last %lld s ago", static_cast<long long>(SecondsSince(pressure.lastAt, report))).c_str());
    }
    if (figures.empty()) return;
    Add(lines, "");
    Add(lines, "host    waited in the last 10 s: " + figures + (stalls.empty() ? "" : "; stalls: " + stalls),
        lasts ? LineKind::kAlarm : LineKind::kPlain);
    for (const PressureStatus& pressure : report.pressure) {
        if (pressure.watched || pressure.thresholdPercent == 0) continue;
        Add(lines, "        stalls for " + pressure.resource + " are not told: " + pressure.reason, LineKind::kNotice);
    }
}

/// Components that wait in their own groups.
void AddStalls(Lines& lines, const StatusReport& report) {
    bool first = true;
    for (const ComponentStall& stall : report.groupPressure.components) {
        if (stall.stalls == 0) continue;
        const std::string when =
            stall.lasts ? "now" : Text("last %lld s ago", static_cast<long long>(SecondsSince(stall.lastAt, report)));
        const std::string why =
            stall.byLimit
                ? DescribeStall(stall)
                : "for " + stall.resource + (stall.measured ? ", by no limit" : ", by what is not measured yet");
        Add(lines,
            (first ? "stalls  " : "        ") + Text("%s %llu, ", stall.component.c_str(), Number(stall.stalls)) +
                when + ": " + why,
            stall.lasts && stall.byLimit ? LineKind::kAlarm : LineKind::kPlain);
        first = false;
    }
}

std::string EndsOf(const ComponentStatus& component) {
    return Text("%s ended %llu times, last: %s", component.name.c_str(), Number(component.restarts),
                component.lastReason.c_str());
}

std::string NextStart(const ComponentStatus& component) {
    if (component.state != ComponentState::kWaiting) return "";
    return Text(", next start in %lld s", static_cast<long long>(component.waitsSeconds));
}

/// What a process does not do that is there.
std::string Silence(const ComponentStatus& component) {
    if (component.hungSeconds > 0 && !component.suspended) {
        return Text(", hung for %lld s: ", static_cast<long long>(component.hungSeconds)) + component.hungWhat;
    }
    if (!component.suspended) return "";
    return Text(", stopped by a signal for %lld s", static_cast<long long>(component.suspendedSeconds));
}

void AddComponents(Lines& lines, const StatusReport& report, bool all) {
    bool first = true;
    for (const ComponentStatus& component : report.components) {
        const bool silent = component.suspended || component.hungSeconds > 0;
        const bool well = component.restarts == 0 && !silent;
        if (well && !all) continue;
        if (first) Add(lines, "");
        first = false;
        if (component.restarts == 0) {
            const bool runs = component.state == ComponentState::kRunning;
            Add(lines,
                component.name + (runs ? Text(" runs, process %d", component.pid) : " does not run") +
                    Silence(component) + NextStart(component),
                silent ? LineKind::kAlarm : LineKind::kPlain);
            continue;
        }
        Add(lines, EndsOf(component) + Silence(component) + NextStart(component), LineKind::kAlarm);
    }
}

void AddDelivery(Lines& lines, const StatusReport& report) {
    const zelhost::DeliveryStats& delivery = report.delivery;
    if (delivery.present) {
        std::string text = Text("events  accepted %llu, waiting %llu, dropped %llu%s", Number(delivery.accepted),
                                Number(delivery.spooled), Number(delivery.dropped),
                                delivery.spoolBroken ? "; the spool cannot be written" : "");
        for (const zelhost::SinkStats& sink : delivery.sinks) {
            text += Text("; %s delivered %llu%s%s", sink.name.c_str(), Number(sink.delivered),
                         sink.lastError.empty() ? "" : ", down: ", sink.lastError.c_str());
            if (sink.givenUp > 0) text += Text(", given up %llu", Number(sink.givenUp));
        }
        Add(lines, text, delivery.spoolBroken ? LineKind::kAlarm : LineKind::kPlain);
    }
    for (const std::string& event : report.lastEvents) Add(lines, "        " + event);
}

/// How many bytes the first `columns` letters take; each letter is taken for one column wide.
size_t BytesOf(std::string_view text, size_t columns) {
    size_t at = 0;
    for (size_t letters = 0; at < text.size(); ++at) {
        const bool begins = (static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80U;
        if (begins && letters++ == columns) break;
    }
    return at;
}

}  // namespace

const char* NameOf(SortOrder order) {
    switch (order) {
        case SortOrder::kTree: return "tree";
        case SortOrder::kCpu: return "cpu";
        case SortOrder::kMemory: return "memory";
        case SortOrder::kThrottling: return "throttling";
    }
    return "tree";
}

SortOrder NextOrder(SortOrder order) {
    return order == SortOrder::kThrottling ? SortOrder::kTree : static_cast<SortOrder>(static_cast<int>(order) + 1);
}

std::vector<TextLine> MakePicture(const StatusReport& report, const CpuShares& shares, const PictureOptions& options) {
    Lines lines;
    AddOwnUse(lines, report);
    AddOwnGroup(lines, report);
    AddObserved(lines, report);
    AddTree(lines, report, shares, options);
    if (options.cooperation != nullptr && !options.cooperation->empty()) AddCooperation(lines, *options.cooperation);
    AddKept(lines, report);
    AddComponents(lines, report, options.allComponents);
    AddPressure(lines, report);
    AddStalls(lines, report);
    AddDelivery(lines, report);
    return lines;
}

std::vector<TextLine> MakeSummary(const StatusReport& report) {
    Lines lines;
    Add(lines, Text("summary after %lld s: ", static_cast<long long>(report.uptimeSeconds)) + report.modeReason,
        LineKind::kTitle);
    const double seconds = report.uptimeSeconds > 0 ? static_cast<double>(report.uptimeSeconds) : 1.0;
    Add(lines, Text("  this process used %.2f %% of one CPU on average, %.1f MB now",
                    static_cast<double>(report.sampler.cpuTotalNs) / 1e7 / seconds, MbOfKb(report.sampler.memKb)));
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (!report.unified || node.cpu.used < 0) continue;
        Add(lines,
            Text("%*s%-22s %6.2f %% of one CPU on average, quota %s, held back in %s, %lld killed",
                 2 + 2 * DepthOf(node), "", node.name.c_str(), static_cast<double>(node.cpu.used) / 1e4 / seconds,
                 node.cpu.limit > 0 ? Percent(node.cpu.limit).c_str() : "none",
                 HeldBack(node.cpu.throttledPeriods, node.cpu.periods).c_str(), AtLeastZero(node.memory.oomKills)));
    }
    if (!report.unified && report.cgroup.cpu.limited) {
        Add(lines, Text("  limit %s, held back in %s", Percent(report.cgroup.cpu.limit100Times).c_str(),
                        HeldBack(report.cgroup.cpu.throttledPeriods, report.cgroup.cpu.periods).c_str()));
    }
    for (const ComponentStatus& component : report.components) {
        if (component.restarts != 0) Add(lines, "  " + EndsOf(component));
    }
    for (const std::string& event : report.lastEvents) Add(lines, "  event " + event);
    Add(lines, Text("  %llu events accepted, %llu log lines of level 3 or worse", Number(report.delivery.accepted),
                    Number(report.logCount)));
    return lines;
}

std::vector<TextLine> FoldLines(const std::vector<TextLine>& lines, size_t columns) {
    constexpr size_t kIndent = 10;
    constexpr size_t kLeastHead = kIndent + 1;  // a blank before it would leave a piece with hardly anything on it
    Lines folded;
    for (const TextLine& line : lines) {
        std::string_view rest = line.text;
        if (line.isRow) rest = rest.substr(0, BytesOf(rest, columns));
        for (bool first = true;; first = false) {
            const size_t before = first ? 0 : kIndent;
            const size_t end = columns <= 2 * kLeastHead ? rest.size() : BytesOf(rest, columns - before);
            const size_t blank = end >= rest.size() ? std::string_view::npos : rest.rfind(' ', end);
            const bool atBlank = blank != std::string_view::npos && before + blank > kLeastHead;
            const std::string_view piece = rest.substr(0, atBlank ? blank : end);
            Add(folded, std::string(before, ' ').append(piece), line.kind);
            if (end >= rest.size()) break;
            rest.remove_prefix(atBlank ? blank + 1 : end);
        }
    }
    return folded;
}

std::string JoinLines(const std::vector<TextLine>& lines) {
    std::string text;
    for (const TextLine& line : lines) text += line.text + "\n";
    return text;
}

}  // namespace agent
