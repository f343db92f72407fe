// Marks, and what is made and opened by them.
#include "OwnGroup.h"

#include <sys/xattr.h>

#include <cerrno>
#include <utility>

#include "Hierarchy.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace cgroup {
namespace {

/// The mark, and its form for an agent that is not root in a delegated group of version 2.
constexpr const char* kMarkNames[] = {"trusted.zel.agent", "user.zel.agent"};
constexpr size_t kMaxMarkBytes = 64;
constexpr const char* kOriginNames[] = {"trusted.zel.origin", "user.zel.origin"};
constexpr size_t kMaxOriginBytes = 4096;

std::string OwnTag() {
    return ApplicationTag(CToolUtil::GetApplicationDirPath());
}

Error Foreign(const GroupDir& group) {
    return MakeError(ErrorKind::kRefused, "use", group.Path(),
                     "it was not made by this agent and is in use: remove it, or set ZEL_CGROUP_NAME to another name");
}

/// A group that is there already where ours belongs: an operator has prepared it, or a crash came before its mark. With
/// whatever is set on it beside our limits it becomes ours, if nobody is in it.
Result<GroupDir> Adopt(GroupDir group) {
    const Result<bool> isUsed = group.HoldsProcesses();
    if (!isUsed) return isUsed.GetError();
    Result<std::vector<std::string>> children = group.Children();
    if (!children) return children.GetError();
    if (*isUsed || !children->empty()) return Foreign(group);
    Status marked = MarkOwn(group);
    if (!marked) return marked.GetError();
    CLogMessage::GetInstance()->log(kLogInfo, "CgroupManager", __LINE__,
                                    "CgroupManager: %s was there already, empty and not ours: it is taken over with "
                                    "what is set on it, and removed with the others at the end",
                                    group.Path().c_str());
    return group;
}

}  // namespace

Status MarkOwn(const GroupDir& group) {
    const std::string tag = OwnTag();
    int error = 0;
    for (const char* name : kMarkNames) {
        if (fsetxattr(group.Descriptor(), name, tag.data(), tag.size(), 0) == 0) return {};
        error = errno;
    }
    return ErrnoError(error, "mark as ours", group.Path());
}

Result<bool> IsMarkedOwn(const GroupDir& group) {
    const std::string tag = OwnTag();
    for (const char* name : kMarkNames) {
        char value[kMaxMarkBytes] = {};
        const ssize_t size = fgetxattr(group.Descriptor(), name, value, sizeof value);
        if (size >= 0) return std::string(value, static_cast<size_t>(size)) == tag;
        if (errno != ENODATA && errno != EOPNOTSUPP && errno != EPERM && errno != ERANGE) {
            return ErrnoError(errno, "read the mark of", group.Path());
        }
    }
    return false;
}

void NoteOrigin(const GroupDir& group, const std::string& path) {
    if (path.empty() || path.size() > kMaxOriginBytes) return;
    for (const char* name : kOriginNames) {
        const int written = fsetxattr(group.Descriptor(), name, path.data(), path.size(), XATTR_CREATE);
        if (written == 0 || errno == EEXIST) return;
    }
}

std::string ReadOrigin(const GroupDir& group) {
    for (const char* name : kOriginNames) {
        char value[kMaxOriginBytes] = {};
        const ssize_t size = fgetxattr(group.Descriptor(), name, value, sizeof value);
        if (size > 0) return std::string(value, static_cast<size_t>(size));
    }
    return {};
}

Result<GroupDir> OpenOwnChild(const GroupDir& parent, const std::string& name) {
    Result<GroupDir> child = parent.OpenChild(name);
    if (!child) return child;
    Result<bool> own = IsMarkedOwn(*child);
    if (!own) return own.GetError();
    if (!*own) return Foreign(*child);
    return child;
}

Result<GroupDir> MakeOwnChild(const GroupDir& parent, const std::string& name) {
    bool created = false;
    Result<GroupDir> child = parent.MakeChild(name, &created);
    if (!child) return child;
    if (created) {
        Status marked = MarkOwn(*child);
        if (marked) return child;
        Status removed = parent.RemoveChild(name);
        static_cast<void>(removed);  // the failure to report is the mark's
        return marked.GetError();
    }
    Result<bool> own = IsMarkedOwn(*child);
    if (!own) return own.GetError();
    return *own ? std::move(child) : Adopt(std::move(*child));
}

Result<std::vector<OwnChild>> OpenOwnChildren(const GroupDir& parent, std::vector<Error>& unread,
                                              OpenChildrenByName opened) {
    Result<std::vector<std::string>> names = parent.Children();
    if (!names) return names.GetError();
    std::vector<OwnChild> out;
    for (std::string& name : *names) {
        const auto known = opened.find(name);
        Result<GroupDir> child = known == opened.end() ? OpenOwnChild(parent, name) : std::move(known->second);
        if (child) {
            out.push_back({std::move(name), std::move(*child)});
            continue;
        }
        // Somebody else's group, or one that was removed meanwhile, is none of ours.
        const ErrorKind kind = child.GetError().kind;
        if (kind != ErrorKind::kRefused && kind != ErrorKind::kNotFound) unread.push_back(child.GetError());
    }
    return out;
}

Result<std::vector<OwnChild>> OpenOwnChildren(const GroupDir& parent) {
    std::vector<Error> ignored;
    return OpenOwnChildren(parent, ignored);
}

}  // namespace cgroup
}  // namespace zel
