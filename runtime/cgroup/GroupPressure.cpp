// The kernel's pressure files of the components' leaves: found, armed and read. What stays open does so through a view
// of the group that nobody else has, so that it keeps no mount busy.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "AgentTree.h"
#include "ComponentPlaces.h"
#include "OwnGroup.h"
#include "kernel/CgroupFiles.h"
#include "kernel/ControlText.h"
#include "kernel/LimitUnits.h"
#include "kernel/Limits.h"
#include "base/Pressure.h"
#include "platform/zel/CgroupPressure.h"

namespace zel {
namespace {

using namespace cgroup;

Controller ControllerOf(CgroupResource resource) {
    return resource == CgroupResource::kCpu ? Controller::kCpu : Controller::kMemory;
}

const char* FileOf(CgroupResource resource) {
    return resource == CgroupResource::kCpu ? v2::kCpuPressure : v2::kMemPressure;
}

CgroupResource ResourceOf(Controller controller) {
    return controller == Controller::kCpu ? CgroupResource::kCpu : CgroupResource::kMemory;
}

void NoteUnread(const Error& error, CgroupPressureLook& look) {
    look.whole = false;
    look.problem = error.Text();
}

/// Adds the leaf, or says why not.
void AddLeaf(const std::string& component, Controller controller, const GroupDir& leaf, CgroupPressureLook& look) {
    if (leaf.GetVersion() != Version::kV2) {
        look.problem = std::string("control groups of version 1 have no pressure figures, and ") +
                       ControllerName(controller) + " is on it";
        return;
    }
    const CgroupResource resource = ResourceOf(controller);
    if (!leaf.HasFile(FileOf(resource))) {
        look.problem =
            "the kernel has no pressure figures for groups: boot one that was built with them, without psi=0";
        return;
    }
    const Result<GroupIdentity> identity = leaf.Identity();
    if (!identity) return NoteUnread(identity.GetError(), look);
    look.found.push_back({component, resource, leaf.Path(), identity->inode});
}

/// The group itself, and no other one that was made in its place.
Result<GroupDir> OpenSource(const CgroupPressureSource& source) {
    Result<GroupDir> group = GroupDir::Open(source.path, Version::kV2);
    if (!group) return group;
    const Result<bool> own = IsMarkedOwn(*group);
    const Result<GroupIdentity> identity = group->Identity();
    if (own && *own && identity && identity->inode == source.inode) return group;
    return MakeError(ErrorKind::kNotFound, "open", source.path, "it is another group than before");
}

/// Why the kernel does not take it, for an operator.
std::string Refusal(const Error& error, CgroupResource resource) {
    if (error.error == EOPNOTSUPP) return "switched off for groups: boot with psi=1, and leave cgroup.pressure at 1";
    if (error.error == EINVAL && resource == CgroupResource::kCpu)
        return "of the CPU the kernel tells since Linux 5.13";
    if (error.kind == ErrorKind::kDenied) return "before Linux 6.4 it takes the right CAP_SYS_RESOURCE";
    return error.Text();
}

CgroupPressureLevel ReadLevel(CgroupResource resource, const GroupDir& group) {
    CgroupPressureLevel level;
    const Result<Limit> limit = ReadLimit(ControllerOf(resource), group);
    if (limit) level.limit = AmountOf(ControllerOf(resource), *limit);
    if (resource == CgroupResource::kCpu) {
        const Result<CpuCounters> counters = ReadCpuCounters(group);
        if (!counters) return level;
        level.held = counters->throttledPeriods;
        level.periods = counters->periods;
        return level;
    }
    const Result<std::string> events = group.Read(v2::kMemEventsLocal);
    if (!events) return level;
    const auto values = ParseFlatKeyed(*events);
    const auto reached = values.find("max");
    if (reached != values.end()) level.held = reached->second;
    return level;
}

/// The leaf and the two groups above it. Their names are the ends of its path.
std::vector<CgroupPressureLevel> ReadLevels(const CgroupPressureSource& source, const GroupDir& leaf) {
    std::vector<CgroupPressureLevel> out{ReadLevel(source.resource, leaf)};
    const size_t name = source.path.rfind('/');
    const size_t group = name == std::string::npos || name == 0 ? name : source.path.rfind('/', name - 1);
    if (group == std::string::npos) return out;
    out[0].name = source.path.substr(group + 1);
    for (const size_t end : {name, group}) {
        const Result<GroupDir> above = GroupDir::Open(source.path.substr(0, end), Version::kV2);
        if (!above) break;
        out.push_back(ReadLevel(source.resource, *above));
        if (end == name) out.back().name = source.path.substr(group + 1, name - group - 1);
    }
    return out;
}

}  // namespace

CgroupPressureLook FindCgroupPressure() {
    CgroupPressureLook look;
    const Result<ComponentFile> file = ReadCurrentFile(ComponentFilePath());
    if (file && !file->enabled) return look;
    const Branches branches = FindBranches();
    if (!file) {
        // While the tree is in use somebody has taken the file away, and it comes back.
        const bool none = file.GetError().kind == ErrorKind::kNotFound;
        if (!none || IsTreeInUse(branches)) NoteUnread(file.GetError(), look);
        return look;
    }
    OpenedGroups opened;
    for (const ComponentEntry& entry : file->components) {
        const Result<LeafPlaces> places = OpenPlaces(branches, *file, entry, opened);
        if (!places) {
            NoteUnread(places.GetError(), look);
            continue;
        }
        for (const Controller controller : kAllControllers) {
            if ((*places)[controller]) AddLeaf(entry.name, controller, (*places)[controller]->leaf, look);
        }
    }
    return look;
}

int OpenCgroupPressure(const CgroupPressureSource& source, const std::string& trigger, std::string& problem) {
    const Result<GroupDir> group = OpenSource(source);
    if (!group) {
        problem = group.GetError().Text();
        return -1;
    }
    base::Fd file = group->OpenDetached(FileOf(source.resource), true);
    if (!file) {
        problem = "it could not be kept open without keeping a mount busy: that takes Linux 5.2 and CAP_SYS_ADMIN";
        return -1;
    }
    const Status armed = base::ArmPressureTrigger(file, trigger, source.path);
    if (armed) return file.Release();
    problem = Refusal(armed.GetError(), source.resource);
    return -1;
}

bool ReadCgroupPressure(const CgroupPressureSource& source, bool withLevels, CgroupPressureFigures& out,
                        std::string& error) {
    const Result<GroupDir> group = OpenSource(source);
    const Result<std::string> text =
        group ? group->Read(FileOf(source.resource)) : Result<std::string>(group.GetError());
    if (!text) {
        error = text.GetError().Text();
        return false;
    }
    const auto pressure = base::ParsePressure(*text);
    const bool full = source.resource == CgroupResource::kCpu;
    if (!pressure || (full && !pressure->full)) {
        error = "no figures in " + source.path + "/" + FileOf(source.resource);
        return false;
    }
    const base::PressureLine& line = full ? *pressure->full : pressure->some;
    out = {line.avg10_100times, line.avg60_100times, line.totalUs, {}};
    if (withLevels) out.levels = ReadLevels(source, *group);
    return true;
}

}  // namespace zel
