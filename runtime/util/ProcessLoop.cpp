// The one event loop of a process. What its users hold is this library's code.
#include "platform/zel/ProcessLoop.h"

#include <unistd.h>

#include <utility>

#include "base/IoLoop.h"
#include "base/Mutex.h"

namespace zel {
namespace {

constexpr char kThreadName[] = "zel-io";

struct Current {
    base::Mutex mutex;
    std::weak_ptr<base::IoLoop> loop ZEL_GUARDED_BY(mutex);
    pid_t owner ZEL_GUARDED_BY(mutex) = 0;
};

Current& GetCurrent() {
    static Current* const current = new Current;  // a user may end while the process goes down
    return *current;
}

}  // namespace

std::shared_ptr<base::IoLoop> JoinProcessLoop(std::string& error) {
    Current& current = GetCurrent();
    const base::MutexLock guard(current.mutex);
    // A forked child has no thread of its parent's loop, and leaves that alone.
    if (current.owner == getpid()) {
        if (std::shared_ptr<base::IoLoop> joined = current.loop.lock()) return joined;
    }
    base::Result<std::unique_ptr<base::IoLoop>> started = base::IoLoop::Start(kThreadName);
    if (!started) {
        error = started.GetError().Text();
        return nullptr;
    }
    std::shared_ptr<base::IoLoop> made = std::move(*started);
    current.loop = made;
    current.owner = getpid();
    return made;
}

}  // namespace zel
