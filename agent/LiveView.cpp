// Drawing of the live view.
#include "LiveView.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "platform/zel/LogControl.h"

namespace agent {

namespace {

constexpr size_t kShownLines = 8;
constexpr size_t kMaxWaitingLines = 256;
constexpr uint64_t kPlainEvery = 2;  // pictures between two plain ones: nobody reads one a second in a file

LiveView* g_view = nullptr;
std::mutex g_viewLock;

std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Text(const char* format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

int64_t MonotonicUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

std::string Percent(int64_t hundredths) {
    return Text("%lld.%02lld %%", static_cast<long long>(hundredths / 100), static_cast<long long>(hundredths % 100));
}

std::string CpuColumn(const zel::CgroupUse& use, const std::map<std::string, int64_t>& share) {
    auto found = share.find(use.path);
    std::string used = found == share.end() ? "-" : Percent(found->second);
    return Text("%9s of %-9s", used.c_str(), use.limit > 0 ? Percent(use.limit).c_str() : "no limit");
}

std::string MemoryColumn(const zel::CgroupUse& use) {
    std::string used = use.used < 0 ? "-" : Text("%.1f MB", static_cast<double>(use.used) / 1024.0);
    std::string limit = use.limit > 0 ? Text("%.1f MB", static_cast<double>(use.limit) / 1024.0) : "no limit";
    return Text("%9s of %-9s", used.c_str(), limit.c_str());
}

void AppendTree(std::string& text, const StatusReport& report, const std::map<std::string, int64_t>& share) {
    text += Text("%-26s%-24s%-18s%-24s%-5s%s\n", "group", "cpu used of quota", "throttled", "memory used of limit",
                 "oom", "member");
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        std::string name = node.level == zel::CgroupLevel::kParent  ? "whole agent"
                           : node.level == zel::CgroupLevel::kGroup ? "  " + node.name
                                                                    : "    " + node.name;
        std::string throttled =
            node.cpu.present
                ? Text("%lld/%lld %.1fs", static_cast<long long>(node.cpu.throttledPeriods),
                       static_cast<long long>(node.cpu.periods), static_cast<double>(node.cpu.throttledUs) / 1e6)
                : "-";
        std::string member;
        if (node.level == zel::CgroupLevel::kComponent) {
            member = node.pids.empty() ? "empty" : node.membershipVerified ? "verified" : "NOT VERIFIED";
        }
        text += Text("%-26s%-24s%-18s%-24s%-5lld%s\n", name.c_str(), CpuColumn(node.cpu, share).c_str(),
                     throttled.c_str(), MemoryColumn(node.memory).c_str(),
                     static_cast<long long>(node.memory.oomKills < 0 ? 0 : node.memory.oomKills), member.c_str());
    }
}

void AppendOwnGroup(std::string& text, const StatusReport& report) {
    const zel::CgroupCpuStatus& cpu = report.cgroup.cpu;
    const zel::CgroupMemStatus& memory = report.cgroup.mem;
    if (cpu.limited) {
        text +=
            Text("cpu     limit %s in %s; throttled %lld of %lld periods, %.1f s\n", Percent(cpu.limit100Times).c_str(),
                 cpu.limitPath.c_str(), static_cast<long long>(cpu.throttledPeriods),
                 static_cast<long long>(cpu.periods), static_cast<double>(cpu.throttledUs) / 1e6);
    } else {
        text += "cpu     no limit in force: " + cpu.reason + (cpu.advice.empty() ? "" : "; " + cpu.advice) + "\n";
    }
    if (memory.limited) {
        text += Text("memory  limit %.1f MB in %s, used %.1f MB; limit reached %lld times, %lld killed\n",
                     static_cast<double>(memory.limitBytes) / 1048576.0, memory.limitPath.c_str(),
                     static_cast<double>(memory.usageBytes) / 1048576.0, static_cast<long long>(memory.limitHits),
                     static_cast<long long>(memory.oomKills));
    } else {
        text +=
            "memory  no limit in force: " + memory.reason + (memory.advice.empty() ? "" : "; " + memory.advice) + "\n";
    }
}

}  // namespace

std::string FormatPicture(const StatusReport& report, const std::map<std::string, int64_t>& cpuShare) {
    std::string text = Text("%s, process %d, up %lld s; %s\n", report.process.c_str(), report.pid,
                            static_cast<long long>(report.uptimeSeconds), report.modeReason.c_str());
    const zelhost::SamplerFigures& own = report.sampler;
    text += Text("itself  cpu %s of %d %% (level %d), minute %s; memory %.1f of %d MB (level %d); %lld descriptors\n",
                 Percent(own.cpu100Times).c_str(), own.maxCpu, own.cpuLevel, Percent(own.cpuMinute100Times).c_str(),
                 static_cast<double>(own.memKb) / 1024.0, own.maxMemMb, own.memLevel,
                 static_cast<long long>(own.descriptors));
    text += Text("hold back now?  priority 0 %s, 1 %s, 2 %s%s\n", report.cpuNeedLimit[0] ? "yes" : "no",
                 report.cpuNeedLimit[1] ? "yes" : "no", report.cpuNeedLimit[2] ? "yes" : "no",
                 report.diskFull ? "; the disk is full" : "");
    for (const auto& worker : {std::make_pair("greedy", report.greedy), std::make_pair("polite", report.polite)}) {
        if (worker.second.threads == 0) continue;
        text += Text("%s  %d threads, %llu pieces done, asked %llu times, told to hold back %llu times%s\n",
                     worker.first, worker.second.threads, static_cast<unsigned long long>(worker.second.pieces),
                     static_cast<unsigned long long>(worker.second.asked),
                     static_cast<unsigned long long>(worker.second.held),
                     worker.first[0] == 'g' ? " and did not" : " and did");
    }
    AppendOwnGroup(text, report);
    if (report.unified) {
        text += "\n";
        AppendTree(text, report, cpuShare);
    }
    bool anyTrouble = false;
    for (const ComponentStatus& component : report.components) {
        if (component.restarts == 0) continue;
        if (!anyTrouble) text += "\n";
        anyTrouble = true;
        std::string next =
            component.state == ComponentState::kWaiting
                ? Text(", next start in %lld s", static_cast<long long>(component.nextStartAt - report.now))
                : "";
        text += Text("%s ended %llu times, last: %s%s\n", component.name.c_str(),
                     static_cast<unsigned long long>(component.restarts), component.lastReason.c_str(), next.c_str());
    }
    if (report.delivery.present) {
        text += Text("events  accepted %llu, waiting %llu, dropped %llu",
                     static_cast<unsigned long long>(report.delivery.accepted),
                     static_cast<unsigned long long>(report.delivery.spooled),
                     static_cast<unsigned long long>(report.delivery.dropped));
        for (const zelhost::SinkStats& sink : report.delivery.sinks) {
            text += Text("; %s delivered %llu%s%s", sink.name.c_str(), static_cast<unsigned long long>(sink.delivered),
                         sink.lastError.empty() ? "" : ", down: ", sink.lastError.c_str());
        }
        text += "\n";
    }
    for (const TailEvent& event : report.lastEvents) text += "        " + DescribeEvent(event) + "\n";
    return text;
}

LiveView::LiveView() : m_terminal(isatty(STDOUT_FILENO) != 0) {
    std::lock_guard<std::mutex> guard(g_viewLock);
    g_view = this;
    zel::SetLogTap(&LiveView::Tap);
}

LiveView::~LiveView() {
    zel::SetLogTap(nullptr);
    zel::FlushLog();
    std::lock_guard<std::mutex> guard(g_viewLock);
    g_view = nullptr;
}

void LiveView::Tap(int level, const std::string& line) {
    std::lock_guard<std::mutex> guard(g_viewLock);
    if (g_view != nullptr) g_view->Take(level, line);
}

void LiveView::Take(int level, const std::string& line) {
    if (level > zel::kLogWarning) return;
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_lineCount;
    m_lines.push_back(line);
    if (m_lines.size() > (m_terminal ? kShownLines : kMaxWaitingLines)) m_lines.pop_front();
}

void LiveView::Note(const std::string& text) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_note = text;
}

