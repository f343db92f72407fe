// Attribution by comparing counters of the tree before and after.
#include "OomAttribution.h"

namespace agent {

namespace {

/// Victims of one lack of memory end within this time.
constexpr int64_t kMomentSeconds = 2;

int64_t AtLeastZero(int64_t value) {
    return value < 0 ? 0 : value;
}

OomCounters CountersOf(const zel::CgroupNodeStatus& node) {
    OomCounters counters;
    counters.kills = AtLeastZero(node.memory.oomKills);
    counters.limitHits = AtLeastZero(node.memory.limitHits);
    counters.ownOoms = AtLeastZero(node.memory.ownOoms);
    return counters;
}

OomCounters Before(const OomPicture& before, const zel::CgroupNodeStatus& node) {
    auto found = before.find(node.memory.path);
    if (found == before.end()) return OomCounters();
    const OomCounters now = CountersOf(node);
    const OomCounters& then = found->second;
    const bool anew = now.kills < then.kills || now.limitHits < then.limitHits || now.ownOoms < then.ownOoms;
    return anew ? OomCounters() : then;
}

/// True when the limit of this very group was run into since.
bool RanIntoLimit(const OomPicture& before, const zel::CgroupNodeStatus& node) {
    if (!node.memory.present) return false;
    OomCounters now = CountersOf(node);
    OomCounters then = Before(before, node);
    return node.memory.v2 ? now.ownOoms > then.ownOoms : now.limitHits > then.limitHits;
}

std::string Megabytes(int kb) {
    return std::to_string((kb + 512) / 1024) + " MB";
}

}  // namespace

OomPicture TakeOomPicture(const zel::CgroupTreeStatus& tree) {
    OomPicture picture;
    for (const zel::CgroupNodeStatus& node : tree.nodes) {
        if (node.memory.present) picture[node.memory.path] = CountersOf(node);
    }
    return picture;
}

std::optional<OomKill> ExplainOomKill(const OomPicture& before, const zel::CgroupTreeStatus& tree,
                                      const std::string& component) {
    const zel::CgroupNodeStatus* leaf = nullptr;
    const zel::CgroupNodeStatus* group = nullptr;
    const zel::CgroupNodeStatus* parent = nullptr;
    for (const zel::CgroupNodeStatus& node : tree.nodes) {
        if (node.level == zel::CgroupLevel::kComponent && node.name == component) leaf = &node;
    }
    if (leaf == nullptr || !leaf->memory.present) return std::nullopt;
    if (CountersOf(*leaf).kills <= Before(before, *leaf).kills) return std::nullopt;
    for (const zel::CgroupNodeStatus& node : tree.nodes) {
        if (node.level == zel::CgroupLevel::kGroup && node.name == leaf->group) group = &node;
        if (node.level == zel::CgroupLevel::kParent) parent = &node;
    }
    const auto at = [&](const zel::CgroupNodeStatus& node, const char* whose, const std::string& words) {
        return OomKill{"out of memory at " + words + Megabytes(node.memory.limit), leaf->group, whose, node.memory.path,
                       node.memory.limit};
    };
    if (RanIntoLimit(before, *leaf)) return at(*leaf, "component", "its own limit of ");
    if (group != nullptr && RanIntoLimit(before, *group)) {
        return at(*group, "group", "the limit of its group " + group->name + ", ");
    }
    if (parent != nullptr && RanIntoLimit(before, *parent)) {
        return at(*parent, "agent", "the limit of the whole agent, ");
    }
    return OomKill{"killed because the host ran out of memory, no limit of the agent was reached", leaf->group, "host",
                   "", 0};
}

void OomHistory::Look(int64_t now) {
    zel::CgroupTreeStatus tree;
    if (!m_read(tree)) return;
    m_picture = TakeOomPicture(tree);
    m_lookedAt = now;
    m_explainedAt = -1;
}

void OomHistory::BeforeStart(int64_t now) {
    if (m_lookedAt != now) Look(now);
}

std::optional<OomKill> OomHistory::Explain(const std::string& component, int64_t now) {
    zel::CgroupTreeStatus tree;
    if (!m_read(tree)) return std::nullopt;
    std::optional<OomKill> kill = ExplainOomKill(m_picture, tree, component);
    if (kill) m_explainedAt = now;
    return kill;
}

void OomHistory::Tick(int64_t now) {
    if (m_explainedAt >= 0 && now >= m_explainedAt + kMomentSeconds) Look(now);
}

}  // namespace agent
