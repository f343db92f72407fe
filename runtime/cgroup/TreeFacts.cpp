// Reading facts, applying plans.
#include "TreeFacts.h"

#include <utility>

#include "kernel/Limits.h"
#include "OwnGroup.h"

namespace zel {
namespace cgroup {
namespace {

LimitFacts ReadLimitFacts(Controller controller, const GroupDir& dir) {
    LimitFacts out;
    out.hasFile = dir.HasFile(LimitFileOf(controller, dir.GetVersion()));
    if (!out.hasFile) return out;
    if (controller == Controller::kCpu) {
        Result<CpuQuota> quota = ReadCpuQuota(dir);
        if (!quota) out.failure = quota.GetError();
        if (quota) out.limit.cpu = *quota;
        return out;
    }
    Result<MemLimit> limit = ReadMemLimit(dir);
    if (!limit) {
        out.failure = limit.GetError();
        return out;
    }
    out.limit.bytes = limit->hardBytes;
    out.hasSwapLimit = limit->hasSwapLimit;
    out.swapBytes = limit->swapBytes;
    return out;
}

std::vector<OwnChild> OpenChildren(const GroupDir& parent, std::vector<Error>& unread) {
    Result<std::vector<OwnChild>> children = OpenOwnChildren(parent, unread);
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
                       const GroupObserver& observe) {
    const auto begin = [&](const GroupDir& group) {
        if (observe) observe(group);
    };
    OpenTreeFacts out;
    out.facts.version = tree.GetVersion();
    out.facts.serves = serves;
    begin(tree);
    std::vector<OwnChild> groups;
    if (depth > 0) groups = OpenChildren(tree, out.unread);
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

bool IsHopeless(const Error& error) {
    return error.kind == ErrorKind::kReadOnly || error.kind == ErrorKind::kDenied ||
           error.kind == ErrorKind::kNotCgroup;
}

std::vector<Error> ApplyPlan(const LimitPlan& plan, const OpenTreeFacts& tree) {
    std::vector<Error> failed;
    for (const LimitStep& step : plan.steps) {
        Status applied = ApplyLimit(step.controller, tree.dirs[step.node], step.wanted);
        if (applied) continue;
        failed.push_back(applied.GetError());
        if (IsHopeless(applied.GetError())) break;
    }
    return failed;
}

}  // namespace cgroup
}  // namespace zel
