// Words and counts of differences.
#include "DriftBook.h"

#include <ctime>
#include <utility>

#include "base/Clock.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int64_t kNsPerSecond = 1000000000;

std::string QuotaText(const CpuQuota& quota) {
    return quota.Unlimited() ? "no limit"
                             : std::to_string(quota.quotaUs) + " us in " + std::to_string(quota.periodUs) + " us";
}

std::string BytesText(int64_t bytes) {
    return bytes < 0 ? "no limit" : std::to_string(bytes / 1024) + " KB";
}

std::string ThingOf(const CgroupDrift& drift) {
    std::string thing = kCgroupDriftKinds[static_cast<size_t>(drift.kind)];
    if (drift.kind == CgroupDriftKind::kController) thing += " " + drift.controller;
    thing += " of " + drift.path;
    return drift.pid == 0 ? thing : thing + ", process " + std::to_string(drift.pid);
}

}  // namespace

void DescribeStep(const LimitStep& step, CgroupDrift& drift) {
    drift.controller = ControllerName(step.controller);
    if (step.controller == Controller::kCpu) {
        CpuQuota asFound = step.inForce.cpu;
        asFound.burstUs = 0;
        const bool onlyBurst = asFound == step.wanted.cpu;
        drift.kind = onlyBurst ? CgroupDriftKind::kCpuBurst : CgroupDriftKind::kCpuQuota;
        drift.found = onlyBurst ? std::to_string(step.inForce.cpu.burstUs) + " us" : QuotaText(step.inForce.cpu);
        drift.wanted = onlyBurst ? "none" : QuotaText(step.wanted.cpu);
        return;
    }
    const bool onlySwap = step.inForce.bytes == step.wanted.bytes;
    drift.kind = onlySwap ? CgroupDriftKind::kSwap : CgroupDriftKind::kMemory;
    drift.found = BytesText(onlySwap ? step.swapInForce : step.inForce.bytes);
    drift.wanted = BytesText(onlySwap ? step.swapWanted : step.wanted.bytes);
}

std::string DescribeDrift(const CgroupDrift& drift) {
    std::string text;
    const char* done = "set back";
    switch (drift.kind) {
        case CgroupDriftKind::kCpuQuota: text = "CPU quota of " + drift.path; break;
        case CgroupDriftKind::kCpuBurst: text = "CPU burst of " + drift.path; break;
        case CgroupDriftKind::kMemory: text = "memory limit of " + drift.path; break;
        case CgroupDriftKind::kSwap: text = "limit on swap of " + drift.path; break;
        case CgroupDriftKind::kMemorySoft: text = "soft memory limit of " + drift.path; break;
        case CgroupDriftKind::kController: text = "controller " + drift.controller + " of " + drift.path; break;
        case CgroupDriftKind::kGroup: text = "group " + drift.path; break;
        case CgroupDriftKind::kMember:
            text = "process " + std::to_string(drift.pid) + " of " +
                   (drift.component.empty() ? drift.path : drift.component);
            done = "moved back";
            break;
        case CgroupDriftKind::kFile:
            text = "component file " + drift.path;
            done = "written again";
            break;
        case CgroupDriftKind::kForeign:
            return "process " + std::to_string(drift.pid) + " (" + drift.found + ") is in " + drift.path +
                   " and is none of the agent's; " + drift.problem;
    }
    text += drift.kind == CgroupDriftKind::kMember ? " (" + drift.controller + ") was in " : " was: ";
    text += drift.found;
    if (drift.kind == CgroupDriftKind::kGroup) done = "made again";
    if (!drift.wanted.empty()) text += ", asked for: " + drift.wanted;
    if (!drift.cause.empty()) text += "; " + drift.cause;
    text += drift.repaired ? std::string("; ") + done : std::string("; not ") + done + ": " + drift.problem;
    if (drift.contested) {
        text += "; contested by another program, so it is looked after every " +
                std::to_string(kContestedPauseMs / 1000) + " s only";
    }
    return text;
}

bool DriftBook::IsDue(const CgroupDrift& drift, int64_t nowMs) {
    return m_ledger.IsDue(ThingOf(drift), nowMs);
}

void DriftBook::Report(CgroupDrift drift, int64_t nowMs, CgroupKeeperStatus& status, std::vector<CgroupDrift>& news) {
    const std::string thing = ThingOf(drift);
    const DriftNews told = m_ledger.Note(thing, drift.repaired, nowMs);
    drift.contested = m_ledger.IsContested(thing);
    ++status.found[static_cast<size_t>(drift.kind)];
    if (drift.repaired) {
        status.lastRepairedAt = base::ClockNs(CLOCK_BOOTTIME) / kNsPerSecond;
        status.lastRepair = DescribeDrift(drift);
    } else if (drift.kind != CgroupDriftKind::kForeign) {
        ++status.failed;
        status.notInForce.push_back(DescribeDrift(drift));
    }
    if (told != DriftNews::kNothing) news.push_back(std::move(drift));
}

void DriftBook::Postpone(const CgroupDrift& drift, CgroupKeeperStatus& status) const {
    CgroupDrift later = drift;
    later.contested = m_ledger.IsContested(ThingOf(drift));
    later.problem = "it is tried every " + std::to_string(kContestedPauseMs / 1000) + " s";
    status.notInForce.push_back(DescribeDrift(later));
}

void AddKeeperStatus(const CgroupKeeperStatus& more, CgroupKeeperStatus& status) {
    status.rounds += more.rounds;
    status.lastRoundUs += more.lastRoundUs;
    status.totalUs += more.totalUs;
    status.lastGroups += more.lastGroups;
    for (size_t kind = 0; kind < status.found.size(); ++kind) status.found[kind] += more.found[kind];
    status.failed += more.failed;
    if (more.lastRepairedAt > status.lastRepairedAt) {
        status.lastRepairedAt = more.lastRepairedAt;
        status.lastRepair = more.lastRepair;
    }
    status.contested.insert(status.contested.end(), more.contested.begin(), more.contested.end());
    status.wanted.insert(status.wanted.end(), more.wanted.begin(), more.wanted.end());
    status.notInForce.insert(status.notInForce.end(), more.notInForce.begin(), more.notInForce.end());
}

}  // namespace cgroup
}  // namespace zel
