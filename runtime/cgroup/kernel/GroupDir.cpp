// Control groups by directory descriptor: openat, mkdirat, unlinkat relative to it, no link followed, nothing created.
#include "GroupDir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "CgroupFiles.h"
#include "ControlText.h"
#include "base/Fd.h"
#include "base/FileIo.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
constexpr size_t kMaxChildren = 65536;
constexpr useconds_t kEndingProcessPauseUs = 20000;

base::Fd OpenAt(int dir, const char* name, int flags) {
    return base::Fd(base::RetryOnSignal([&] { return openat(dir, name, flags); }));
}

// A plain directory where a hierarchy should be mounted would take every write as an ordinary file and limit nothing.
Status CheckFileSystem(int fd, const std::string& path, Version version) {
    struct statfs info = {};
    if (base::RetryOnSignal([&] { return fstatfs(fd, &info); }) != 0) return ErrnoError(errno, "statfs", path);
    const auto magic = static_cast<unsigned long>(info.f_type) & 0xffffffffUL;
    const unsigned long wanted = version == Version::kV2 ? kCgroupV2Magic : kCgroupV1Magic;
    if (magic == wanted) return {};
    return MakeError(ErrorKind::kNotCgroup, "use", path,
                     version == Version::kV2 ? "no cgroup2 file system is mounted there"
                                             : "no cgroup version 1 file system is mounted there");
}

Result<GroupIdentity> IdentityOf(int fd, const std::string& path) {
    struct stat info = {};
    if (fstat(fd, &info) != 0) return ErrnoError(errno, "stat", path);
    return GroupIdentity{static_cast<uint64_t>(info.st_dev), static_cast<uint64_t>(info.st_ino)};
}

/// An entry of a directory as the kernel gives it. Source: getdents64(2).
struct Entry {
    uint16_t bytes = 0;
    unsigned char type = 0;
    const char* name = nullptr;
};
constexpr size_t kEntryBytesAt = 16;
constexpr size_t kEntryTypeAt = 18;
constexpr size_t kEntryNameAt = 19;
constexpr size_t kEntriesBytes = 8192;