void LiveView::Draw(const StatusReport& report) {
    int64_t now = MonotonicUs();
    std::map<std::string, int64_t> share;
    std::map<std::string, int64_t> used;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.cpu.used < 0) continue;
        used[node.cpu.path] = node.cpu.used;
        auto before = m_lastUsed.find(node.cpu.path);
        if (before == m_lastUsed.end() || now <= m_lastDrawnUs || node.cpu.used < before->second) continue;
        share[node.cpu.path] = (node.cpu.used - before->second) * 10000 / (now - m_lastDrawnUs);
    }
    m_lastUsed = used;
    m_lastDrawnUs = now;

    std::lock_guard<std::mutex> guard(m_lock);
    bool due = m_terminal || m_drawn % kPlainEvery == 0 || !m_note.empty();
    ++m_drawn;
    std::string text;
    if (m_terminal) text = "\033[H\033[J";
    if (due) text += FormatPicture(report, share);
    if (!m_lines.empty()) {
        if (m_terminal)
            text += Text("\nlog, level 3 or worse (%llu so far):\n", static_cast<unsigned long long>(m_lineCount));
        for (const std::string& line : m_lines) text += (m_terminal ? "  " : "log  ") + line + "\n";
        if (!m_terminal) m_lines.clear();
    }
    if (!m_note.empty()) {
        text += m_note;
        if (!m_terminal) m_note.clear();
    }
    if (!m_terminal && due) text += "\n";
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

