// Watches and what they tell.
#include "TreeWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "CgroupFiles.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {
namespace {

constexpr uint32_t kMask = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE | IN_MOVE_SELF;
/// What is taken at a time; what is left comes with the next call.
constexpr size_t kTakeBytes = 8192;

bool IsCounter(std::string_view name) {
    return name == v2::kMemEvents || name == v2::kMemEventsLocal;
}

}  // namespace

void TreeWatch::Begin() {
    LetGoOfParents();
    m_pid = getpid();
    ++m_look;
    m_whole = true;
    if (!m_fd) m_fd.Reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    Drain();
}

void TreeWatch::Add(const char* path) {
    const int watch = m_fd ? inotify_add_watch(m_fd.Get(), path, kMask) : -1;
    if (watch < 0) {
        m_whole = false;  // no room for one more (ENOSPC), or it has gone meanwhile
    } else {
        m_watches[watch] = m_look;
    }
}

void TreeWatch::Watch(const GroupDir& group) {
    Add(base::OwnDescriptor(group.Descriptor()).c_str());
}

void TreeWatch::WatchFile(const GroupDir& group, const char* file) {
    Add((std::string(base::OwnDescriptor(group.Descriptor()).c_str()) + "/" + file).c_str());
}

void TreeWatch::End() {
    for (auto each = m_watches.begin(); each != m_watches.end();) {
        if (each->second == m_look) {
            ++each;
            continue;
        }
        inotify_rm_watch(m_fd.Get(), each->first);
        each = m_watches.erase(each);
    }
}

void TreeWatch::LetGo() {
    m_fd.Reset();
    m_watches.clear();
    m_whole = false;
}

void TreeWatch::LetGoOfParents() {
    if (m_fd && m_pid != getpid()) LetGo();
}

void TreeWatch::Take(int watch, uint32_t mask, std::string_view name) {
    if ((mask & IN_Q_OVERFLOW) != 0) {
        ++m_changes;
        ++m_counts;
        return;
    }
    // Of a watch that was given up: its last words.
    if (m_watches.count(watch) == 0) return;
    IsCounter(name) ? ++m_counts : ++m_changes;
    if ((mask & IN_IGNORED) != 0) m_watches.erase(watch);
}

void TreeWatch::Drain() {
    if (!m_fd) return;
    alignas(inotify_event) std::array<char, kTakeBytes> buffer;  // not filled: nearly always nothing is there
    for (;;) {
        const ssize_t got = base::RetryOnSignal([&] { return read(m_fd.Get(), buffer.data(), buffer.size()); });
        if (got <= 0) return;
        for (size_t at = 0; at + sizeof(inotify_event) <= static_cast<size_t>(got);) {
            inotify_event event = {};
            memcpy(&event, buffer.data() + at, sizeof event);
            at += sizeof event;
            const char* name = buffer.data() + at;
            if (event.len > static_cast<size_t>(got) - at) break;  // no kernel gives a part of one
            at += event.len;
            Take(event.wd, event.mask, {name, event.len == 0 ? 0 : strnlen(name, event.len)});
        }
    }
}

}  // namespace cgroup
}  // namespace zel
