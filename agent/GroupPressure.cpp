// The kernel's triggers on the components' groups, and what the main thread makes of them.
#include "GroupPressure.h"

#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "AgentLog.h"
#include "EventSink.h"
#include "EventWords.h"
#include "SteadyTime.h"
#include "base/Clock.h"
#include "base/Pressure.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/ProcessLoop.h"

namespace agent {

namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kHundredths = 10000;  // of the whole
constexpr long kPlentyOfDescriptors = 512;

int64_t NowMs() {
    return base::ClockNs(CLOCK_BOOTTIME) / kNsPerMs;
}

const char* NameOf(zel::CgroupResource resource) {
    return resource == zel::CgroupResource::kCpu ? "cpu" : "memory";
}

/// The name of the directory above the component's own.
std::string GroupOf(const std::string& path) {
    const std::string above = path.substr(0, std::min(path.rfind('/'), path.size()));
    return above.substr(above.rfind('/') + 1);
}

int PercentOf(const PressureThresholds& thresholds, zel::CgroupResource resource) {
    return resource == zel::CgroupResource::kCpu ? thresholds.ownCpu : thresholds.ownMemory;
}

bool IsSame(const zel::CgroupPressureSource& one, const zel::CgroupPressureSource& other) {
    return one.path == other.path && one.resource == other.resource && one.inode == other.inode &&
           one.component == other.component;
}

/// Whether one of the two is, or was, where the other one is now.
bool IsSamePlace(const zel::CgroupPressureSource& one, const zel::CgroupPressureSource& other) {
    return one.component == other.component && one.resource == other.resource;
}

}  // namespace

const zel::CgroupPressureLevel* FindHolder(const zel::CgroupPressureFigures& before,
                                           const zel::CgroupPressureFigures& after) {
    const size_t levels = std::min(before.levels.size(), after.levels.size());
    for (size_t i = 0; i < levels; ++i) {
        const zel::CgroupPressureLevel& now = after.levels[i];
        if (now.limit > 0 && before.levels[i].held >= 0 && now.held > before.levels[i].held) return &now;
    }
    return nullptr;
}

std::string FormatGroupStall(const GroupStall& stall, const zel::CgroupPressureLevel& holder, int64_t now) {
    const auto at = static_cast<size_t>(&holder - stall.after.levels.data());
    const zel::CgroupPressureLevel& before = stall.before.levels[at];
    const bool cpu = stall.source.resource == zel::CgroupResource::kCpu;
    Json::Value body(Json::objectValue);
    body["detect_time"] = Json::Int64(now);
    body["component"] = stall.source.component;
    body["resource"] = NameOf(stall.source.resource);
    body["kind"] = cpu ? "full" : "some";
    body["threshold_percent"] = stall.thresholdPercent;
    body["goes_on"] = stall.goesOn;
    body["stalled_100times"] = Json::Int64(stall.stalled100Times);
    body["avg10_100times"] = stall.after.avg10_100times;
    body["avg60_100times"] = stall.after.avg60_100times;
    body["limit_group"] = holder.name;
    body[cpu ? "limit_100times" : "limit_kb"] = holder.limit;
    body["held"] = Json::Int64(holder.held - before.held);
    if (cpu) body["periods"] = Json::Int64(holder.periods - before.periods);
    return body.toStyledString();
}

FollowPlan PlanFollow(const std::vector<zel::CgroupPressureSource>& watched, const zel::CgroupPressureLook& look,
                      const PressureThresholds& thresholds, size_t most) {
    FollowPlan plan;
    plan.problem = look.problem;
    size_t count = 0;
    for (const zel::CgroupPressureSource& one : watched) {
        const bool same = std::any_of(look.found.begin(), look.found.end(),
                                      [&](const zel::CgroupPressureSource& source) { return IsSame(source, one); });
        const bool replaced =
            std::any_of(look.found.begin(), look.found.end(),
                        [&](const zel::CgroupPressureSource& source) { return IsSamePlace(source, one); });
        plan.stays.push_back(same || (!look.whole && !replaced));
        if (plan.stays.back()) ++count;
    }
    for (const zel::CgroupPressureSource& source : look.found) {
        if (PercentOf(thresholds, source.resource) == 0) continue;
        const bool known = std::any_of(watched.begin(), watched.end(),
                                       [&](const zel::CgroupPressureSource& one) { return IsSame(source, one); });
        if (known) continue;
        if (count >= most) {
            plan.problem = "more than " + std::to_string(most) + " groups: the rest is not watched";
            break;
        }
        plan.added.push_back(source);
        ++count;
    }
    return plan;
}

void GroupWatchPlan::Asked(int64_t second, bool taken) {
    m_retryAt = taken ? 0 : second + kRetrySeconds;
    m_followAt = taken ? 0 : second + kFollowSeconds;
}

