// Reading and comparing out-of-memory counters.
#include "OomCounters.h"

#include <algorithm>
#include <utility>

#include "kernel/CgroupFiles.h"

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
    Result<MemCounters> counters = ReadOomCounts(dir);
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

/// One look at the tree, reading by reading.
class OomReader {
public:
    explicit OomReader(const GroupDir& parent)
        : m_parent(parent), m_parentName(parent.Path().substr(parent.Path().rfind('/') + 1)) {}

    Status AddParent() {
        Result<OomReading> top = ReadOne(m_parent, m_parentName, m_parent, true);
        if (!top) return top.GetError();
        m_readings.push_back(std::move(*top));
        return {};
    }

    /// Kernel: on version 1 the leaves' counters are their own.
    Status AddGroup(const std::string& name) {
        Result<GroupDir> group = m_parent.OpenChild(name);
        if (!group) return group.GetError();
        Status own = Add(*group, name, *group);
        if (!own || group->GetVersion() != Version::kV1) return own;
        Result<std::vector<std::string>> leaves = group->Children();
        if (!leaves) return leaves.GetError();
        for (const std::string& leafName : *leaves) {
            Result<GroupDir> leaf = group->OpenChild(leafName);
            Status read = leaf ? Add(*leaf, name, *group) : Status(leaf.GetError());
            if (!read && !IsGone(read.GetError())) return read;
        }
        return {};
    }

    std::vector<OomReading> Take() { return std::move(m_readings); }

private:
    /// Kernel: what a directory of version 1 counts is a part of the parent's figures as well.
    Status Add(const GroupDir& dir, const std::string& group, const GroupDir& reported) {
        Result<OomReading> reading = ReadOne(dir, group, reported, false);
        if (!reading) return reading.GetError();
        if (dir.GetVersion() == Version::kV1) {
            OomReading part = *reading;
            part.group = m_parentName;
            part.groupPath = m_parent.Path();
            part.parent = true;
            m_readings.push_back(std::move(part));
        }
        m_readings.push_back(std::move(*reading));
        return {};
    }

    const GroupDir& m_parent;
    const std::string m_parentName;
    std::vector<OomReading> m_readings;
};

}  // namespace

int64_t VictimsOf(int64_t oomKills, int64_t oomGroupKills) {
    const int64_t groupKills = AtLeastZero(oomGroupKills);
    return std::max(AtLeastZero(oomKills) - groupKills, groupKills);
}

Result<std::vector<OomReading>> ReadOomCounters(const GroupDir& parent, const std::vector<std::string>& groups) {
    OomReader reader(parent);
    Status read = reader.AddParent();
    if (!read) return read.GetError();
    for (const std::string& name : groups) {
        read = reader.AddGroup(name);
        if (!read && !IsGone(read.GetError())) return read.GetError();
    }
    return reader.Take();
}

void OomMonitor::Reset() {
    m_begun = false;
    m_order.clear();
    m_groups.clear();
}

void OomMonitor::Counts::Add(const Counts& other) {
    kills += other.kills;
    ooms += other.ooms;
    groupKills += other.groupKills;
}

bool OomMonitor::Counts::FellFrom(const Counts& before) const {
    return kills < before.kills || ooms < before.ooms || groupKills < before.groupKills;
}

OomMonitor::Counts OomMonitor::TotalOf(const Group& group) {
    Counts total = group.carried;
    for (const auto& entry : group.members) total.Add(entry.second.counts);
    return total;
}

void OomMonitor::Begin(Group& group, const OomReading& first) {
    group.event = CgroupMemoryOomEvent();
    group.event.group = first.group;
    group.event.path = first.groupPath;
    group.event.parent = first.parent;
    group.event.v2 = first.version == Version::kV2;
}

void OomMonitor::Take(Group& group, const OomReading& reading) {
    group.event.under_oom = std::max(group.event.under_oom, reading.underOom);
    group.event.oom_kill_disable = std::max(group.event.oom_kill_disable, reading.oomKillDisable);
    const Counts counts{reading.kills, reading.ooms, reading.groupKills};
    const auto known = group.members.find(reading.path);
    if (known != group.members.end()) {
        const bool anew = known->second.identity != reading.identity || counts.FellFrom(known->second.counts);
        if (anew) group.carried.Add(known->second.counts);
    }
    group.members[reading.path] = Member{reading.identity, counts};
}

void OomMonitor::DropVanished(Group& group, const std::set<std::string>& present) {
    for (auto member = group.members.begin(); member != group.members.end();) {
        if (present.count(member->first) != 0) {
            ++member;
            continue;
        }
        group.carried.Add(member->second.counts);
        member = group.members.erase(member);
    }
}

void OomMonitor::TakeRestored(const Key& key, Group& group) const {
    const auto own = group.members.find(key.first);
    if (own == group.members.end()) return;
    for (const OomCarried& each : m_restored) {
        const bool same = each.groupPath == key.first && each.parent == key.second;
        if (same && each.identity == own->second.identity) {
            group.carried.Add({each.kills, each.ooms, each.groupKills});
        }
    }
}

std::vector<OomCarried> OomMonitor::Carried() const {
    std::vector<OomCarried> out;
    for (const Key& key : m_order) {
        const Group& group = m_groups.at(key);
        const auto own = group.members.find(key.first);
        const Counts& counts = group.carried;
        if (own == group.members.end() || (counts.kills == 0 && counts.ooms == 0 && counts.groupKills == 0)) continue;
        out.push_back({key.first, key.second, own->second.identity, counts.kills, counts.ooms, counts.groupKills});
    }
    return out;
}

void OomMonitor::Observe(const std::vector<OomReading>& readings) {
    Seen seen;
    std::set<Key> fresh;
    m_order.clear();
    for (const OomReading& reading : readings) {
        const Key key(reading.groupPath, reading.parent);
        if (m_groups.find(key) == m_groups.end()) fresh.insert(key);
        Group& group = m_groups[key];
        if (seen.find(key) == seen.end()) {
            m_order.push_back(key);
            Begin(group, reading);
        }
        seen[key].insert(reading.path);
        Take(group, reading);
    }
    for (auto entry = m_groups.begin(); entry != m_groups.end();) {
        const auto present = seen.find(entry->first);
        if (present == seen.end()) {
            entry = m_groups.erase(entry);
            continue;
        }
        DropVanished(entry->second, present->second);
        // The first look at all is the beginning: what was counted before it is not news. A group that appears
        // later was made since, from 0: all that it has counted is news.
        if (!m_begun && fresh.count(entry->first) != 0) {
            TakeRestored(entry->first, entry->second);
            entry->second.reported = TotalOf(entry->second);
        }
        ++entry;
    }
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
