// Hostile texts for the readers of /proc/PID/stat, statm, io, status, of meminfo, loadavg and the boot id.
// What is taken is within its bounds, and no text may be read beyond its end.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "base/ProcFiles.h"

namespace {

void Require(bool holds) {
    if (!holds) abort();
}

void CheckStat(std::string_view text) {
    const auto stat = base::ParseProcStat(text);
    if (!stat) return;
    Require(stat->pid > 0 && stat->parent >= 0 && stat->residentPages >= 0);
    Require(std::find(stat->name.begin(), stat->name.end(), '\0') != stat->name.end());
    // A reader that trusts the first bracket would find other figures: the name may hold whatever it likes.
    const size_t shut = text.rfind(')');
    std::string renamed = std::to_string(stat->pid) + " (a) S 1 2)" + std::string(text.substr(shut + 1));
    const auto again = base::ParseProcStat(renamed);
    Require(again && again->state == stat->state && again->parent == stat->parent &&
            again->startTicks == stat->startTicks && again->residentPages == stat->residentPages);
}

void CheckHost(std::string_view text) {
    if (const auto info = base::ParseMemInfo(text)) {
        const int percent = base::UsagePercent(*info);
        Require(info->totalKb > 0 && percent >= 0 && percent <= 100);
    }
    if (const auto load = base::ParseLoadAvg(text)) Require(std::isfinite(*load) && *load >= 0);
    const std::string boot = base::ParseBootId(text);
    Require(boot.empty() || boot.size() == 36);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy of exactly this size: the sanitizer sees a step beyond it.
    const std::vector<char> bytes(data, data + size);
    const std::string_view text(bytes.data(), bytes.size());
    CheckStat(text);
    CheckHost(text);
    if (const auto pages = base::ParseStatmResident(text)) Require(*pages >= 0);
    if (const auto io = base::ParseProcIo(text)) {
        Require(io->readBytes == base::ParseStatusNumber(text, "read_bytes"));
        Require(io->writeBytes == base::ParseStatusNumber(text, "write_bytes"));
    }
    (void)base::ParseStatusNumber(text, "Threads");
    return 0;
}
