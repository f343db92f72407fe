// Rows to differences. The store is opened read-only.
#include "DayHistory.h"

#include <algorithm>
#include <ctime>
#include <map>

#include "AskAgent.h"
#include "base/Database.h"
#include "base/FileIo.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr int kMostRows = 2000;
/// Rows that somebody's asking has brought in between: differences over so little say nothing.
constexpr int64_t kLeastGapSeconds = 20;
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kDaySeconds = 86400;
constexpr int64_t kWhole = 10000;  // hundredths of a percent

/// Returns: how much a counter has grown; -1 when that is not known, also of a group that was made anew.
int64_t Grown(int64_t before, int64_t now) {
    return before < 0 || now < before ? -1 : now - before;
}

int64_t Share(int64_t grownMs, int64_t seconds) {
    return grownMs < 0 || seconds <= 0 ? -1 : grownMs * kWhole / (seconds * kMsPerSecond);
}

/// What is remembered of a group from one row to the next.
struct Before {
    zel::CgroupFigures figures;
    int64_t time = 0;
    int64_t hits = -1;
};

UsePoint MakePoint(const Before* before, const zel::CgroupFigures& now, int64_t time) {
    UsePoint point;
    point.from = point.to = time;
    point.memoryKb = now.memoryKb;
    point.cpuLimit100Times = now.cpuLimit100Times;
    point.memoryLimitKb = now.memoryLimitKb;
    if (before == nullptr || time - before->time > kMostGapSeconds) return point;
    point.from = before->time;
    point.cpu100Times = Share(Grown(before->figures.cpuMs, now.cpuMs), time - before->time);
    point.throttledMs = Grown(before->figures.throttledMs, now.throttledMs);
    const int64_t periods = Grown(before->figures.periods, now.periods);
    const int64_t throttled = Grown(before->figures.throttledPeriods, now.throttledPeriods);
    if (periods >= 0 && throttled >= 0) {
        point.throttled100Times = periods == 0 ? 0 : std::min(kWhole, throttled * kWhole / periods);
    }
    if (now.limitHits >= 0) point.hits = Grown(before->hits, now.limitHits);
    return point;
}

void AddPressure(const HistoryRow& before, const HistoryRow& now, std::vector<PressurePoint>& points) {
    const int64_t seconds = now.time - before.time;
    if (seconds > kMostGapSeconds || now.pressure.cpuMs < 0) return;
    PressurePoint point;
    point.from = before.time;
    point.to = now.time;
    const auto share = [&](int64_t StallTimes::*kind) {
        return std::min(kWhole, Share(Grown(before.pressure.*kind, now.pressure.*kind), seconds));
    };
    point.cpu = share(&StallTimes::cpuMs);
    point.memory = share(&StallTimes::memoryMs);
    point.io = share(&StallTimes::ioMs);
    points.push_back(point);
}

void ReadStore(const std::string& path, int64_t since, std::vector<HistoryRow>& rows,
               std::vector<std::string>& problems) {
    if (!base::ReadFileMark(path).exists) return;  // an agent that is younger than an hour
    base::DatabaseOptions options;
    options.readOnly = true;
    options.busyMs = 1000;
    base::Database database;
    const base::Status opened = database.Open(path, options);
    if (!opened) {
        problems.push_back("the history on disk cannot be read: " + opened.GetError().Text());
        return;
    }
    base::Statement select(database, "SELECT time, figures FROM history WHERE time >= ?1 ORDER BY id DESC LIMIT ?2;");
    if (!select.Bind(1, since) || !select.Bind(2, kMostRows)) {
        problems.push_back("the history on disk cannot be read: " + database.LastError("read").Text());
        return;
    }
    base::Statement::Outcome step = select.Step();
    for (; step == base::Statement::Outcome::kRow; step = select.Step()) {
        base::Result<HistoryRow> row = ParseHistoryRow(select.Int(0), select.Text(1));
        if (row) rows.push_back(std::move(*row));
    }
    if (step == base::Statement::Outcome::kFailed) {
        problems.push_back("the history on disk is read in part only: " + database.LastError("read").Text());
    }
}

}  // namespace

DayHistory MakeDayHistory(std::vector<HistoryRow> rows, int64_t since) {
    std::stable_sort(rows.begin(), rows.end(),
                     [](const HistoryRow& a, const HistoryRow& b) { return a.time < b.time; });
    DayHistory day;
    std::map<std::string, GroupUse> groups;
    std::map<std::string, Before> known;
    const HistoryRow* last = nullptr;
    for (const HistoryRow& row : rows) {
        if (row.time < since || (last != nullptr && row.time - last->time < kLeastGapSeconds)) continue;
        day.leftOut = std::max(day.leftOut, row.leftOut);
        if (last == nullptr) day.from = row.time;
        day.to = row.time;
        day.observed |= row.observed;
        day.observedAtEnd = row.observed;
        day.observedRows += row.observed != 0 ? 1 : 0;
        ++day.rows;
        if (last != nullptr) AddPressure(*last, row, day.pressure);
        for (const zel::CgroupFigures& figures : row.groups) {
            if (groups.count(figures.name) == 0 && groups.size() >= kMostGroups) continue;
            const auto before = known.find(figures.name);
            GroupUse& group = groups[figures.name];
            group.name = figures.name;
            // Counts of a limit that is observed are others than those of one in force.
            const bool same = before != known.end() && last->observed == row.observed;
            group.points.push_back(MakePoint(same ? &before->second : nullptr, figures, row.time));
            group.points.back().observed = row.observed;
            const int64_t hits = figures.limitHits >= 0 || !same ? figures.limitHits : before->second.hits;
            known[figures.name] = {figures, row.time, hits};
        }
        last = &row;
    }
    for (auto& entry : groups) day.groups.push_back(std::move(entry.second));
    return day;
}

DayHistory ReadDayHistory(const std::string& appDir, int64_t since) {
    std::vector<HistoryRow> rows;
    std::vector<std::string> problems;
    ReadStore(appDir + "/data/" + zel::kMainProcessName + ".stats.db", since, rows, problems);
    const base::Result<Answer> answer = AskAgent(appDir, zel::kMainProcessName, "history");
    if (answer && answer->ok) {
        for (const zelhost::StatisticsRow& waiting : ParseWaitingRows(answer->body)) {
            base::Result<HistoryRow> row = ParseHistoryRow(waiting.wallTime, waiting.figures);
            if (row) rows.push_back(std::move(*row));
        }
    } else {
        problems.push_back("what is not on disk yet, an hour at most, is missing: " +
                           (answer ? answer->body : answer.GetError().Text()));
    }
    const int64_t tomorrow = time(nullptr) + kDaySeconds;
    rows.erase(
        std::remove_if(rows.begin(), rows.end(), [tomorrow](const HistoryRow& row) { return row.time > tomorrow; }),
        rows.end());
    DayHistory day = MakeDayHistory(std::move(rows), since);
    day.problems = std::move(problems);
    return day;
}

}  // namespace agent
