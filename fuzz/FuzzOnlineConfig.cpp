// Hostile texts for the reader of the online configuration. Whatever comes: what is taken lies inside its range, and
// what is refused gives a reason that fits into one log line.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "config/OnlineConfigParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto values = zelhost::ParseOnlineConfig(text);
    if (!values) {
        const std::string line = values.GetError().Text();
        if (line.empty() || line.size() > 400) std::abort();
        for (const char c : line) {
            if (static_cast<unsigned char>(c) < 0x20) std::abort();
        }
        return 0;
    }
    for (const auto& value : *values) {
        if (value.first >= zelhost::kOnlineKeyCount) std::abort();
        const zelhost::OnlineKey& key = zelhost::OnlineKeys()[value.first];
        if (value.second < key.least || value.second > key.most) std::abort();
    }
    return 0;
}
