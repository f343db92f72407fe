// Text form of the synthetic load.
#include "LoadProfile.h"

#include <cstdlib>

namespace agent {

namespace {

struct KindRow {
    const char* name;
    LoadKind kind;
    int standard;  ///< amount when none is given
    int most;
};

constexpr KindRow kKinds[] = {
    {"greedy", LoadKind::kGreedy, 1, 64}, {"polite", LoadKind::kPolite, 1, 64}, {"hold", LoadKind::kHold, 32, 65536},
    {"hog", LoadKind::kHog, 16, 4096},    {"hang", LoadKind::kHang, 10, 86400},
};

}  // namespace

bool ParseLoadProfile(const std::string& text, LoadProfile& profile, std::string& problem) {
    LoadProfile parsed;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(',', at);
        if (end == std::string::npos) end = text.size();
        std::string item = text.substr(at, end - at);
        at = end + 1;
        if (item.empty() || item == "idle") continue;
        size_t colon = item.find(':');
        std::string name = item.substr(0, colon);
        const KindRow* row = nullptr;
        for (const KindRow& candidate : kKinds) {
            if (name == candidate.name) row = &candidate;
        }
        if (row == nullptr) {
            problem = "unknown load \"" + name + "\", known are idle, greedy, polite, hold, hog, hang";
            return false;
        }
        LoadItem loadItem{row->kind, row->standard};
        if (colon != std::string::npos) {
            std::string amount = item.substr(colon + 1);
            char* rest = nullptr;
            long value = strtol(amount.c_str(), &rest, 10);
            if (amount.empty() || *rest != '\0' || value < 1 || value > row->most) {
                problem = "amount \"" + amount + "\" of " + name + ": a number from 1 to " + std::to_string(row->most);
                return false;
            }
            loadItem.amount = static_cast<int>(value);
        }
        parsed.push_back(loadItem);
    }
    profile = parsed;
    return true;
}

std::string FormatLoadProfile(const LoadProfile& profile) {
    std::string text;
    for (const LoadItem& item : profile) {
        for (const KindRow& row : kKinds) {
            if (row.kind != item.kind) continue;
            if (!text.empty()) text += ',';
            text += std::string(row.name) + ":" + std::to_string(item.amount);
        }
    }
    return text.empty() ? "idle" : text;
}

}  // namespace agent
