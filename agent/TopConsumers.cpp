// Two looks at all processes, and their differences.
#include "TopConsumers.h"

#include <unistd.h>

#include <algorithm>

#include "Printable.h"

namespace agent {

namespace {

constexpr int64_t kHundredthsPerCpu = 10000;
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kBytesPerKb = 1024;

uint64_t Grown(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

int64_t KbPerSecond(uint64_t bytes, int64_t elapsedMs) {
    return static_cast<int64_t>(bytes) / kBytesPerKb * kMsPerSecond / elapsedMs;
}

int64_t Taken(const Consumer& consumer, base::PressureResource resource) {
    switch (resource) {
        case base::PressureResource::kMemory: return consumer.residentKb;
        case base::PressureResource::kIo: return consumer.readKbps + consumer.writeKbps;
        case base::PressureResource::kCpu: break;
    }
    return consumer.cpu100Times;
}

Consumer Between(const ProcessUse& from, const ProcessUse& to, const LookSpan& span) {
    Consumer out;
    out.pid = to.pid;
    out.name = to.name;
    const auto ticks = static_cast<int64_t>(Grown(from.cpuTicks, to.cpuTicks));
    out.cpu100Times = ticks * kMsPerSecond * kHundredthsPerCpu / span.ticksPerSecond / span.elapsedMs;
    out.residentKb = to.residentKb;
    out.readKbps = KbPerSecond(Grown(from.io.readBytes, to.io.readBytes), span.elapsedMs);
    out.writeKbps = KbPerSecond(Grown(from.io.writeBytes, to.io.writeBytes), span.elapsedMs);
    return out;
}

/// A process without the right to its file has read and written nothing that we know of.
base::ProcIo ReadIo(int pid) {
    const base::Result<std::string> text = base::ReadProcText(base::ProcessFile(pid, "io").c_str());
    if (!text) return {};
    return base::ParseProcIo(*text).value_or(base::ProcIo());
}

}  // namespace

std::vector<ProcessUse> LookAtProcesses(bool withIo, size_t most) {
    std::vector<ProcessUse> out;
    const base::Result<std::vector<int>> pids = base::ReadProcessIds(most);
    if (!pids) return out;
    const int64_t pageKb = sysconf(_SC_PAGESIZE) / kBytesPerKb;
    out.reserve(pids->size());
    for (const int pid : *pids) {
        const base::Result<base::ProcStat> stat = base::ReadProcessStat(pid);
        if (!stat || stat->IsDead()) continue;
        ProcessUse use;
        use.pid = pid;
        use.startTicks = stat->startTicks;
        use.name = Printable(stat->name.data());
        use.cpuTicks = stat->userTicks + stat->systemTicks;
        use.residentKb = stat->residentPages * pageKb;
        if (withIo) use.io = ReadIo(pid);
        out.push_back(std::move(use));
    }
    return out;
}

std::vector<Consumer> FindTopConsumers(const std::vector<ProcessUse>& before, const std::vector<ProcessUse>& after,
                                       const LookSpan& span, base::PressureResource resource, size_t count) {
    std::vector<Consumer> out;
    const auto firstTicks = static_cast<uint64_t>(span.firstMs * span.ticksPerSecond / kMsPerSecond);
    for (const ProcessUse& use : after) {
        const auto known = std::lower_bound(before.begin(), before.end(), use.pid,
                                            [](const ProcessUse& one, int pid) { return one.pid < pid; });
        // A later process of the same number has not taken what the earlier one had.
        const bool same = known != before.end() && known->pid == use.pid && known->startTicks == use.startTicks;
        const bool born = use.startTicks >= firstTicks;
        Consumer consumer = Between(same ? *known : born ? ProcessUse() : use, use, span);
        if (Taken(consumer, resource) > 0) out.push_back(std::move(consumer));
    }
    std::stable_sort(out.begin(), out.end(), [&](const Consumer& one, const Consumer& other) {
        return Taken(one, resource) > Taken(other, resource);
    });
    if (out.size() > count) out.resize(count);
    return out;
}

}  // namespace agent