void GroupWatchPlan::Fired(int64_t second, bool read) {
    if (!read) return Asked(second, false);
    if (m_episode.Begin(second)) m_measureAt = second + kMeasureSeconds;
}

void GroupWatchPlan::Measured(int64_t second, bool read, bool told) {
    if (!read) m_followAt = second + kFollowSeconds;
    if (told) m_episode.Told(second);
}

bool GroupWatchPlan::TakeArming(int64_t second) {
    const bool again = Take(m_retryAt, second);
    return m_episode.TakeArming(second) || again;
}

int64_t GroupWatchPlan::DueAt() const {
    int64_t due = 0;
    for (const int64_t at : {m_measureAt, m_retryAt, m_followAt, m_episode.ArmAt()}) {
        if (at != 0 && (due == 0 || at < due)) due = at;
    }
    return due;
}

bool GroupWatchPlan::Take(int64_t& at, int64_t second) {
    if (at == 0 || second < at) return false;
    at = 0;
    return true;
}

void GroupPressure::Order(const PressureThresholds& thresholds) {
    const bool same = thresholds.ownMemory == m_thresholds.ownMemory && thresholds.ownCpu == m_thresholds.ownCpu;
    m_thresholds = thresholds;
    if (same) return;
    for (Watched& watched : m_watched) Disarm(watched);
    m_watched.clear();
    Follow();
}

void GroupPressure::Follow() {
    const int64_t second = SecondsSinceBoot();
    zel::CgroupPressureLook look;
    if (m_thresholds.ownCpu != 0 || m_thresholds.ownMemory != 0) look = zel::FindCgroupPressure();
    m_followAt = look.whole ? 0 : second + GroupWatchPlan::kRetrySeconds;
    std::vector<zel::CgroupPressureSource> sources;
    for (const Watched& watched : m_watched) sources.push_back(watched.source);
    FollowPlan plan = PlanFollow(sources, look, m_thresholds, kMostWatched);
    size_t i = 0;
    for (auto at = m_watched.begin(); at != m_watched.end(); ++i) {
        if (!plan.stays[i]) Disarm(*at);
        at = plan.stays[i] ? std::next(at) : m_watched.erase(at);
    }
    if (!look.found.empty() && sysconf(_SC_OPEN_MAX) < kPlentyOfDescriptors) {
        plan.problem = "fewer than 512 descriptors are allowed";
        plan.added.clear();
    }
    for (const zel::CgroupPressureSource& source : plan.added) Add(source, second);
    TellOnce(plan.problem);
    Publish();
}

void GroupPressure::Add(const zel::CgroupPressureSource& source, int64_t second) {
    Watched& watched = m_watched.emplace_back();
    watched.source = source;
    watched.percent = PercentOf(m_thresholds, source.resource);
    Arm(watched);
    watched.plan.Asked(second, watched.shown.watched);
}

void GroupPressure::TellOnce(const std::string& problem) {
    m_problem = problem;
    if (problem.empty() || problem == m_told) return;
    m_told = problem;
    LogLine("stalls of the components in their own groups are not told: " + problem, zel::kLogInfo);
}

void GroupPressure::Arm(Watched& watched) {
    Disarm(watched);
    ComponentStall& shown = watched.shown;
    shown.component = watched.source.component;
    shown.group = GroupOf(watched.source.path);
    shown.resource = NameOf(watched.source.resource);
    shown.thresholdPercent = watched.percent;
    shown.full = watched.source.resource == zel::CgroupResource::kCpu;
    shown.watched = false;
    if (m_loop == nullptr) m_loop = zel::JoinProcessLoop(shown.reason);
    if (m_loop == nullptr) return;
    const std::string trigger = base::FormatPressureTrigger({shown.full, watched.percent});
    watched.file = base::Fd(zel::OpenCgroupPressure(watched.source, trigger, shown.reason));
    if (!watched.file) return;
    m_loop->Run([&] {
        auto watch = std::make_unique<base::IoWatch>(*m_loop);
        const base::Status opened = watch->Open(watched.file.Get());
        if (!opened) {
            shown.reason = opened.GetError().Text();
            return;
        }
        // One wait calls once: until it is armed anew a stall that goes on wakes nobody.
        watch->WaitUrgent([this, &watched] {
            watched.fired = true;
            m_wakeMain();
        });
        watched.watch = std::move(watch);
    });
    shown.watched = watched.watch != nullptr;
    if (shown.watched) shown.reason.clear();
    if (!shown.watched) watched.file.Reset();
}

void GroupPressure::Disarm(Watched& watched) {
    if (watched.watch != nullptr) m_loop->Run([&] { watched.watch.reset(); });
    watched.file.Reset();
    watched.fired = false;
}

