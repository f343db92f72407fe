// Writing and reading of a row of the day's history.
#include "HistoryRow.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "JsonText.h"

namespace agent {

namespace {

constexpr char kUsePrefix[] = "use/";
constexpr char kPressureKey[] = "pressure";
constexpr char kObservedKey[] = "observed";
constexpr char kLeftOutKey[] = "use_left_out";
constexpr size_t kMostKeyBytes = 200;
constexpr size_t kJsonBytes = 6;  // quotes, colon and comma around a key and its value

/// The numbers of a group in the order in which they stand.
std::array<int64_t*, 8> FieldsOf(zel::CgroupFigures& figures, int64_t& cpuLimit, int64_t& memoryLimit) {
    return {&figures.cpuMs, &figures.periods,  &figures.throttledPeriods, &figures.throttledMs,
            &cpuLimit,      &figures.memoryKb, &figures.limitHits,        &memoryLimit};
}

template <size_t kCount>
std::string JoinNumbers(const std::array<int64_t, kCount>& numbers) {
    std::string text;
    for (size_t i = 0; i < kCount; ++i) {
        if (i > 0) text += ',';
        if (numbers[i] >= 0) text += std::to_string(numbers[i]);
    }
    return text;
}

/// Returns: the number, -1 for an empty field and for anything else. `text` begins behind it afterwards.
/// What can be reckoned with in hundredths of a percent.
constexpr int64_t kMostFigure = int64_t{1} << 48;

int64_t TakeNumber(std::string_view& text) {
    const size_t end = text.find(',');
    const std::string_view field = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    int64_t number = -1;
    const auto read = std::from_chars(field.data(), field.data() + field.size(), number);
    const bool known = read.ec == std::errc() && read.ptr == field.data() + field.size() && number >= 0;
    return known && number <= kMostFigure ? number : -1;
}

int Limit(int64_t number) {
    return static_cast<int>(std::clamp<int64_t>(number, 0, INT32_MAX));
}

}  // namespace

void AddHistoryFigures(const HistoryRow& row, std::map<std::string, std::string>& values) {
    size_t bytes = 0;
    int64_t leftOut = 0;
    for (const zel::CgroupFigures& group : row.groups) {
        zel::CgroupFigures figures = group;
        int64_t cpuLimit = group.cpuLimit100Times;
        int64_t memoryLimit = group.memoryLimitKb;
        std::array<int64_t, 8> numbers{};
        size_t next = 0;
        for (const int64_t* field : FieldsOf(figures, cpuLimit, memoryLimit)) numbers[next++] = *field;
        const std::string key = kUsePrefix + group.name;
        const std::string value = JoinNumbers(numbers);
        const size_t more = key.size() + value.size() + kJsonBytes;
        if (key.size() > kMostKeyBytes || bytes + more > kMostRowBytes) {
            ++leftOut;
            continue;
        }
        bytes += more;
        values.emplace(key, value);
    }
    const StallTimes& pressure = row.pressure;
    values.emplace(kPressureKey, JoinNumbers<5>({pressure.cpuMs, pressure.memoryMs, pressure.memoryFullMs,
                                                 pressure.ioMs, pressure.ioFullMs}));
    if (row.observed > 0) values.emplace(kObservedKey, std::to_string(row.observed));
    if (leftOut > 0) values.emplace(kLeftOutKey, std::to_string(leftOut));
}

base::Result<HistoryRow> ParseHistoryRow(int64_t time, const std::string& figures) {
    const base::Result<Json::Value> object = ParseJson(figures);
    if (!object || !object->isObject()) {
        return base::SentenceError("a row of the history is an object", base::ErrorKind::kMalformed);
    }
    HistoryRow row;
    row.time = time;
    for (const std::string& key : object->getMemberNames()) {
        const Json::Value& member = (*object)[key];
        if (!member.isString()) continue;
        const std::string value = member.asString();
        std::string_view rest = value;
        if (key == kPressureKey) {
            StallTimes& pressure = row.pressure;
            for (int64_t* field :
                 {&pressure.cpuMs, &pressure.memoryMs, &pressure.memoryFullMs, &pressure.ioMs, &pressure.ioFullMs}) {
                *field = TakeNumber(rest);
            }
        } else if (key == kObservedKey) {
            row.observed = Limit(TakeNumber(rest));
        } else if (key == kLeftOutKey) {
            row.leftOut = std::max<int64_t>(0, TakeNumber(rest));
        } else if (key.compare(0, sizeof kUsePrefix - 1, kUsePrefix) == 0) {
            zel::CgroupFigures group;
            group.name = key.substr(sizeof kUsePrefix - 1);
            int64_t cpuLimit = 0;
            int64_t memoryLimit = 0;
            for (int64_t* field : FieldsOf(group, cpuLimit, memoryLimit)) *field = TakeNumber(rest);
            group.cpuLimit100Times = Limit(cpuLimit);
            group.memoryLimitKb = Limit(memoryLimit);
            row.groups.push_back(std::move(group));
        }
    }
    return row;
}

std::string FormatWaitingRows(const std::vector<zelhost::StatisticsRow>& rows) {
    std::string text;
    for (const zelhost::StatisticsRow& row : rows) {
        std::string figures = row.figures;
        std::replace(figures.begin(), figures.end(), '\n', ' ');
        text += std::to_string(row.wallTime) + " " + figures + "\n";
    }
    return text;
}

std::vector<zelhost::StatisticsRow> ParseWaitingRows(const std::string& text) {
    std::vector<zelhost::StatisticsRow> rows;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        const size_t blank = line.find(' ');
        int64_t time = 0;
        const auto read = std::from_chars(line.data(), line.data() + std::min(blank, line.size()), time);
        if (blank == std::string::npos || read.ec != std::errc() || read.ptr != line.data() + blank) continue;
        rows.push_back({time, line.substr(blank + 1)});
    }
    return rows;
}

}  // namespace agent
