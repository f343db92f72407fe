// The reader of /proc/vmstat: any text gives counters of known names only, and any two samples give rates.
#include <json/json.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "OsAbnormalMonitor.h"
#include "doubles/Platform.h"

namespace {

class Probe : public COsAbnormalMonitor {
public:
    using COsAbnormalMonitor::m_lastSwapTime;
    using COsAbnormalMonitor::m_prevSwapIndex;
    using COsAbnormalMonitor::m_swapThresholds;
};

void Require(bool holds) {
    if (!holds) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    doubles::Platform& platform = doubles::P();
    const std::string text(reinterpret_cast<const char*>(data), size);
    Probe monitor;
    platform.files.content["/proc/vmstat"] = text;
    std::map<std::string, unsigned long> sample;
    monitor.ReadSwapIndexForSwap(sample);
    Require(sample.count("maj_flt") == 1);
    for (const auto& counter : sample) Require(monitor.m_swapThresholds.count(counter.first) == 1);

    // The second half of the text is what the kernel shows a second later.
    platform.onSleep = [&](unsigned int) { platform.files.content["/proc/vmstat"] = text.substr(size / 2); };
    Json::Value out(Json::objectValue);
    const bool alarm = monitor.FetchSwapIndexIncrement(out);
    platform.onSleep = nullptr;
    Require(alarm == out.isMember("swap"));
    Require(out.size() <= monitor.m_swapThresholds.size() + 1);
    Require(monitor.m_lastSwapTime == platform.now);
    Require(!out.toStyledString().empty());
    platform.TakeJournal();
    return 0;
}