void GroupPressure::Close() {
    for (Watched& watched : m_watched) Disarm(watched);
    m_watched.clear();
    m_followAt = 0;
    m_loop.reset();
    Publish();
}

void GroupPressure::Tick(int64_t second) {
    bool changed = false;
    bool follow = m_followAt != 0 && second >= m_followAt;
    for (Watched& watched : m_watched) {
        if (watched.fired) {
            Disarm(watched);  // its window would be counted on for nobody
            changed = true;
            BeginMeasuring(watched, second);
        }
        if (watched.plan.TakeMeasuring(second)) {
            Report(watched, second);
            changed = true;
        }
        if (watched.plan.TakeFollowing(second)) follow = true;
        if (!watched.plan.TakeArming(second)) continue;
        Arm(watched);
        watched.plan.Asked(second, watched.shown.watched);
        changed = true;
    }
    if (follow) return Follow();  // shows what has changed, too
    if (changed) Publish();
}

int64_t GroupPressure::NextDue() const {
    int64_t due = m_followAt;
    for (const Watched& watched : m_watched) {
        const int64_t at = watched.plan.DueAt();
        if (at != 0 && (due == 0 || at < due)) due = at;
    }
    return due;
}

void GroupPressure::BeginMeasuring(Watched& watched, int64_t second) {
    std::string gone;
    const bool read = zel::ReadCgroupPressure(watched.source, true, watched.before, gone);
    watched.plan.Fired(second, read);
    if (!read) {
        watched.shown.watched = false;
        watched.shown.reason = gone;
        return;
    }
    if (watched.plan.IsMeasured()) watched.shown.measured = watched.shown.byLimit = false;
    watched.measuredFromMs = NowMs();
    watched.shown.stalls = watched.plan.Episode().Stalls();
    watched.shown.lastAt = second;  // since boot, until it is shown
}

void GroupPressure::Report(Watched& watched, int64_t second) {
    GroupStall stall;
    std::string gone;
    if (!zel::ReadCgroupPressure(watched.source, true, stall.after, gone)) {
        return watched.plan.Measured(second, false, false);
    }
    stall.source = watched.source;
    stall.thresholdPercent = watched.percent;
    stall.goesOn = watched.plan.Episode().GoesOn();
    stall.before = std::exchange(watched.before, {});
    const int64_t elapsedMs = std::max<int64_t>(NowMs() - watched.measuredFromMs, 1);
    const auto stalledUs = static_cast<int64_t>(stall.after.totalUs - stall.before.totalUs);
    stall.stalled100Times = std::min(stalledUs * kHundredths / (elapsedMs * kUsPerMs), kHundredths);
    const zel::CgroupPressureLevel* const holder = FindHolder(stall.before, stall.after);
    ComponentStall& shown = watched.shown;
    shown.measured = true;
    shown.byLimit = holder != nullptr;
    watched.plan.Measured(second, true, shown.byLimit);
    if (holder == nullptr) return;  // over already, or the host's own
    shown.limitGroup = holder->name;
    shown.limit = holder->limit;
    shown.stalled100Times = static_cast<int>(stall.stalled100Times);
    LogLine("stall of " + shown.component + ": " + DescribeStall(shown) + "; " + AdviseOnStall(shown), zel::kLogInfo);
    Deliver(zel::kLimitStallMessage, FormatGroupStall(stall, *holder, time(nullptr)));
}

void GroupPressure::Publish() {
    std::vector<Shown> shown;
    for (const Watched& watched : m_watched) {
        shown.push_back({watched.source, watched.shown, watched.plan.Episode().EndsAt()});
    }
    const base::MutexLock lock(m_lock);
    m_shown = std::move(shown);
    m_reason = m_problem;
}

GroupPressureStatus GroupPressure::Status() const {
    GroupPressureStatus out;
    std::vector<Shown> shown;
    {
        const base::MutexLock lock(m_lock);
        shown = m_shown;
        out.reason = m_reason;
    }
    const int64_t second = SecondsSinceBoot();
    const int64_t wall = time(nullptr);
    for (Shown& one : shown) {
        one.stall.lastAt = WallTimeOf(one.stall.lastAt, second, wall);
        zel::CgroupPressureFigures figures;
        std::string gone;
        if (zel::ReadCgroupPressure(one.source, false, figures, gone)) {
            one.stall.avg10_100times = figures.avg10_100times;
            one.stall.avg60_100times = figures.avg60_100times;
        }
        one.stall.lasts = IsStalledNow(second < one.endsAt, StallEpisode::IsFresh(one.endsAt, second),
                                       one.stall.avg10_100times, one.stall.thresholdPercent);
        out.components.push_back(std::move(one.stall));
    }
    return out;
}

}  // namespace agent
