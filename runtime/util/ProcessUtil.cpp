// Facts about processes.
#include "platform/zel/ProcessUtil.h"

#include <unistd.h>

#include "base/ProcFiles.h"

namespace zel {
namespace {

constexpr unsigned long kBytesPerKb = 1024;

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

}  // namespace zel