void LiveView::Summary(const StatusReport& report) {
    std::string text = m_terminal ? "\n" : "";
    text += Text("summary after %lld s: ", static_cast<long long>(report.uptimeSeconds)) + report.modeReason + "\n";
    double seconds = report.uptimeSeconds > 0 ? static_cast<double>(report.uptimeSeconds) : 1.0;
    text += Text("  this process used %.2f %% of one CPU on average, %.1f MB now\n",
                 static_cast<double>(report.sampler.cpuTotalNs) / 1e7 / seconds,
                 static_cast<double>(report.sampler.memKb) / 1024.0);
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (!report.unified || node.cpu.used < 0) continue;
        std::string indent(node.level == zel::CgroupLevel::kParent  ? 2
                           : node.level == zel::CgroupLevel::kGroup ? 4
                                                                    : 6,
                           ' ');
        text +=
            Text("%s%-22s %6.2f %% of one CPU on average, quota %s, held back in %lld of %lld periods, %lld killed\n",
                 indent.c_str(), node.name.c_str(), static_cast<double>(node.cpu.used) / 1e4 / seconds,
                 node.cpu.limit > 0 ? Percent(node.cpu.limit).c_str() : "none",
                 static_cast<long long>(node.cpu.throttledPeriods), static_cast<long long>(node.cpu.periods),
                 static_cast<long long>(node.memory.oomKills < 0 ? 0 : node.memory.oomKills));
    }
    if (!report.unified && report.cgroup.cpu.limited) {
        text +=
            Text("  limit %s, held back in %lld of %lld periods\n", Percent(report.cgroup.cpu.limit100Times).c_str(),
                 static_cast<long long>(report.cgroup.cpu.throttledPeriods),
                 static_cast<long long>(report.cgroup.cpu.periods));
    }
    for (const ComponentStatus& component : report.components) {
        if (component.restarts == 0) continue;
        text += Text("  %s ended %llu times, last: %s\n", component.name.c_str(),
                     static_cast<unsigned long long>(component.restarts), component.lastReason.c_str());
    }
    for (const TailEvent& event : report.lastEvents) text += "  event " + DescribeEvent(event) + "\n";
    std::lock_guard<std::mutex> guard(m_lock);
    text +=
        Text("  %llu events accepted, %llu log lines of level 3 or worse\n",
             static_cast<unsigned long long>(report.delivery.accepted), static_cast<unsigned long long>(m_lineCount));
    fputs(text.c_str(), stdout);
    fflush(stdout);
}

}  // namespace agent
