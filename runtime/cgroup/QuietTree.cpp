// Noting what is in order, and comparing it.
#include "QuietTree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "kernel/CgroupFiles.h"
#include "kernel/Limits.h"
#include "kernel/Rhythm.h"
#include "base/FileIo.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {
namespace {

constexpr size_t kPieceBytes = 65536;

/// Kernel: version 1 gives an open list as it was for a second after it was last read.
constexpr int64_t kFreshAfterMs = 1500;

/// Nothing that only saves work is kept open by a process that may have few descriptors.
constexpr long kPlentyOfDescriptors = 512;
constexpr size_t kValueBytes = 256;
constexpr size_t kPlaceBytes = 4096;

/// The files that say how much one controller gives a group.
std::vector<const char*> ValueFilesOf(Controller controller, Version version) {
    if (controller == Controller::kCpu && version == Version::kV1) return {v1::kCpuQuotaUs, v1::kCpuPeriodUs};
    return {LimitFileOf(controller, version)};
}

/// Returns: whether an open list reads as `text`.
bool ReadsAs(int fd, std::string_view text, std::string& buffer) {
    buffer.resize(std::min(text.size() + base::kWholePiece, kPieceBytes));
    size_t done = 0;
    for (;;) {
        const ssize_t got =
            base::RetryOnSignal([&] { return pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(done)); });
        if (got < 0) return false;
        const auto size = static_cast<size_t>(got);
        if (text.substr(done, size) != std::string_view(buffer.data(), size)) return false;
        done += size;
        if (size == 0) return done == text.size();
        if (done == text.size() && size < base::kWholePiece && done == size) return true;
    }
}

}  // namespace

void QuietTree::Begin() {
    m_settled = false;
    const Result<LayoutMark> layout = ReadLayoutMark();
    m_complete = layout.Ok();
    if (layout) FollowMounts(*layout);
    m_watch.Begin();
    m_changes = m_watch.Changes();
    m_comparable = sysconf(_SC_OPEN_MAX) >= kPlentyOfDescriptors;
    m_trees.clear();
    m_threads.clear();
    m_places = 0;
    m_before.clear();
    for (Members& members : m_members) {
        std::string path = members.path;
        m_before[std::move(path)] = std::move(members);
    }
    m_members.clear();
    m_valuesBefore.clear();
    for (Value& value : m_values) {
        std::string path = value.path;
        m_valuesBefore[std::move(path)] = std::move(value);
    }
    m_values.clear();
}

void QuietTree::ForgetValues() {
    m_comparable = false;
    m_values.clear();
    m_valuesBefore.clear();
}

void QuietTree::FollowMounts(const LayoutMark& layout) {
    if (layout.mounts != m_layout.mounts) {
        for (Members& members : m_members) members.kept.Reset();
        ForgetValues();
    }
    if (layout.process != m_layout.process) m_watch.LetGo();
    m_settled = m_settled && layout == m_layout;
    m_layout = layout;
}

void QuietTree::NoteTree(const GroupDir& tree) {
    const Result<GroupIdentity> identity = tree.Identity();
    if (identity) m_trees.push_back({tree.Path(), *identity});
    m_complete = m_complete && identity;
}

bool QuietTree::HasTree(const GroupIdentity& tree) const {
    return std::any_of(m_trees.begin(), m_trees.end(), [&](const Tree& each) { return each.identity == tree; });
}

void QuietTree::NoteMembers(const GroupDir& leaf, const char* file) {
    Result<std::string> text = leaf.Read(file);
    const Result<GroupIdentity> identity = leaf.Identity();
    if (!text || !identity) {
        m_complete = false;
        return;
    }
    Members members;
    members.path = leaf.Path();
    members.version = leaf.GetVersion();
    members.identity = *identity;
    members.file = file;
    members.text = std::move(*text);
    const auto before = m_before.find(members.path);
    if (before != m_before.end() && before->second.identity == members.identity) {
        members.kept = std::move(before->second.kept);
        members.readMs = before->second.readMs;
    }
    if (!members.kept) members.kept = leaf.OpenDetached(file);
    m_members.push_back(std::move(members));
}

void QuietTree::NoteThreads(const GroupDir& leaf, int pid) {
    const Result<GroupIdentity> list = leaf.Identity();
    m_complete = m_complete && list;
    if (!list) return;
    // One count serves the leaves of all hierarchies: the first one, since what began meanwhile is judged with it.
    for (Threads& known : m_threads) {
        if (known.pid != pid) continue;
        known.listedTwice = known.listedTwice || known.list != *list;
        return;
    }
    const Result<uint64_t> count = base::CountThreads(pid);
    m_complete = m_complete && count;
    if (!count) return;
    Threads threads;
    threads.pid = pid;
    threads.count = *count;
    threads.list = *list;
    NotePlace(threads);
    m_threads.push_back(std::move(threads));
}

