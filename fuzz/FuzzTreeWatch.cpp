// Records of inotify as the watch on the groups takes them: whole ones, with any watch, mask and name, and pieces that
// no kernel gives. Nothing is read beyond its end, and every record is counted at most once.
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "kernel/CgroupFiles.h"
#include "kernel/GroupDir.h"
#include "kernel/TreeWatch.h"

extern "C" {
int __wrap_inotify_init1(int flags);
int __wrap_inotify_add_watch(int fd, const char* path, uint32_t mask);
int __wrap_inotify_rm_watch(int fd, int watch);
}

namespace {

using fuzzing::Draw;
using fuzzing::Require;

constexpr size_t kMostRecords = 32;
constexpr size_t kTakenBytes = 8192;
int g_writingEnd = -1;
int g_watches = 0;

/// A record, or something like one; sometimes it fills what is taken at a time to the last byte.
std::string RecordOf(Draw& draw, size_t before) {
    inotify_event event{};
    event.wd = static_cast<int>(draw.Below(6)) - 1;
    static constexpr uint32_t kMasks[] = {IN_MODIFY, IN_CREATE, IN_DELETE_SELF, IN_IGNORED, IN_Q_OVERFLOW, IN_MOVE};
    event.mask = kMasks[draw.Below(std::size(kMasks))];
    const uint8_t kind = draw.Byte();
    std::string name = kind % 4 == 0 ? "memory.events" : kind % 4 == 1 ? "" : draw.Text(40);
    if (!name.empty()) name.resize((name.size() / sizeof event + 1) * sizeof event, '\0');
    const bool fills = kind == 239 && before + sizeof event < kTakenBytes;
    if (fills) name = std::string(kTakenBytes - before - sizeof event, 'x');
    event.len = static_cast<uint32_t>(name.size());
    if (fills) event.len += 64;
    if (kind >= 240) event.len = static_cast<uint32_t>(draw.Number());
    std::string record(sizeof event, '\0');
    std::memcpy(record.data(), &event, sizeof event);
    return record + name;
}

}  // namespace

extern "C" int __wrap_inotify_init1(int) {
    int ends[2];
    Require(pipe2(ends, O_NONBLOCK | O_CLOEXEC) == 0, "a pipe can be made");
    g_writingEnd = ends[1];
    g_watches = 0;
    return ends[0];
}

extern "C" int __wrap_inotify_add_watch(int, const char*, uint32_t) {
    return ++g_watches;
}

extern "C" int __wrap_inotify_rm_watch(int, int) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Draw draw(data, size);
    const zel::cgroup::GroupDir group;
    {
        zel::cgroup::TreeWatch watch;
        const size_t watched = draw.Below(5);
        for (int looks = 0; looks < 2; ++looks) {
            watch.Begin();
            for (size_t i = 0; i < watched; ++i) watch.Watch(group);
            watch.End();
        }
        Require(watch.IsWhole(), "what could be watched is");
        size_t records = 0;
        while (!draw.IsUsedUp() && records < kMostRecords) {
            const uint64_t before = watch.Changes() + watch.Counts();
            std::string text;
            size_t together = 0;
            for (; together <= draw.Below(3); ++together) text += RecordOf(draw, text.size());
            records += together;
            if (draw.Byte() == 255) text.resize(text.size() - text.size() / 3);
            Require(write(g_writingEnd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "it fits");
            watch.Drain();
            const uint64_t taken = watch.Changes() + watch.Counts() - before;
            Require(taken <= 2 * text.size() / sizeof(inotify_event), "a record is counted once");
        }
    }
    close(g_writingEnd);
    return 0;
}