Entry EntryAt(const char* data) {
    Entry out;
    memcpy(&out.bytes, data + kEntryBytesAt, sizeof out.bytes);
    out.type = static_cast<unsigned char>(data[kEntryTypeAt]);
    out.name = data + kEntryNameAt;
    return out;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// What an operator can do about a write that the kernel refused.
std::string WriteHint(int error, std::string_view file, Version version) {
    switch (error) {
        case EROFS:
            return "the hierarchy is read-only here: remount it read-write, or set ProtectControlGroups=no in the unit";
        case EACCES:
        case EPERM: return "run the agent as root, or give it a delegated group (Delegate=yes in its unit)";
        case ENODEV: return "the group was removed by somebody else";
        case ESRCH: return "the process has ended";
        case ENOENT: return "the kernel offers no such control file in this group";
        case ENOMEM:
        case ENOSPC: return "the kernel had no room; try again later";
        default: break;
    }
    if (file == v2::kSubtreeControl && error == EBUSY) {
        return "processes are in this group itself, move them to a leaf first; or a child still uses the controller";
    }
    if (file == kProcsFile && error == EBUSY && version == Version::kV2) {
        return "this group gives controllers to its children, so processes belong in a leaf below it";
    }
    if (file == kProcsFile && error == EOPNOTSUPP) return "the group is threaded or of an invalid type";
    if (file == kProcsFile && error == EINVAL) return "a kernel thread or a real-time process cannot be moved there";
    if (StartsWith(file, "memory.") && error == EBUSY) {
        return "more memory is in use than the new limit, and it cannot be reclaimed";
    }
    if (StartsWith(file, "cpu.") && error == EINVAL) {
        return "out of the kernel's range (1 ms to 1 s), above the parent's limit or below a child's";
    }
    return {};
}

/// Kernel: a list of version 1 has room for as many as there were when it was begun; of those that are born meanwhile
/// some take the place of others.
constexpr int kMoveLooks = 3;

bool IsSafeComponent(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.size() <= 255 &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

// A process that is ending, or that nobody has waited for yet, is still in /proc but in no group's list.
bool HasEnded(int pid) {
    const Result<base::ProcStat> stat = base::ReadProcessStat(pid);
    if (!stat) return stat.GetError().kind != ErrorKind::kMalformed;
    return stat->IsDead() || stat->IsExiting();
}

}  // namespace

std::string GroupDir::FilePath(std::string_view file) const {
    std::string path = m_path;
    if (path.empty() || path.back() != '/') path += '/';
    path += file;
    return path;
}

Result<GroupDir> GroupDir::Open(const std::string& path, Version version) {
    if (version == Version::kNone) return MakeError(ErrorKind::kRefused, "open", path, "no hierarchy was chosen");
    base::Fd fd = OpenAt(AT_FDCWD, path.c_str(), kDirFlags);
    if (!fd) return ErrnoError(errno, "open", path);
    Status checked = CheckFileSystem(fd.Get(), path, version);
    if (!checked) return checked.GetError();
    const Result<GroupIdentity> identity = IdentityOf(fd.Get(), path);
    if (!identity) return identity.GetError();
    return GroupDir(std::move(fd), path, version, *identity);
}

Result<GroupDir> GroupDir::OpenChild(const std::string& name) const {
    const std::string path = FilePath(name);
    if (!IsSafeComponent(name)) return MakeError(ErrorKind::kRefused, "open", path, "not a name of one group");
    base::Fd fd = OpenAt(m_fd.Get(), name.c_str(), kDirFlags);
    if (!fd) return ErrnoError(errno, "open", path);
    const Result<GroupIdentity> identity = IdentityOf(fd.Get(), path);
    if (!identity) return identity.GetError();
    // What is on this group's device is on its file system; another mount may be of any kind.
    Status checked = identity->device == m_identity.device ? Status() : CheckFileSystem(fd.Get(), path, m_version);
    if (!checked) return checked.GetError();
    return GroupDir(std::move(fd), path, m_version, *identity);
}

Result<GroupDir> GroupDir::OpenBelow(std::string_view relative) const {
    base::Fd own(fcntl(m_fd.Get(), F_DUPFD_CLOEXEC, 0));
    if (!own) return ErrnoError(errno, "open", m_path);
    GroupDir current(std::move(own), m_path, m_version, m_identity);
    while (!relative.empty()) {
        const size_t end = relative.find('/');
        const std::string name(relative.substr(0, end));
        relative.remove_prefix(end == std::string_view::npos ? relative.size() : end + 1);
        if (name.empty()) continue;
        Result<GroupDir> next = current.OpenChild(name);
        if (!next) return next;
        current = std::move(*next);
    }
    return current;
}

Result<GroupDir> GroupDir::MakeChild(const std::string& name, bool* created) const {
    if (created != nullptr) *created = false;
    const std::string path = FilePath(name);
    if (!IsSafeGroupName(name)) {
        return MakeError(ErrorKind::kRefused, "mkdir", path,
                         "only ASCII letters, digits, '.', '_' and '-' are allowed");
    }
    // Mostly it is there.
    Result<GroupDir> child = OpenChild(name);
    if (child || child.GetError().kind != ErrorKind::kNotFound) return child;
    const bool made = mkdirat(m_fd.Get(), name.c_str(), 0755) == 0;
    if (!made && errno != EEXIST) {
        const int error = errno;
        return ErrnoError(error, "mkdir", path, WriteHint(error, "", m_version));
    }
    child = OpenChild(name);
    if (child && created != nullptr) *created = made;
    return child;
}

Status GroupDir::RemoveChild(const std::string& name) const {
    const std::string path = FilePath(name);
    if (!IsSafeComponent(name)) return MakeError(ErrorKind::kRefused, "rmdir", path, "not a name of one group");
    if (unlinkat(m_fd.Get(), name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT || errno == ENODEV) return {};
    const int error = errno;
    return ErrnoError(error, "rmdir", path,
                      error == EBUSY ? "processes or groups are still in it" : WriteHint(error, "", m_version));
}

Result<std::vector<std::string>> GroupDir::Children() const {
    // A descriptor of its own: listing moves the offset that all holders of a descriptor share.
    const base::Fd fd = OpenAt(m_fd.Get(), ".", kDirFlags);
    if (!fd) return ErrnoError(errno, "list", m_path);
    std::vector<std::string> out;
    alignas(8) char entries[kEntriesBytes];  // not filled
    for (;;) {
        const long got =
            base::RetryOnSignal([&] { return syscall(SYS_getdents64, fd.Get(), entries, sizeof entries); });
        if (got < 0) return ErrnoError(errno, "list", m_path);
        if (got == 0) break;
        for (long at = 0; at < got;) {
            const Entry entry = EntryAt(entries + at);
            at += entry.bytes;
            const std::string_view name = entry.name;
            if (name == "." || name == ".." || entry.type != DT_DIR) continue;
            if (out.size() >= kMaxChildren) return MakeError(ErrorKind::kTooLarge, "list", m_path);
            out.emplace_back(name);
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool GroupDir::IsAlive() const {
    if (!m_fd) return false;
    // The descriptor of a removed group stays open, but nothing can be looked up in it any more.
    return faccessat(m_fd.Get(), kProcsFile, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

Result<GroupIdentity> GroupDir::Identity() const {
    if (!m_fd) return ErrnoError(EBADF, "stat", m_path);
    return m_identity;
}

bool GroupDir::HasFile(const char* file) const {
    return faccessat(m_fd.Get(), file, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

Result<std::string> GroupDir::Read(const char* file) const {
    const std::string path = FilePath(file);
    if (!IsSafeComponent(file)) return MakeError(ErrorKind::kRefused, "read", path, "not a name of one file");
    base::Fd fd = OpenAt(m_fd.Get(), file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (!fd) {
        const int error = errno;
        return ErrnoError(error, "open", path, WriteHint(error, file, m_version));
    }
    return base::ReadAll(fd, kMaxControlFileBytes, path, base::kWholePiece);
}

Result<std::string> GroupDir::ReadBelow(std::string_view relative, const char* file) const {
    if (relative.empty()) return Read(file);
    const std::string below = std::string(relative) + "/" + file;
    const std::string path = FilePath(below);
    for (std::string_view rest = below; !rest.empty();) {
        const size_t end = rest.find('/');
        if (!IsSafeComponent(std::string(rest.substr(0, end)))) {
            return MakeError(ErrorKind::kRefused, "read", path, "not a name of one file");
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    const base::Fd fd = OpenAt(m_fd.Get(), below.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (!fd) return ErrnoError(errno, "open", path);
    return base::ReadAll(fd, kMaxControlFileBytes, path, base::kWholePiece);
}

base::Fd GroupDir::OpenDetached(const char* file, bool forWriting) const {
    if (!IsSafeComponent(file)) return {};
    const base::Fd view = base::OpenDetachedView(m_fd.Get());
    const int mode = forWriting ? O_RDWR | O_NONBLOCK : O_RDONLY;
    return view ? OpenAt(view.Get(), file, mode | O_CLOEXEC | O_NOFOLLOW) : base::Fd();
}

Result<int64_t> GroupDir::ReadNumber(const char* file) const {
    Result<std::string> text = Read(file);
    if (!text) return text.GetError();
    Result<int64_t> number = ParseNumberOrMax(*text);
    if (!number) return MakeError(ErrorKind::kMalformed, "read a number from", FilePath(file));
    return number;
}

namespace {

std::string WriteOperation(std::string_view value) {
    return "write " + std::string(value.substr(0, 64)) + " to";
}

}  // namespace

Result<base::Fd> GroupDir::OpenToWrite(const char* file, std::string_view value, int mode) const {
    const std::string path = FilePath(file);
    const std::string operation = WriteOperation(value);
    if (!IsSafeComponent(file)) return MakeError(ErrorKind::kRefused, operation, path, "not a name of one file");
    if (value.size() > kMaxControlValueBytes) return MakeError(ErrorKind::kTooLarge, operation, path);
    // No O_CREAT and no O_TRUNC: a control file exists or the limit does not.
    base::Fd fd = OpenAt(m_fd.Get(), file, mode | O_CLOEXEC | O_NOFOLLOW);
    if (fd) return fd;
    const int error = errno;
    return ErrnoError(error, operation, path, WriteHint(error, file, m_version));
}

Status GroupDir::WriteTo(const base::Fd& fd, const char* file, std::string_view value) const {
    const ssize_t put = base::RetryOnSignal([&] { return write(fd.Get(), value.data(), value.size()); });
    if (put < 0) {
        const int error = errno;
        return ErrnoError(error, WriteOperation(value), FilePath(file), WriteHint(error, file, m_version));
    }
    if (static_cast<size_t>(put) == value.size()) return {};
    return MakeError(ErrorKind::kShortWrite, WriteOperation(value), FilePath(file));
}

Status GroupDir::Write(const char* file, std::string_view value) const {
    const Result<base::Fd> fd = OpenToWrite(file, value, O_WRONLY);
    return fd ? WriteTo(*fd, file, value) : Status(fd.GetError());
}

Result<std::string> GroupDir::WriteAndReadBack(const char* file, std::string_view value) const {
    const Result<base::Fd> fd = OpenToWrite(file, value, O_RDWR);
    if (!fd) return fd.GetError();
    const Status written = WriteTo(*fd, file, value);
    if (!written) return written.GetError();
    // Kernel: a control file reads from its beginning whatever was written.
    char text[kMaxControlValueBytes];  // not filled
    const ssize_t got = base::RetryOnSignal([&] { return pread(fd->Get(), text, sizeof text, 0); });
    if (got < 0) return ErrnoError(errno, "read", FilePath(file));
    return std::string(text, static_cast<size_t>(got));
}

Result<std::vector<int>> GroupDir::Processes() const {
    size_t unseen = 0;
    return Processes(unseen);
}

Result<bool> GroupDir::HoldsProcesses() const {
    size_t unseen = 0;
    const Result<std::vector<int>> pids = Processes(unseen);
    if (!pids) return pids.GetError();
    return unseen > 0 || !pids->empty();
}

Result<std::vector<int>> GroupDir::Processes(size_t& unseen) const {
    Result<std::string> text = Read(kProcsFile);
    if (!text) return text.GetError();
    unseen = CountUnseenPids(*text);
    std::vector<int> pids = ParsePids(*text);
    // Version 1 may list a process twice while it changes groups.
    std::sort(pids.begin(), pids.end());
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    return pids;
}

Result<bool> GroupDir::Contains(int pid) const {
    Result<std::vector<int>> pids = Processes();
    if (!pids) return pids.GetError();
    return std::binary_search(pids->begin(), pids->end(), pid);
}

Status GroupDir::MoveHere(int pid) const {
    const std::string number = std::to_string(pid);
    if (pid <= 0) {
        return MakeError(ErrorKind::kRefused, "write " + number + " to", FilePath(kProcsFile), "not a process");
    }
    if (m_version == Version::kV2) {
        Status room = CheckMayHoldProcesses();
        if (!room) return room;
    }
    Status written = Write(kProcsFile, number);
    if (!written) return written;
    for (int look = 0; look < kMoveLooks; ++look) {
        Result<bool> arrived = Contains(pid);
        if (!arrived) return arrived.GetError();
        if (*arrived) return {};
    }
    if (HasEnded(pid)) {
        return ErrnoError(ESRCH, "move process " + number + " to", m_path, "the process has ended");
    }
    return MakeError(ErrorKind::kNotInForce, "move process " + number + " to", m_path,
                     "the kernel took the write, but the process is not in the group: somebody moved it away");
}

// Processes beside children with controllers: for memory the kernel refuses that, for cpu alone it takes it and makes
// the group the root of a threaded subtree, whose other children can hold no process any more. Refused for both.
Status GroupDir::CheckMayHoldProcesses() const {
    if (IsHierarchyRoot()) return {};
    Result<std::string> enabled = Read(v2::kSubtreeControl);
    if (!enabled) return enabled.GetError();
    if (ParseWords(*enabled).empty()) return {};
    return ErrnoError(EBUSY, "put a process into", FilePath(kProcsFile), WriteHint(EBUSY, kProcsFile, m_version));
}

Status GroupDir::CheckHoldsNoProcess(const std::string& operation) const {
    if (IsHierarchyRoot()) return {};
    const Result<bool> holds = HoldsProcesses();
    if (!holds) return holds.GetError();
    if (!*holds) return {};
    return ErrnoError(EBUSY, operation, FilePath(v2::kSubtreeControl),
                      WriteHint(EBUSY, v2::kSubtreeControl, m_version));
}

bool GroupDir::IsHierarchyRoot() const {
    return m_version != Version::kV2 || !HasFile(v2::kType);
}

Result<bool> GroupDir::HasWord(const char* file, const char* word) const {
    if (m_version != Version::kV2) return true;
    Result<std::string> text = Read(file);
    if (!text) return text.GetError();
    const std::vector<std::string> words = ParseWords(*text);
    return std::find(words.begin(), words.end(), word) != words.end();
}

Result<bool> GroupDir::HasController(const char* controller) const {
    return HasWord(v2::kControllers, controller);
}

Result<bool> GroupDir::IsEnabledForChildren(const char* controller) const {
    return HasWord(v2::kSubtreeControl, controller);
}

Status GroupDir::EnableForChildren(const char* controller) const {
    Result<bool> enabled = IsEnabledForChildren(controller);
    if (!enabled) return enabled.GetError();
    if (*enabled) return {};
    const std::string operation = std::string("enable controller ") + controller + " under";
    Result<bool> offered = HasController(controller);
    if (!offered) return offered.GetError();
    if (!*offered) {
        return MakeError(ErrorKind::kNoController, operation, m_path,
                         std::string("it is not in cgroup.controllers: enable it in the groups above") +
                             " (Delegate=yes gives all), or a version 1 mount holds it");
    }
    Status empty = CheckHoldsNoProcess(operation);
    if (!empty) return empty;
    Status written = Write(v2::kSubtreeControl, std::string("+") + controller);
    if (!written) return written;
    enabled = IsEnabledForChildren(controller);
    if (!enabled) return enabled.GetError();
    if (*enabled) return {};
    return MakeError(ErrorKind::kNotInForce, operation, m_path,
                     "the kernel took the write, but cgroup.subtree_control does not show it");
}

Status GroupDir::DisableForChildren(const char* controller) const {
    if (m_version != Version::kV2) return {};
    Result<bool> enabled = IsEnabledForChildren(controller);
    if (!enabled) return enabled.GetError();
    if (!*enabled) return {};
    return Write(v2::kSubtreeControl, std::string("-") + controller);
}

Result<int> MoveAll(const GroupDir& from, const GroupDir& to, int rounds) {
    int moved = 0;
    for (int round = 0; round < rounds; ++round) {
        Result<std::vector<int>> pids = from.Processes();
        if (!pids) return pids.GetError();
        if (pids->empty()) return moved;
        const int movedBefore = moved;
        for (int pid : *pids) {
            Status status = to.MoveHere(pid);
            if (status) {
                ++moved;
            } else if (status.GetError().kind != ErrorKind::kNotFound) {
                return status.GetError();
            }
        }
        // A process that is ending is listed still and cannot be moved any more: give it the time to be gone.
        if (moved == movedBefore) usleep(kEndingProcessPauseUs);
    }
    return MakeError(ErrorKind::kBusy, "empty", from.Path(), "new processes appear faster than they are moved");
}

}  // namespace cgroup
}  // namespace zel
