// Reading and comparing out-of-memory counters.
#include "OomCounters.h"

#include <algorithm>
#include <set>

#include "CgroupFiles.h"

namespace zel {
namespace cgroup {
namespace {

int64_t AtLeastZero(int64_t value) {
    return std::max<int64_t>(value, 0);
}

bool IsGone(const Error& error) {
    return error.kind == ErrorKind::kNotFound || error.kind == ErrorKind::kGone;
}

Result<OomReading> ReadOne(const GroupDir& dir, const std::string& group, const GroupDir& reported, bool parent) {
    Result<MemCounters> counters = ReadMemCounters(dir);
    if (!counters) return counters.GetError();
    Result<GroupIdentity> identity = dir.Identity();
    if (!identity) return identity.GetError();
    OomReading out;
    out.group = group;
    out.groupPath = reported.Path();
    out.path = dir.Path();
    out.parent = parent;
    out.version = dir.GetVersion();
    out.identity = *identity;
    out.kills = VictimsOf(counters->oomKills, counters->oomGroupKills);
    out.groupKills = AtLeastZero(counters->oomGroupKills);
    out.ooms = AtLeastZero(parent && counters->localOoms >= 0 ? counters->localOoms : counters->ooms);
    out.underOom = counters->underOom;
    out.oomKillDisable = counters->oomKillDisable;
    return out;
}

}  // namespace

int64_t VictimsOf(int64_t oomKills, int64_t oomGroupKills) {
    const int64_t groupKills = AtLeastZero(oomGroupKills);
    return std::max(AtLeastZero(oomKills) - groupKills, groupKills);
}

Result<std::vector<OomReading>> ReadOomCounters(const GroupDir& parent, const std::vector<std::string>& groups) {
    std::vector<OomReading> out;
    const std::string parentName = parent.Path().substr(parent.Path().rfind('/') + 1);
    Result<OomReading> top = ReadOne(parent, parentName, parent, true);
    if (!top) return top.GetError();
    out.push_back(std::move(*top));
    const auto add = [&](const GroupDir& dir, const std::string& group, const GroupDir& reported) -> Status {
        Result<OomReading> reading = ReadOne(dir, group, reported, false);
        if (!reading) return reading.GetError();
        if (dir.GetVersion() == Version::kV1) {
            OomReading part = *reading;
            part.group = parentName;
            part.groupPath = parent.Path();
            part.parent = true;
            out.push_back(std::move(part));
        }
        out.push_back(std::move(*reading));
        return {};
    };
    for (const std::string& name : groups) {
        Result<GroupDir> group = parent.OpenChild(name);
        if (!group) {
            if (IsGone(group.GetError())) continue;
            return group.GetError();
        }
        Status own = add(*group, name, *group);
        if (!own && IsGone(own.GetError())) continue;
        if (!own) return own.GetError();
        if (group->GetVersion() != Version::kV1) continue;
        Result<std::vector<std::string>> leaves = group->Children();
        if (!leaves) {
            if (IsGone(leaves.GetError())) continue;
            return leaves.GetError();
        }
        for (const std::string& leafName : *leaves) {
            Result<GroupDir> leaf = group->OpenChild(leafName);
            Status read = leaf ? add(*leaf, name, *group) : Status(leaf.GetError());
            if (!read && !IsGone(read.GetError())) return read.GetError();
        }
    }
    return out;
}

void OomMonitor::Reset() {
    m_begun = false;
    m_order.clear();
    m_groups.clear();
}

OomMonitor::Counts OomMonitor::TotalOf(const Group& group) {
    Counts total = group.carried;
    for (const auto& entry : group.members) {
        total.kills += entry.second.counts.kills;
        total.ooms += entry.second.counts.ooms;
        total.groupKills += entry.second.counts.groupKills;
    }
    return total;
}

void OomMonitor::Observe(const std::vector<OomReading>& readings) {
    std::set<Key> seenGroups;
    std::map<Key, std::set<std::string>> seenMembers;
    std::vector<Key> order;
    std::set<Key> fresh;
    for (const OomReading& reading : readings) {
        const Key key(reading.groupPath, reading.parent);
        if (m_groups.find(key) == m_groups.end()) fresh.insert(key);
        Group& group = m_groups[key];
        if (seenGroups.insert(key).second) {
            order.push_back(key);
            group.event = CgroupMemoryOomEvent();
            group.event.group = reading.group;
            group.event.path = reading.groupPath;
            group.event.parent = reading.parent;
            group.event.v2 = reading.version == Version::kV2;
        }
        group.event.under_oom = std::max(group.event.under_oom, reading.underOom);
        group.event.oom_kill_disable = std::max(group.event.oom_kill_disable, reading.oomKillDisable);
        seenMembers[key].insert(reading.path);
        const auto known = group.members.find(reading.path);
        const bool again =
            known != group.members.end() &&
            (known->second.identity != reading.identity || known->second.counts.kills > reading.kills ||
             known->second.counts.ooms > reading.ooms || known->second.counts.groupKills > reading.groupKills);
        if (again) {
            group.carried.kills += known->second.counts.kills;
            group.carried.ooms += known->second.counts.ooms;
            group.carried.groupKills += known->second.counts.groupKills;
        }
        group.members[reading.path] = Member{reading.identity, {reading.kills, reading.ooms, reading.groupKills}};
    }
    for (auto entry = m_groups.begin(); entry != m_groups.end();) {
        Group& group = entry->second;
        if (seenGroups.count(entry->first) == 0) {
            entry = m_groups.erase(entry);
            continue;
        }
        const std::set<std::string>& present = seenMembers[entry->first];
        for (auto member = group.members.begin(); member != group.members.end();) {
            if (present.count(member->first) != 0) {
                ++member;
                continue;
            }
            group.carried.kills += member->second.counts.kills;
            group.carried.ooms += member->second.counts.ooms;
            group.carried.groupKills += member->second.counts.groupKills;
            member = group.members.erase(member);
        }
        // The first look at all is the beginning: what was counted before it is not news. A group that appears
        // later was made since, from 0: all that it has counted is news.
        if (!m_begun && fresh.count(entry->first) != 0) group.reported = TotalOf(group);
        ++entry;
    }
    m_order = std::move(order);
    if (!readings.empty()) m_begun = true;
}

CgroupMemoryOomEvent OomMonitor::EventOf(const Group& group) const {
    CgroupMemoryOomEvent event = group.event;
    const Counts total = TotalOf(group);
    event.oom_kill = total.kills;
    event.oom = total.ooms;
    event.oom_group_kill = total.groupKills;
    return event;
}

std::vector<CgroupMemoryOomEvent> OomMonitor::Totals() const {
    std::vector<CgroupMemoryOomEvent> out;
    for (const Key& key : m_order) out.push_back(EventOf(m_groups.at(key)));
    return out;
}

std::vector<CgroupMemoryOomEvent> OomMonitor::TakeRises() {
    std::vector<CgroupMemoryOomEvent> out;
    for (const Key& key : m_order) {
        Group& group = m_groups.at(key);
        CgroupMemoryOomEvent event = EventOf(group);
        event.oom_kill_delta = event.oom_kill - group.reported.kills;
        event.oom_delta = event.oom - group.reported.ooms;
        event.oom_group_kill_delta = event.oom_group_kill - group.reported.groupKills;
        group.reported = {event.oom_kill, event.oom, event.oom_group_kill};
        if (event.oom_kill_delta > 0 || event.oom_delta > 0 || event.oom_group_kill_delta > 0) {
            out.push_back(std::move(event));
        }
    }
    return out;
}

}  // namespace cgroup
}  // namespace zel
