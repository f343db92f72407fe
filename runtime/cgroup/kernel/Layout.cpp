// The one reading of the layout.
#include "Layout.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <string_view>
#include <utility>

#include "Rhythm.h"
#include "base/Clock.h"
#include "base/Fd.h"
#include "base/FileIo.h"
#include "base/Mutex.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr size_t kOwnGroupsBytes = 16384;

template <class T>
std::shared_ptr<const T> Shared(T value) {
    return std::make_shared<const T>(std::move(value));
}

/// The layout of this process. After a fork it is that of another one, and everything is opened anew.
class LayoutCache {
public:
    Result<Layout> Read() ZEL_EXCLUDES(m_mutex) {
        const base::MutexLock lock(m_mutex);
        const Status fresh = Refresh();
        if (!fresh) return fresh.GetError();
        return m_layout;
    }
    Result<LayoutMark> ReadMark() ZEL_EXCLUDES(m_mutex) {
        const base::MutexLock lock(m_mutex);
        const Status fresh = Refresh();
        if (!fresh) return fresh.GetError();
        return m_mark;
    }
    uint64_t Parses() ZEL_EXCLUDES(m_mutex) {
        const base::MutexLock lock(m_mutex);
        return m_parses;
    }

private:
    Status Refresh() ZEL_REQUIRES(m_mutex);
    Status Open() ZEL_REQUIRES(m_mutex);
    Status ReadMounts(bool told, int64_t nowNs) ZEL_REQUIRES(m_mutex);
    Status ReadOwn() ZEL_REQUIRES(m_mutex);
    bool AreMountsTold() const ZEL_REQUIRES(m_mutex);

    base::Mutex m_mutex;
    int m_pid ZEL_GUARDED_BY(m_mutex) = 0;
    base::Fd m_mountFile ZEL_GUARDED_BY(m_mutex);
    base::KeptFile m_ownFile ZEL_GUARDED_BY(m_mutex);
    std::string m_mountText ZEL_GUARDED_BY(m_mutex);
    std::string m_controllerText ZEL_GUARDED_BY(m_mutex);
    std::string m_ownText ZEL_GUARDED_BY(m_mutex);
    int64_t m_comparedNs ZEL_GUARDED_BY(m_mutex) = 0;
    int64_t m_controllersNs ZEL_GUARDED_BY(m_mutex) = 0;
    uint64_t m_parses ZEL_GUARDED_BY(m_mutex) = 0;
    Layout m_layout ZEL_GUARDED_BY(m_mutex);
    LayoutMark m_mark ZEL_GUARDED_BY(m_mutex);
};

bool LayoutCache::AreMountsTold() const {
    struct pollfd each = {m_mountFile.Get(), POLLPRI, 0};
    return base::RetryOnSignal([&] { return poll(&each, 1, 0); }) != 0;
}

Status LayoutCache::Open() {
    m_pid = 0;
    m_mountFile = base::OpenProcFile(base::kMountInfoFile);
    if (!m_mountFile) return ErrnoError(errno, "open", base::kMountInfoFile);
    if (!m_ownFile.Open(base::kOwnGroupsFile)) return ErrnoError(errno, "open", base::kOwnGroupsFile);
    m_pid = m_mark.process = static_cast<int>(getpid());
    m_comparedNs = m_controllersNs = 0;
    return {};
}

Status LayoutCache::ReadMounts(bool told, int64_t nowNs) {
    if (lseek(m_mountFile.Get(), 0, SEEK_SET) != 0) return ErrnoError(errno, "read", base::kMountInfoFile);
    Result<std::string> mounts = base::ReadAll(m_mountFile, base::kMaxProcTextBytes, base::kMountInfoFile);
    if (!mounts) return mounts.GetError();
    const bool same = *mounts == m_mountText && m_parses != 0;
    const bool known = m_controllersNs != 0 && nowNs - m_controllersNs < MostBelievedMs() * kNsPerMs;
    if (same && known && !told) return {};
    Result<std::string> controllers = base::ReadProcText(base::kCgroupsFile);
    const std::string controllerText = controllers ? std::move(*controllers) : std::string();
    const bool absent = !controllers && controllers.GetError().kind == ErrorKind::kNotFound;
    m_controllersNs = controllers.Ok() || absent ? nowNs : 0;
    if (same && controllerText == m_controllerText) return {};
    m_mountText = std::move(*mounts);
    m_controllerText = controllerText;
    m_layout.mounts = Shared(base::ParseMountInfo(m_mountText));
    m_layout.controllers = Shared(base::ParseProcCgroups(m_controllerText));
    ++m_parses;
    return {};
}

Status LayoutCache::ReadOwn() {
    std::array<char, kOwnGroupsBytes> buffer;  // not filled: 16 KB of zeros for 200 bytes
    const std::string_view text = m_ownFile.Read(buffer.data(), buffer.size());
    if (text.empty()) return ErrnoError(errno, "read", base::kOwnGroupsFile);
    if (text == m_ownText) return {};
    if (text.size() + 1 < buffer.size()) {
        m_ownText = text;
    } else {
        Result<std::string> whole = base::ReadProcText(base::kOwnGroupsFile);
        if (!whole) return whole.GetError();
        if (*whole == m_ownText) return {};
        m_ownText = std::move(*whole);
    }
    m_layout.own = Shared(base::ParseProcCgroup(m_ownText));
    ++m_mark.own;
    return {};
}

Status LayoutCache::Refresh() {
    if (m_pid != static_cast<int>(getpid())) {
        const Status opened = Open();
        if (!opened) return opened;
    }
    const int64_t now = base::ClockNs(CLOCK_MONOTONIC_COARSE);
    // They are compared after a while in any case: a sandboxed kernel may have no poll for them.
    // Before the text is read: what changes while it is read is told the next time.
    const bool told = AreMountsTold();
    if (told || m_comparedNs == 0 || now - m_comparedNs >= MostQuietMs() * kNsPerMs) {
        const uint64_t before = m_parses;
        const Status read = ReadMounts(told, now);
        if (!read) {
            m_pid = 0;
            return read;
        }
        // A mount may have gone and come again with the same text.
        if (told || m_parses != before) ++m_mark.mounts;
        m_comparedNs = now;
    }
    const Status own = ReadOwn();
    if (!own) m_pid = 0;
    return own;
}

// Never destroyed: threads of the host may still ask while the process ends.
LayoutCache& ProcessLayout() {
    static LayoutCache* const cache = new LayoutCache;
    return *cache;
}

}  // namespace

Layout::Layout()
    : mounts(std::make_shared<const std::vector<base::CgroupMount>>()),
      own(std::make_shared<const std::vector<base::CgroupMembership>>()),
      controllers(std::make_shared<const std::vector<base::ControllerState>>()) {}

Layout::Layout(const LayoutTexts& texts)
    : mounts(Shared(base::ParseMountInfo(texts.mountInfo))),
      own(Shared(base::ParseProcCgroup(texts.selfCgroup))),
      controllers(Shared(base::ParseProcCgroups(texts.cgroups))) {}

Result<Layout> ReadLayout() {
    return ProcessLayout().Read();
}

Result<LayoutMark> ReadLayoutMark() {
    return ProcessLayout().ReadMark();
}

uint64_t CountLayoutParses() {
    return ProcessLayout().Parses();
}

}  // namespace cgroup
}  // namespace zel
