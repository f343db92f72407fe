// Differences and their order.
#include "LimitPlan.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "platform/zel/AgentNames.h"

namespace zel {
namespace cgroup {
namespace {

/// Version 1 refuses a CPU quota above the parent's. A group without a quota of its own has its parent's there.
Limit Clamped(Controller controller, Version version, const Limit& limit, const Limit& bound) {
    const bool binds = controller == Controller::kCpu && version == Version::kV1;
    return binds && IsLimited(controller, limit) && IsTighter(controller, bound, limit) ? bound : limit;
}

/// Returns: what binds the groups: the total limit, or what others leave where there is none.
Limit Bound(const GroupTargets& targets, Controller controller, const Limit& total) {
    const bool byOthers = controller == Controller::kCpu && !IsLimited(controller, total);
    return byOthers ? targets.outer : total;
}

/// What one controller's tree is to be, from the top down.
class Wishes {
public:
    Wishes(const GroupTargets& targets, const TreeFacts& facts, Controller controller, Leaves leaves)
        : m_targets(targets), m_facts(facts), m_controller(controller), m_leaves(leaves) {
        if (targets.wanted[controller]) m_total = TotalLimit(targets, facts.version, controller);
        m_bound = Bound(targets, controller, m_total);
    }

    /// Returns: the target of a node, empty when there is none and what is there stays. Requires: nodes in their order.
    std::optional<Limit> Of(const GroupFacts& node) {
        std::optional<Limit> limit = Unbounded(node);
        if (!limit) return limit;
        const auto group = m_groups.find(node.group);
        const bool bySelf = node.Depth() < 2 || group == m_groups.end();
        limit = Clamped(m_controller, m_facts.version, *limit, bySelf ? m_bound : group->second);
        if (!bySelf && GrowsWithGroup(node, *limit, group->second)) limit = group->second;
        // What binds the leaves of a group without a limit of its own is the total.
        if (node.Depth() == 1) m_groups[node.group] = IsLimited(m_controller, *limit) ? *limit : m_bound;
        if (node.Depth() == 1) m_present[node.group] = node.limits[m_controller].limit;
        return limit;
    }

private:
    /// A leaf of the main process that has all of its group's CPU as it was published. What is published next has the
    /// last word.
    bool GrowsWithGroup(const GroupFacts& node, const Limit& published, const Limit& group) const {
        if (m_leaves == Leaves::kArePublished || m_controller != Controller::kCpu) return false;
        if (node.leaf != kMainComponent) return false;
        const LimitFacts& present = node.limits[m_controller];
        const auto before = m_present.find(node.group);
        return present.Known() && SameLimit(m_controller, present.limit, published) && before != m_present.end() &&
               SameLimit(m_controller, before->second, published) && IsTighter(m_controller, published, group);
    }

    std::optional<Limit> Unbounded(const GroupFacts& node) const {
        if (!m_targets.wanted[m_controller]) return Limit();
        if (node.Depth() == 0) return m_total;
        std::optional<int> amount;
        if (node.Depth() == 2) {
            amount = m_targets.QuotaOf({m_controller, node.group, node.leaf});
        } else if (const GroupTarget* target = m_targets.Find(node.group)) {
            amount = target->limits[m_controller];
        }
        if (amount) return AskedLimit(m_controller, node.group, node.leaf, *amount);
        const LimitFacts& present = node.limits[m_controller];
        if (!present.Known()) return std::nullopt;
        Limit kept = present.limit;
        kept.cpu.burstUs = 0;
        return kept;
    }

