// Times and sizes in words, and back.
#include "HumanText.h"

#include <ctime>
#include <iterator>

#include "Text.h"

namespace agent {

namespace {

struct Unit {
    const char* name;
    int64_t size;
};

constexpr int64_t kMsPerSecond = 1000;
constexpr Unit kTimes[] = {{"d", 86400 * kMsPerSecond},
                           {"h", 3600 * kMsPerSecond},
                           {"min", 60 * kMsPerSecond},
                           {"s", kMsPerSecond},
                           {"ms", 1}};
constexpr const char* kSizes[] = {"B", "KB", "MB", "GB", "TB"};
constexpr int64_t kMostUnits = 100000;  // of a span of time that somebody types

long long Number(int64_t value) {
    return value;
}

/// Seconds that one of the letter stands for; 0 when it stands for none.
int64_t SecondsOf(const std::string& unit) {
    if (unit.empty() || unit == "s") return 1;
    if (unit == "m" || unit == "min") return 60;
    if (unit == "h") return 3600;
    return unit == "d" ? 86400 : 0;
}

/// Returns: false when it is no date of one of these forms, or names no day that there is.
bool ParseDate(const std::string& text, int64_t& seconds) {
    for (const char* form :
         {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S"}) {
        tm local{};
        local.tm_isdst = -1;
        const char* const end = strptime(text.c_str(), form, &local);
        if (end == nullptr || *end != '\0') continue;
        const tm asked = local;
        const time_t time = mktime(&local);
        if (time == -1 || local.tm_mday != asked.tm_mday) return false;
        seconds = time;
        return true;
    }
    return false;
}

}  // namespace

std::string HumanDuration(int64_t milliseconds) {
    if (milliseconds < 0) return "unknown";
    for (size_t i = 0; i + 1 < std::size(kTimes); ++i) {
        const Unit& unit = kTimes[i];
        if (milliseconds < unit.size) continue;
        const std::string whole = Text("%lld %s", Number(milliseconds / unit.size), unit.name);
        const Unit& next = kTimes[i + 1];
        const int64_t rest = milliseconds % unit.size / next.size;
        // Milliseconds tell nothing beside seconds.
        return rest == 0 || next.size == 1 ? whole : whole + Text(" %lld %s", Number(rest), next.name);
    }
    return Text("%lld ms", Number(milliseconds));
}

std::string HumanBytes(int64_t bytes) {
    if (bytes < 0) return "unknown";
    double amount = static_cast<double>(bytes);
    size_t unit = 0;
    while (amount >= 1024 && unit + 1 < std::size(kSizes)) {
        amount /= 1024;
        ++unit;
    }
    return Text(unit == 0 ? "%.0f %s" : "%.1f %s", amount, kSizes[unit]);
}

std::string HumanPercent(int64_t hundredths) {
    if (hundredths % 100 == 0) return Text("%lld %%", Number(hundredths / 100));
    return Text("%lld.%02lld %%", Number(hundredths / 100), Number(hundredths % 100));
}

std::string ClockText(int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm local{};
    char text[32] = "";
    if (localtime_r(&time, &local) != nullptr) strftime(text, sizeof text, "%F %T", &local);
    return text;
}

base::Result<int64_t> ParseSince(const std::string& text, int64_t now) {
    const size_t digits = text.find_first_not_of("0123456789");
    const std::string unit = digits == std::string::npos ? "" : text.substr(digits);
    const int64_t size = SecondsOf(unit);
    const size_t length = digits == std::string::npos ? text.size() : digits;
    if (size != 0 && length > 0 && length <= 6 && std::stoll(text) <= kMostUnits) return now - std::stoll(text) * size;
    int64_t seconds = 0;
    if (ParseDate(text, seconds)) return seconds;
    return base::SentenceError("\"" + text + "\" is no time: 90s, 30m, 2h, 7d or 2026-11-22 13:00",
                               base::ErrorKind::kMalformed);
}

}  // namespace agent
