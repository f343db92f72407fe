// The kernel's triggers on the process's loop, and what the main thread makes of them.
#include "HostPressure.h"

#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "AgentLog.h"
#include "EventSink.h"
#include "SteadyTime.h"
#include "base/Clock.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/ProcessLoop.h"

namespace agent {

namespace {

constexpr size_t kMostProcesses = 4096;
constexpr size_t kNamedConsumers = 5;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kHundredths = 10000;  // of the whole
constexpr char kSwitchedOff[] = "switched off in the configuration";

int64_t NowMs() {
    return base::ClockNs(CLOCK_BOOTTIME) / kNsPerMs;
}

base::PressureTrigger TriggerFor(base::PressureResource resource, const PressureThresholds& thresholds) {
    switch (resource) {
        case base::PressureResource::kMemory: return {false, thresholds.memory};
        case base::PressureResource::kIo: return {true, thresholds.io};
        case base::PressureResource::kCpu: break;
    }
    return {false, thresholds.cpu};
}

const base::PressureLine& LineOf(const base::Pressure& pressure, bool full) {
    return full && pressure.full ? *pressure.full : pressure.some;
}

/// Why a stall of it is not told of, for an operator.
std::string Refusal(const base::Error& error) {
    if (error.kind == base::ErrorKind::kNotFound) return "the kernel was built without pressure figures";
    if (error.error == EOPNOTSUPP) return "switched off in this kernel: boot it with psi=1";
    const char* const again = ", and start the agent again";
    if (error.error == EPERM)
        return std::string("before Linux 6.4 it takes the right CAP_SYS_RESOURCE: give it") + again;
    if (error.error == EACCES) return error.Text() + ": let the agent write that file" + again;
    return error.Text();
}

/// Whether the kernel will say the same for as long as this process lives: no figures, none in this boot, or no right.
bool IsFinal(const base::Error& error) {
    return error.kind == base::ErrorKind::kNotFound || error.kind == base::ErrorKind::kDenied ||
           error.error == EOPNOTSUPP;
}

}  // namespace

bool StallEpisode::Begin(int64_t second) {
    if (!IsUnderWay(second)) m_toldAt.reset();
    m_goesOn = m_toldAt.has_value();
    ++m_stalls;
    m_armAt = second + kPauseSeconds;
    m_endsAt = m_armAt + kPauseSeconds;
    return !m_goesOn || second - *m_toldAt >= kAgainSeconds;
}

bool StallEpisode::TakeArming(int64_t second) {
    if (m_armAt == 0 || second < m_armAt) return false;
    m_armAt = 0;
    return true;
}

bool IsStalledNow(bool underWay, bool began, int average100Times, int thresholdPercent) {
    constexpr int kTenth = 10;  // hundredths for each percent
    const int least = began ? 1 : thresholdPercent * kTenth;
    return underWay && thresholdPercent > 0 && (average100Times < 0 || average100Times >= least);
}

bool HasStalled(uint64_t beforeUs, uint64_t nowUs, const base::PressureTrigger& trigger) {
    constexpr uint64_t kPercent = 100;
    const uint64_t leastUs = base::kPressureWindowMs * kUsPerMs * static_cast<uint64_t>(trigger.percent) / kPercent;
    return nowUs - beforeUs >= leastUs;
}

HostPressure::~HostPressure() {
    Close();
}

void HostPressure::Follow(const PressureThresholds& thresholds) {
    if (m_thresholds && thresholds == *m_thresholds) return;
    m_thresholds = thresholds;
    const int64_t second = SecondsSinceBoot();
    for (const base::PressureResource resource : base::kAllPressureResources) {
        Watched& watched = m_watched[static_cast<size_t>(resource)];
        watched.resource = resource;
        watched.trigger = TriggerFor(resource, thresholds);
        watched.episode.ForgetArming();
        watched.measureAt = 0;
        watched.before = {};
        Arm(watched, second);
    }
}

void HostPressure::Arm(Watched& watched, int64_t second) {
    Disarm(watched);
    const std::string off = kSwitchedOff;
    if (watched.trigger.percent == 0) return Publish(watched, &off);
    const base::Status opened = Open(watched);
    std::string problem;
    if (!opened) problem = Refusal(opened.GetError());
    if (!opened && !IsFinal(opened.GetError())) {
        watched.episode.Refused(second);
        problem += "; it is asked again every minute";
    }
    Publish(watched, &problem);
}

base::Status HostPressure::Open(Watched& watched) {
    std::string problem;
    if (m_loop == nullptr) m_loop = zel::JoinProcessLoop(problem);
    if (m_loop == nullptr) return base::SentenceError(problem);
    const base::Result<base::Pressure> before = base::ReadPressure(watched.resource);
    watched.armedTotalUs = before ? LineOf(*before, watched.trigger.full).totalUs : 0;
    base::Result<base::Fd> file = base::OpenPressureTrigger(watched.resource, watched.trigger);
    if (!file) return file.GetError();
    watched.file = std::move(*file);
    base::Status opened;
    m_loop->Run([&] {
        watched.watch = std::make_unique<base::IoWatch>(*m_loop);
        opened = watched.watch->Open(watched.file.Get());
        opened ? Await(watched) : watched.watch.reset();
    });
    if (!opened) watched.file.Reset();
    return opened;
}

/// One wait calls once: until the next one a stall that goes on wakes nobody. On the loop's thread.
void HostPressure::Await(Watched& watched) {
    watched.watch->WaitUrgent([this, &watched] {
        watched.fired = true;
        m_wakeMain();
    });
}

/// Whether the counters have what the kernel has told. Where they do not, it is waited for its next word.
bool HostPressure::IsConfirmed(Watched& watched) {
    const base::Result<base::Pressure> now = base::ReadPressure(watched.resource);
    if (!now) return true;
    const uint64_t totalUs = LineOf(*now, watched.trigger.full).totalUs;
    if (HasStalled(std::exchange(watched.armedTotalUs, totalUs), totalUs, watched.trigger)) return true;
    watched.fired = false;
    m_loop->Run([&] { Await(watched); });
    return false;
}

void HostPressure::Disarm(Watched& watched) {
    if (watched.watch != nullptr) m_loop->Run([&] { watched.watch.reset(); });
    watched.file.Reset();
    watched.fired = false;
}

void HostPressure::Close() {
    for (Watched& watched : m_watched) Disarm(watched);
    m_loop.reset();
}

void HostPressure::Tick(int64_t second, const std::function<std::vector<zel::CgroupMember>()>& members) {
    for (Watched& watched : m_watched) {
        if (watched.fired && IsConfirmed(watched)) {
            Disarm(watched);  // its window would be counted on for nobody
            const bool toTell = watched.episode.Begin(second);
            if (toTell) BeginMeasuring(watched, second);
            Publish(watched);
        }
        if (watched.measureAt != 0 && second >= watched.measureAt) {
            Report(watched, members());
            watched.episode.Told(second);
        }
        if (watched.episode.TakeArming(second)) Arm(watched, second);
    }
}

int64_t HostPressure::NextDue() const {
    int64_t due = 0;
    for (const Watched& watched : m_watched) {
        for (const int64_t at : {watched.measureAt, watched.episode.ArmAt()}) {
            if (at != 0 && (due == 0 || at < due)) due = at;
        }
    }
    return due;
}

void HostPressure::BeginMeasuring(Watched& watched, int64_t second) {
    const base::Result<base::Pressure> now = base::ReadPressure(watched.resource);
    watched.totalUs = now ? LineOf(*now, watched.trigger.full).totalUs : 0;
    watched.before = LookAtProcesses(watched.resource == base::PressureResource::kIo, kMostProcesses);
    watched.measuredFromMs = NowMs();
    watched.measureAt = second + 1;
}

void HostPressure::Report(Watched& watched, const std::vector<zel::CgroupMember>& members) {
    watched.measureAt = 0;
    StallFacts facts;
    facts.resource = watched.resource;
    facts.trigger = watched.trigger;
    facts.goesOn = watched.episode.GoesOn();
    const int64_t elapsedMs = std::max<int64_t>(NowMs() - watched.measuredFromMs, 1);
    const base::Result<base::Pressure> now = base::ReadPressure(watched.resource);
    if (now) {
        facts.line = LineOf(*now, watched.trigger.full);
        const auto stalledUs = static_cast<int64_t>(facts.line.totalUs - watched.totalUs);
        facts.stalled100Times = std::min(stalledUs * kHundredths / (elapsedMs * kUsPerMs), kHundredths);
    }
    const std::vector<ProcessUse> after =
        LookAtProcesses(watched.resource == base::PressureResource::kIo, kMostProcesses);
    facts.consumers = FindTopConsumers(watched.before, after, {watched.measuredFromMs, elapsedMs, sysconf(_SC_CLK_TCK)},
                                       watched.resource, kNamedConsumers);
    watched.before = {};
    LogLine(std::string("pressure of the host: tasks wait for ") + base::PressureName(watched.resource) +
                (facts.consumers.empty() ? std::string() : ", most of it goes to " + facts.consumers[0].name) +
                "; the message has the rest",
            zel::kLogInfo);
    Deliver(zel::kHostPressureMessage, FormatStall(facts, members, time(nullptr)));
}

void HostPressure::Publish(const Watched& watched, const std::string* problem) {
    const base::MutexLock lock(m_lock);
    PressureStatus& status = m_status[static_cast<size_t>(watched.resource)];
    status.resource = base::PressureName(watched.resource);
    status.full = watched.trigger.full;
    status.thresholdPercent = watched.trigger.percent;
    if (problem != nullptr) {
        const bool news = *problem != status.reason && !problem->empty() && watched.trigger.percent != 0;
        if (news) LogLine("pressure of the host: " + status.resource + " is not watched: " + *problem, zel::kLogInfo);
        const bool refused = !status.watched && !status.reason.empty() && status.reason != kSwitchedOff;
        if (problem->empty() && refused)
            LogLine("pressure of the host: " + status.resource + " is watched now", zel::kLogInfo);
        status.watched = problem->empty();
        status.reason = *problem;
    }
    if (status.stalls != watched.episode.Stalls()) status.lastAt = SecondsSinceBoot();
    status.stalls = watched.episode.Stalls();
    m_endsAt[static_cast<size_t>(watched.resource)] = watched.episode.EndsAt();
}

std::vector<PressureStatus> HostPressure::Status() const {
    std::vector<PressureStatus> out;
    std::array<int64_t, base::kPressureResources> endsAt{};
    {
        const base::MutexLock lock(m_lock);
        if (m_status[0].resource.empty()) return out;  // before the first Follow
        out.assign(m_status.begin(), m_status.end());
        endsAt = m_endsAt;
    }
    const int64_t second = SecondsSinceBoot();
    const int64_t wall = time(nullptr);
    for (size_t i = 0; i < out.size(); ++i) {
        out[i].lastAt = WallTimeOf(out[i].lastAt, second, wall);
        const base::Result<base::Pressure> now = base::ReadPressure(base::kAllPressureResources[i]);
        if (now) {
            const base::PressureLine& line = LineOf(*now, out[i].full);
            out[i].avg10_100times = line.avg10_100times;
            out[i].avg60_100times = line.avg60_100times;
        }
        out[i].lasts = IsStalledNow(second < endsAt[i], StallEpisode::IsFresh(endsAt[i], second), out[i].avg10_100times,
                                    out[i].thresholdPercent);
    }
    return out;
}

std::string FormatStall(const StallFacts& facts, const std::vector<zel::CgroupMember>& members, int64_t now) {
    Json::Value body(Json::objectValue);
    body["detect_time"] = Json::Int64(now);
    body["resource"] = base::PressureName(facts.resource);
    body["kind"] = facts.trigger.full ? "full" : "some";
    body["threshold_percent"] = facts.trigger.percent;
    body["goes_on"] = facts.goesOn;
    body["stalled_100times"] = Json::Int64(facts.stalled100Times);
    body["avg10_100times"] = facts.line.avg10_100times;
    body["avg60_100times"] = facts.line.avg60_100times;
    Json::Value& list = body["consumers"] = Json::Value(Json::arrayValue);
    for (const Consumer& consumer : facts.consumers) {
        Json::Value& entry = list.append(Json::Value(Json::objectValue));
        const auto own = std::find_if(members.begin(), members.end(),
                                      [&](const zel::CgroupMember& member) { return member.pid == consumer.pid; });
        entry["pid"] = consumer.pid;
        entry["name"] = consumer.name;
        entry["component"] = own == members.end() ? std::string() : own->component;
        entry["cpu_100times"] = Json::Int64(consumer.cpu100Times);
        entry["resident_kb"] = Json::Int64(consumer.residentKb);
        entry["read_kbps"] = Json::Int64(consumer.readKbps);
        entry["write_kbps"] = Json::Int64(consumer.writeKbps);
    }
    return body.toStyledString();
}

}  // namespace agent
