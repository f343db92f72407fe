// Facts about processes.
#include "platform/zel/ProcessUtil.h"

#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>

#include "base/ProcFiles.h"

namespace zel {
namespace {

constexpr unsigned long kBytesPerKb = 1024;
// One for all threads: a second keeps what its threads ever freed, and the sampler's rounds, which must not be held up
// by a busy thread, allocate nothing.
constexpr int kHeaps = 1;

class ProcessUtil final : public IProcessUtil {
public:
    int GetCurrentProcessId() override { return static_cast<int>(::getpid()); }

    unsigned long GetProcessMemory(int pid) override {
        static const unsigned long pageKb = static_cast<unsigned long>(::sysconf(_SC_PAGESIZE)) / kBytesPerKb;
        if (pid <= 0) return 0;
        const base::Result<int64_t> pages = base::ReadResidentPages(pid);
        return pages ? static_cast<unsigned long>(*pages) * pageKb : 0;
    }
};

}  // namespace

IProcessUtil* GetProcessUtil() {
    static ProcessUtil util;
    return &util;
}

bool KeepProcessMemorySmall() {
    mallopt(M_ARENA_MAX, kHeaps);
    return sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0) == SQLITE_OK;
}

void GiveBackFreedMemory() {
    malloc_trim(0);
}

}  // namespace zel
