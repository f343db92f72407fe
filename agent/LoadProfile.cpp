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

/// Reads "kind" or "kind:amount".
base::Result<LoadItem> ParseItem(const std::string& item) {
    const size_t colon = item.find(':');
    const std::string name = item.substr(0, colon);
    const KindRow* row = nullptr;
    for (const KindRow& candidate : kKinds) {
        if (name == candidate.name) row = &candidate;
    }
    if (row == nullptr) {
        return base::SentenceError("unknown load \"" + name + "\", known are idle, greedy, polite, hold, hog, hang");
    }
    if (colon == std::string::npos) return LoadItem{row->kind, row->standard};
    const std::string amount = item.substr(colon + 1);
    char* rest = nullptr;
    const long value = strtol(amount.c_str(), &rest, 10);
    if (amount.empty() || *rest != '\0' || value < 1 || value > row->most) {
        return base::SentenceError("amount \"" + amount + "\" of " + name + ": a number from 1 to " +
                                   std::to_string(row->most));
    }
    return LoadItem{row->kind, static_cast<int>(value)};
}

}  // namespace

base::Result<LoadProfile> ParseLoadProfile(const std::string& text) {
    LoadProfile profile;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(',', at);
        if (end == std::string::npos) end = text.size();
        const std::string item = text.substr(at, end - at);
        at = end + 1;
        if (item.empty() || item == "idle") continue;
        const base::Result<LoadItem> parsed = ParseItem(item);
        if (!parsed) return parsed.GetError();
        profile.push_back(*parsed);
    }
    return profile;
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