    const GroupTargets& m_targets;
    const TreeFacts& m_facts;
    const Controller m_controller;
    const Leaves m_leaves;
    Limit m_total;
    Limit m_bound;                           ///< of the groups: the total, or what others leave where there is none
    std::map<std::string, Limit> m_groups;   ///< what binds the leaves of each group
    std::map<std::string, Limit> m_present;  ///< of each group
};

bool IsInForce(const LimitStep& step, const LimitFacts& present) {
    if (!SameLimit(step.controller, step.inForce, step.wanted)) return false;
    return step.controller == Controller::kCpu || !present.hasSwapLimit || step.swapInForce == step.swapWanted;
}

/// Grows first, from the top down; then what shrinks, from the leaves up. The main process, which does it, has what it
/// gets before all others, and has what it loses for longest.
void Order(const TreeFacts& facts, std::vector<LimitStep>& steps) {
    std::set<std::string> homes;  // groups with a leaf of it
    for (const GroupFacts& node : facts.nodes) {
        if (node.leaf == kMainComponent) homes.insert(node.group);
    }
    const auto isMain = [&](const LimitStep& step) {
        const GroupFacts& node = facts.nodes[step.node];
        return node.Depth() == 1 ? homes.count(node.group) != 0 : node.leaf == kMainComponent;
    };
    const auto depth = [&](const LimitStep& step) { return facts.nodes[step.node].Depth(); };
    const auto onTheWay = [&](const LimitStep& step) { return depth(step) == 0 || isMain(step); };
    const auto grows = [&](const LimitStep& a, const LimitStep& b) {
        return std::make_pair(!onTheWay(a), depth(a)) < std::make_pair(!onTheWay(b), depth(b));
    };
    const auto shrinks = [&](const LimitStep& a, const LimitStep& b) {
        return std::make_pair(-depth(a), isMain(a)) < std::make_pair(-depth(b), isMain(b));
    };
    const auto shrinking = std::stable_partition(steps.begin(), steps.end(), [](const LimitStep& step) {
        return !IsTighter(step.controller, step.wanted, step.inForce);
    });
    std::stable_sort(steps.begin(), shrinking, grows);
    std::stable_sort(shrinking, steps.end(), shrinks);
}

}  // namespace

LimitPlan PlanLimits(const GroupTargets& targets, const TreeFacts& facts, Controller controller, Leaves leaves) {
    LimitPlan plan;
    Wishes wishes(targets, facts, controller, leaves);
    for (size_t index = 0; index < facts.nodes.size(); ++index) {
        const GroupFacts& node = facts.nodes[index];
        const LimitFacts& present = node.limits[controller];
        const std::optional<Limit> wanted = wishes.Of(node);
        if (!present.hasFile) {
            if (!wanted || !IsLimited(controller, *wanted)) continue;
            const std::string what = std::string("it has no file of controller ") + ControllerName(controller);
            plan.problems.push_back(MakeError(ErrorKind::kNoController, "limit", node.path, what));
        } else if (present.failure) {
            plan.problems.push_back(*present.failure);
        } else if (wanted) {
            const LimitStep step{index,   controller,        present.limit,
                                 *wanted, present.swapBytes, SwapLimitFor(facts.version, wanted->bytes)};
            if (!IsInForce(step, present)) plan.steps.push_back(step);
        }
    }
    Order(facts, plan.steps);
    return plan;
}

Limit AskedLimit(Controller controller, const std::string& group, const std::string& leaf, int amount) {
    Limit out = LimitFromAmount(controller, amount);
    // The main process sleeps nearly always; what it then does for the whole agent is not to be done in slices.
    const bool isMain = leaf.empty() ? group == kMainGroup : leaf == kMainComponent;
    if (isMain && controller == Controller::kCpu) out.cpu = QuotaInPieces(amount);
    return out;
}

Limit TotalLimit(const GroupTargets& targets, Version version, Controller controller) {
    return Clamped(controller, version, LimitFromAmount(controller, targets.total[controller]), targets.outer);
}

Limit LeafLimit(const GroupTargets& targets, Version version, const LeafKey& key, int quota) {
    const Controller controller = key.controller;
    const Limit bound = Bound(targets, controller, TotalLimit(targets, version, controller));
    const Limit limit = Clamped(controller, version, AskedLimit(controller, key.group, key.leaf, quota), bound);
    const GroupTarget* group = targets.Find(key.group);
    if (group == nullptr) return limit;
    return Clamped(controller, version, limit,
                   AskedLimit(controller, key.group, {}, static_cast<int>(group->limits[controller])));
}

bool IsInUse(const GroupTargets& targets, const TreeFacts& facts, Controller controller) {
    if (!targets.wanted[controller] || facts.nodes.empty()) return false;
    if (!facts.nodes.front().limits[controller].hasFile) return false;
    for (const GroupFacts& node : facts.nodes) {
        if (node.Depth() > 1 || (node.Depth() == 1 && targets.Find(node.group) == nullptr)) continue;
        const LimitFacts& present = node.limits[controller];
        if (present.Known() && IsLimited(controller, present.limit)) return true;
    }
    return !targets.AsksFor(controller);
}

}  // namespace cgroup
}  // namespace zel
