#include "MemInfo.h"

#include <algorithm>
#include <charconv>

namespace zel {
namespace {

// Value of the line "<name>:   <number> kB".
bool FieldKb(std::string_view text, std::string_view name, unsigned long& value) {
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, end - at);
        at = end + 1;
        if (line.size() <= name.size() || line.substr(0, name.size()) != name || line[name.size()] != ':') continue;
        line.remove_prefix(std::min(line.find_first_not_of(" \t", name.size() + 1), line.size()));
        const std::from_chars_result result = std::from_chars(line.data(), line.data() + line.size(), value);
        return result.ec == std::errc() &&
               std::string_view(result.ptr, static_cast<size_t>(line.data() + line.size() - result.ptr)) == " kB";
    }
    return false;
}

}  // namespace

bool ParseMemInfo(std::string_view text, MemInfo& info) {
    MemInfo found;
    if (!FieldKb(text, "MemTotal", found.totalKb) || found.totalKb == 0) return false;
    if (!FieldKb(text, "MemAvailable", found.availableKb)) {
        unsigned long freeKb = 0;
        unsigned long buffersKb = 0;
        unsigned long cachedKb = 0;
        if (!FieldKb(text, "MemFree", freeKb) || !FieldKb(text, "Buffers", buffersKb) ||
            !FieldKb(text, "Cached", cachedKb)) {
            return false;
        }
        found.availableKb = freeKb + buffersKb + cachedKb;
    }
    info = found;
    return true;
}

int UsagePercent(const MemInfo& info) {
    // In a container the two may come from different views of the machine: more available than there is means idle.
    const unsigned long available = std::min(info.availableKb, info.totalKb);
    const auto share = static_cast<unsigned __int128>(available) * 100 / info.totalKb;
    return 100 - static_cast<int>(share);
}

}  // namespace zel