/// This process's own place is the layout's to know.
void QuietTree::NotePlace(Threads& threads) {
    if (!m_comparable || threads.pid == getpid()) return;
    if (++m_places > kMostValues) {  // a component with many children
        for (Threads& known : m_threads) known.place.Close();
        return ForgetValues();
    }
    if (!threads.place.Open(base::ProcessFile(threads.pid, "cgroup").c_str())) return;
    std::array<char, kPlaceBytes> buffer;  // not filled
    threads.groups = threads.place.Read(buffer.data(), buffer.size());
}

void QuietTree::NoteLimits(const GroupDir& group, const Flags& controllers) {
    for (const Controller controller : kAllControllers) {
        if (!controllers[controller]) continue;
        for (const char* file : ValueFilesOf(controller, group.GetVersion())) NoteValue(group, file);
    }
}

void QuietTree::NoteValue(const GroupDir& group, const char* file) {
    if (!m_comparable) return;
    const Result<GroupIdentity> identity = group.Identity();
    Value value;
    value.path = group.Path() + "/" + file;
    const auto before = m_valuesBefore.find(value.path);
    if (before != m_valuesBefore.end() && identity && before->second.identity == *identity) {
        value.kept = std::move(before->second.kept);
    }
    if (!value.kept && !group.HasFile(file)) return;  // the controller is off there; that it comes is told
    if (!value.kept && m_values.size() < kMostValues) value.kept = group.OpenDetached(file);
    std::array<char, kValueBytes> buffer;  // not filled
    if (value.kept) value.text = base::RereadText(value.kept.Get(), buffer.data(), buffer.size());
    if (!identity || value.text.empty()) return ForgetValues();
    value.identity = *identity;
    m_values.push_back(std::move(value));
}

void QuietTree::Settle(bool inOrder, int64_t nowMs) {
    m_watch.End();
    m_before.clear();
    m_settled = inOrder && m_complete && m_watch.IsWhole();
    m_settledAtMs = m_comparedAtMs = nowMs;
    m_valuesBefore.clear();
    if (!m_settled) Disturb();
}

void QuietTree::Disturb() {
    m_settled = false;
}

bool QuietTree::IsSame(const Tree& tree) {
    struct stat info = {};
    return stat(tree.path.c_str(), &info) == 0 && info.st_dev == tree.identity.device &&
           info.st_ino == tree.identity.inode;
}

bool QuietTree::IsSame(const Threads& threads) {
    const Result<uint64_t> now = base::CountThreads(threads.pid);
    return now && *now == threads.count;
}

bool QuietTree::IsSame(Members& members, int64_t nowMs) {
    const bool fresh = members.version == Version::kV2 || nowMs - members.readMs >= kFreshAfterMs;
    if (members.kept && fresh) {
        members.readMs = nowMs;
        return ReadsAs(members.kept.Get(), members.text, m_buffer);
    }
    const Result<GroupDir> group = GroupDir::Open(members.path, members.version);
    if (!group) return false;
    const Result<std::string> text = group->Read(members.file);
    return text && *text == members.text;
}

bool QuietTree::Holds(int64_t nowMs) {
    if (!m_settled) return false;
    const Result<LayoutMark> layout = ReadLayoutMark();
    if (layout) FollowMounts(*layout);
    m_watch.Drain();
    m_settled = layout && m_settled && m_watch.IsWhole() && m_watch.Changes() == m_changes &&
                std::all_of(m_threads.begin(), m_threads.end(),
                            [](const Threads& threads) { return threads.listedTwice || IsSame(threads); }) &&
                std::all_of(m_members.begin(), m_members.end(), [&](Members& each) { return IsSame(each, nowMs); }) &&
                StandsAsNoted(nowMs);
    return m_settled;
}

/// What is compared once in a while only. Returns: whether that holds, too.
bool QuietTree::StandsAsNoted(int64_t nowMs) {
    if (nowMs - m_comparedAtMs < MostQuietMs()) return true;
    if (!m_comparable || nowMs - m_settledAtMs >= MostBelievedMs()) return false;
    m_comparedAtMs = nowMs;
    return std::all_of(m_trees.begin(), m_trees.end(), [](const Tree& tree) { return IsSame(tree); }) &&
           std::all_of(m_threads.begin(), m_threads.end(), [](const Threads& threads) { return IsSame(threads); }) &&
           AreValuesAsNoted();
}

bool QuietTree::AreValuesAsNoted() {
    std::array<char, kPlaceBytes> buffer;  // not filled
    const auto sameText = [&](int fd, const std::string& text) {
        return base::RereadText(fd, buffer.data(), buffer.size()) == text;
    };
    return std::all_of(m_values.begin(), m_values.end(),
                       [&](const Value& value) { return sameText(value.kept.Get(), value.text); }) &&
           std::all_of(m_threads.begin(), m_threads.end(), [&](const Threads& threads) {
               return !threads.place.IsOpen() || threads.place.Read(buffer.data(), buffer.size()) == threads.groups;
           });
}

}  // namespace cgroup
}  // namespace zel
