// Reading facts, applying plans.
#include "TreeFacts.h"

#include <utility>

#include "kernel/Limits.h"
#include "OwnGroup.h"

namespace zel {
namespace cgroup {
namespace {

/// A file that is not there: the controller is off, which is as good as no limit.
void NoteFailure(const Error& error, LimitFacts& out) {
    out.hasFile = error.kind != ErrorKind::kNotFound;
    if (out.hasFile) out.failure = error;
}

LimitFacts ReadLimitFacts(Controller controller, const GroupDir& dir) {
    LimitFacts out;
    out.hasFile = true;
    if (controller == Controller::kCpu) {
        Result<CpuQuota> quota = ReadCpuQuota(dir);
        if (quota) out.limit.cpu = *quota;
        if (!quota) NoteFailure(quota.GetError(), out);
        return out;
    }
    Result<MemLimit> limit = ReadMemHardLimit(dir);
    if (!limit) {
        NoteFailure(limit.GetError(), out);
        return out;
    }
    out.limit.bytes = limit->hardBytes;
    out.hasSwapLimit = limit->hasSwapLimit;
    out.swapBytes = limit->swapBytes;
    return out;
}

std::vector<OwnChild> OpenChildren(const GroupDir& parent, std::vector<Error>& unread, OpenChildrenByName opened = {}) {
    Result<std::vector<OwnChild>> children = OpenOwnChildren(parent, unread, std::move(opened));
    if (children) return std::move(*children);
    unread.push_back(children.GetError());
    return {};
}

void AddNode(OpenTreeFacts& out, GroupDir dir, const std::string& group, const std::string& leaf) {
    GroupFacts facts = ReadGroupFacts(dir, out.facts.serves);
    facts.group = group;
    facts.leaf = leaf;
    out.facts.nodes.push_back(std::move(facts));
    out.dirs.push_back(std::move(dir));
}

}  // namespace

GroupFacts ReadGroupFacts(const GroupDir& dir, const Flags& serves) {
    GroupFacts out;
    out.path = dir.Path();
    Result<GroupIdentity> identity = dir.Identity();
    if (identity) out.identity = *identity;
    for (const Controller controller : kAllControllers) {
        if (serves[controller]) out.limits[controller] = ReadLimitFacts(controller, dir);
    }
    return out;
}

OpenTreeFacts ReadTree(GroupDir tree, const Flags& serves, int depth, const std::set<std::string>& without,
                       const GroupObserver& observe, OpenChildrenByName opened) {
    const auto begin = [&](const GroupDir& group) {
        if (observe) observe(group);
    };
    OpenTreeFacts out;
    out.facts.version = tree.GetVersion();
    out.facts.serves = serves;
    begin(tree);
    std::vector<OwnChild> groups;
    if (depth > 0) groups = OpenChildren(tree, out.unread, std::move(opened));
    AddNode(out, std::move(tree), {}, {});
    for (OwnChild& group : groups) {
        if (without.count(group.name) != 0) continue;
        begin(group.dir);
        std::vector<OwnChild> leaves;
        if (depth > 1) leaves = OpenChildren(group.dir, out.unread);
        AddNode(out, std::move(group.dir), group.name, {});
        for (OwnChild& leaf : leaves) {
            begin(leaf.dir);
            AddNode(out, std::move(leaf.dir), group.name, leaf.name);
        }
    }
    return out;
}

Status ChangeLimit(Controller controller, const GroupDir& dir, const LimitFacts& facts, const Limit& wanted) {
    if (controller == Controller::kCpu) return ChangeCpuQuota(dir, facts.limit.cpu, wanted.cpu);
    MemLimit old;
    old.hardBytes = facts.limit.bytes;
    old.hasSwapLimit = facts.hasSwapLimit;
    old.swapBytes = facts.swapBytes;
    return ChangeMemHardLimit(dir, old, wanted.bytes);
}

bool IsHopeless(const Error& error) {
    return error.kind == ErrorKind::kReadOnly || error.kind == ErrorKind::kDenied ||
           error.kind == ErrorKind::kNotCgroup;
}

std::vector<Error> ApplyPlan(const LimitPlan& plan, OpenTreeFacts& tree) {
    std::vector<Error> failed;
    for (const LimitStep& step : plan.steps) {
        LimitFacts& facts = tree.facts.nodes[step.node].limits[step.controller];
        Status applied = ChangeLimit(step.controller, tree.dirs[step.node], facts, step.wanted);
        if (applied) {
            const int64_t period = facts.limit.cpu.periodUs;
            facts.limit = step.wanted;
            // A quota that is taken off leaves the period.
            if (facts.limit.cpu.Unlimited()) facts.limit.cpu.periodUs = period;
            facts.swapBytes = step.swapWanted;
            continue;
        }
        failed.push_back(applied.GetError());
        if (IsHopeless(applied.GetError())) break;
    }
    return failed;
}

}  // namespace cgroup
}  // namespace zel
