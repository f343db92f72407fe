// One list of members for both directions: Fields names each member once, and a writer or a reader goes over them.
#include "StatusJson.h"

#include <type_traits>

#include "JsonText.h"
#include "Printable.h"

namespace agent {

namespace {

constexpr Json::ArrayIndex kMostEntries = 1024;
constexpr const char* kStateNames[] = {"waiting", "running", "stopped"};  // in the order of ComponentState
constexpr const char* kLevelNames[] = {"parent", "group", "component"};   // in the order of zel::CgroupLevel

/// A record as a direction sees it: read by a writer, filled in by a reader.
template <class Io, class Record>
using Of = std::conditional_t<Io::kWrites, const Record, Record>;

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupUse>& use) {
    io("present", use.present);
    io("v2", use.v2);
    io("path", use.path);
    io("limit", use.limit);
    io("used", use.used);
    io("periods", use.periods);
    io("throttled_periods", use.throttledPeriods);
    io("throttled_us", use.throttledUs);
    io("limit_hits", use.limitHits);
    io("oom_kills", use.oomKills);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupControllerStatus>& controller) {
    io("version", controller.version);
    io("group", controller.groupPath);
    io("limited", controller.limited);
    io("limited_by_others", controller.byOthers);
    io("limit_group", controller.limitPath);
    io("reason", controller.reason);
    io("advice", controller.advice);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupCpuStatus>& cpu) {
    Fields<Io>(io, static_cast<Of<Io, zel::CgroupControllerStatus>&>(cpu));
    io("limit_100times", cpu.limit100Times);
    io("quota_us", cpu.quotaUs);
    io("period_us", cpu.periodUs);
    io("periods", cpu.periods);
    io("throttled_periods", cpu.throttledPeriods);
    io("throttled_us", cpu.throttledUs);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupMemStatus>& memory) {
    Fields<Io>(io, static_cast<Of<Io, zel::CgroupControllerStatus>&>(memory));
    io("limit_bytes", memory.limitBytes);
    io("usage_bytes", memory.usageBytes);
    io("limit_hits", memory.limitHits);
    io("oom_kills", memory.oomKills);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupNodeStatus>& node) {
    io.Word("level", node.level, kLevelNames);
    io("name", node.name);
    io("group", node.group);
    io.Record("cpu", node.cpu);
    io.Record("memory", node.memory);
    io.List("pids", node.pids);
    io("membership_verified", node.membershipVerified);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupTreeStatus>& tree) {
    io("present", tree.present);
    io("layout", tree.layout);
    io("cpu_place", tree.cpuPlace);
    io("memory_place", tree.memoryPlace);
    io("problem", tree.problem);
    io.List("nodes", tree.nodes);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupWanted>& wanted) {
    io("path", wanted.path);
    io("controller", wanted.controller);
    io("amount", wanted.amount);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::CgroupKeeperStatus>& keeper) {
    io("rounds", keeper.rounds);
    io("last_round_us", keeper.lastRoundUs);
    io("total_us", keeper.totalUs);
    io("groups", keeper.lastGroups);
    io.Group("found", [&keeper](Io& found) {
        for (size_t kind = 0; kind < keeper.found.size(); ++kind)
            found(zel::kCgroupDriftKinds[kind], keeper.found[kind]);
    });
    io("failed", keeper.failed);
    io("last_repaired_at", keeper.lastRepairedAt);
    io("last_repair", keeper.lastRepair);
    io.List("wanted", keeper.wanted);
    io.List("contested", keeper.contested);
    io.List("not_in_force", keeper.notInForce);
}

template <class Io>
void Fields(Io& io, Of<Io, zel::ObservedGroup>& group) {
    auto& figures = group.figures;
    io("name", figures.name);
    io("observed_ms", group.observedMs);
    io("cpu_limit_100times", figures.cpuLimit100Times);
    io("cpu_ms", figures.cpuMs);
    io("peak_cpu_100times", group.peakCpu100Times);
    io("periods", figures.periods);
    io("throttled_periods", figures.throttledPeriods);
    io("throttled_ms", figures.throttledMs);
    io("memory_limit_kb", figures.memoryLimitKb);
    io("memory_kb", figures.memoryKb);
    io("peak_memory_kb", group.peakMemoryKb);
    io("memory_kills", group.memoryKills);
    io("last_kill_at", group.lastKillAt);
}

template <class Io>
void Fields(Io& io, Of<Io, WorkerFigures>& workers) {
    io("threads", workers.threads);
    io("pieces", workers.pieces);
    io("asked", workers.asked);
    io("held", workers.held);
}

template <class Io>
void Fields(Io& io, Of<Io, HoldBackFigures>& figures) {
    io("answers", figures.answers);
    io("slept_ms", figures.sleptMs);
}

template <class Io>
void Fields(Io& io, Of<Io, ComponentStatus>& component) {
    io("name", component.name);
    io("group", component.group);
    io.Word("state", component.state, kStateNames);
    io("pid", component.pid);
    io("runs_seconds", component.runsSeconds);
    io("waits_seconds", component.waitsSeconds);
    io("suspended", component.suspended);
    io("suspended_seconds", component.suspendedSeconds);
    io("program", component.program);
    io("hung_seconds", component.hungSeconds);
    io("hung", component.hungWhat);
    io("restarts", component.restarts);
    io("restarts_last_hour", component.recentRestarts);
    io("budget_exhausted", component.exhausted);
    io("last_reason", component.lastReason);
    io("cannot_start", component.cannotStart);
}

template <class Io>
void Fields(Io& io, Of<Io, PressureStatus>& pressure) {
    io("resource", pressure.resource);
    io("full", pressure.full);
    io("threshold_percent", pressure.thresholdPercent);
    io("watched", pressure.watched);
    io("reason", pressure.reason);
    io("avg10_100times", pressure.avg10_100times);
    io("avg60_100times", pressure.avg60_100times);
    io("stalls", pressure.stalls);
    io("lasts", pressure.lasts);
    io("last_at", pressure.lastAt);
}

template <class Io>
void Fields(Io& io, Of<Io, ComponentStall>& stall) {
    io("component", stall.component);
    io("group", stall.group);
    Fields(io, static_cast<Of<Io, PressureStatus>&>(stall));
    io("measured", stall.measured);
    io("by_limit", stall.byLimit);
    io("limit_group", stall.limitGroup);
    io("limit", stall.limit);
    io("stalled_100times", stall.stalled100Times);
}

template <class Io>
void Fields(Io& io, Of<Io, GroupPressureStatus>& groups) {
    io("reason", groups.reason);
    io.List("components", groups.components);
}

template <class Io>
void Fields(Io& io, Of<Io, zelhost::SinkStats>& sink) {
    io("name", sink.name);
    io("delivered", sink.delivered);
    io("given_up", sink.givenUp);
    io("failures", sink.failures);
    io("waiting", sink.waiting);
    io("last_error", sink.lastError);
}

template <class Io>
void Fields(Io& io, Of<Io, zelhost::DeliveryStats>& delivery) {
    io("present", delivery.present);
    io("accepted", delivery.accepted);
    io("spooled", delivery.spooled);
    io("dropped", delivery.dropped);
    io("in_memory", delivery.inMemory);
    io("spool_broken", delivery.spoolBroken);
    io.List("sinks", delivery.sinks);
}

/// What the process knows of itself.
template <class Io>
void OwnFields(Io& io, Of<Io, StatusReport>& report) {
    auto& sampler = report.sampler;
    io("sampling", report.samplerRuns);
    io("cpu_100times", sampler.cpu100Times);
    io("cpu_minute_100times", sampler.cpuMinute100Times);
    io("cpu_total_ns", sampler.cpuTotalNs);
    io("cpu_level", sampler.cpuLevel);
    io("max_cpu", sampler.maxCpu);
    io("observed_hold_backs", sampler.observedHoldBacks);
    io("memory_kb", sampler.memKb);
    io("memory_level", sampler.memLevel);
    io("max_memory_mb", sampler.maxMemMb);
    io("descriptors", sampler.descriptors);
    io("descriptor_limit", report.descriptorLimit);
    io("read_kbps", sampler.readKbps);
    io("write_kbps", sampler.writeKbps);
    io("rounds", sampler.rounds);
    io("main_silent_seconds", report.mainSilentSeconds);
    io("sampling_silent_seconds", report.samplingSilentSeconds);
    io("warnings", report.warnings);
    io("stalls", report.stalls);
    io.Record("greedy", report.greedy);
    io.Record("polite", report.polite);
    io("held_memory_kb", report.heldMemoryKb);
}

template <class Io>
void Fields(Io& io, Of<Io, StatusReport>& report) {
    io("process", report.process);
    io("pid", report.pid);
    io("time", report.now);
    io("uptime_seconds", report.uptimeSeconds);
    io("starting", report.starting);
    io("mode", report.mode);
    io("unified", report.unified);
    io("mode_in_force", report.modeInForce);
    io("mode_reason", report.modeReason);
    io("config_problem", report.configProblem);
    io("budget_problem", report.budgetProblem);
    io("fleet_problem", report.fleetProblem);
    io("observed", report.observed);
    io("observation", report.observation);
    io.List("observed_groups", report.observedGroups);
    io("would_end", report.wouldEnd);
    io("disk_full", report.diskFull);
    io.Each("cpu_need_limit", report.cpuNeedLimit);
    io.List("hold_backs", report.holdBacks);
    io.Group("own", [&report](Io& own) { OwnFields<Io>(own, report); });
    io.Record("cpu", report.cgroup.cpu);
    io.Record("memory", report.cgroup.mem);
    io.Record("tree", report.tree);
    io("undelegated_service", report.undelegated);
    io.Record("keeper", report.keeper);
    io.List("components", report.components);
    io.Record("delivery", report.delivery);
    io.List("pressure", report.pressure);
    io.Record("group_pressure", report.groupPressure);
    io.List("last_events", report.lastEvents);
    io.Group("log", [&report](Io& log) {
        log("count", report.logCount);
        log.List("lines", report.logLines);
    });
}

class Writer {
public:
    static constexpr bool kWrites = true;

    explicit Writer(Json::Value& object) : m_object(object) { m_object = Json::Value(Json::objectValue); }

    template <class T>
    void operator()(const char* key, const T& value) {
        m_object[key] = Plain(value);
    }
    template <class Enum, size_t kCount>
    void Word(const char* key, const Enum& value, const char* const (&names)[kCount]) {
        const auto index = static_cast<size_t>(value);
        m_object[key] = index < kCount ? names[index] : "unknown";
    }
    template <class T>
    void Record(const char* key, const T& record) {
        Writer writer(m_object[key]);
        Fields<Writer>(writer, record);
    }
    template <class Members>
    void Group(const char* key, Members members) {
        Writer writer(m_object[key]);
        members(writer);
    }
    template <class T>
    void List(const char* key, const std::vector<T>& list) {
        Json::Value& array = m_object[key] = Json::Value(Json::arrayValue);
        for (const T& entry : list) {
            Json::Value& place = array.append(Json::Value());
            if constexpr (std::is_class_v<T> && !std::is_same_v<T, std::string>) {
                Writer writer(place);
                Fields<Writer>(writer, entry);
            } else {
                place = Plain(entry);
            }
        }
    }
    template <size_t kCount>
    void Each(const char* key, const bool (&flags)[kCount]) {
        for (bool flag : flags) m_object[key].append(flag);
    }

private:
    static Json::Value Plain(bool value) { return value; }
    static Json::Value Plain(int value) { return value; }
    static Json::Value Plain(int64_t value) { return Json::Int64(value); }
    static Json::Value Plain(uint64_t value) { return Json::UInt64(value); }
    static Json::Value Plain(const std::string& value) { return value; }

    Json::Value& m_object;
};

class Reader {
public:
    static constexpr bool kWrites = false;

    explicit Reader(const Json::Value& object) : m_object(object) {}

    template <class T>
    void operator()(const char* key, T& value) {
        Take(Member(key), value);
    }
    template <class Enum, size_t kCount>
    void Word(const char* key, Enum& value, const char* const (&names)[kCount]) {
        for (size_t i = 0; i < kCount; ++i) {
            if (Member(key) == names[i]) value = static_cast<Enum>(i);
        }
    }
    template <class T>
    void Record(const char* key, T& record) {
        Reader reader(Member(key));
        Fields<Reader>(reader, record);
    }
    template <class Members>
    void Group(const char* key, Members members) {
        Reader reader(Member(key));
        members(reader);
    }
    template <class T>
    void List(const char* key, std::vector<T>& list) {
        const Json::Value& array = Member(key);
        if (!array.isArray()) return;
        for (Json::ArrayIndex i = 0; i < array.size() && i < kMostEntries; ++i) {
            T entry{};
            if constexpr (std::is_class_v<T> && !std::is_same_v<T, std::string>) {
                Reader reader(array[i]);
                Fields<Reader>(reader, entry);
            } else {
                Take(array[i], entry);
            }
            list.push_back(std::move(entry));
        }
    }
    template <size_t kCount>
    void Each(const char* key, bool (&flags)[kCount]) {
        const Json::Value& array = Member(key);
        if (!array.isArray()) return;
        for (Json::ArrayIndex i = 0; i < array.size() && i < kCount; ++i) Take(array[i], flags[i]);
    }

private:
    const Json::Value& Member(const char* key) const {
        return m_object.isObject() ? m_object[key] : Json::Value::nullSingleton();
    }
    static void Take(const Json::Value& from, bool& value) {
        if (from.isBool()) value = from.asBool();
    }
    static void Take(const Json::Value& from, int& value) {
        if (from.isInt()) value = from.asInt();
    }
    static void Take(const Json::Value& from, int64_t& value) {
        if (from.isInt64()) value = from.asInt64();
    }
    static void Take(const Json::Value& from, uint64_t& value) {
        if (from.isUInt64()) value = from.asUInt64();
    }
    static void Take(const Json::Value& from, std::string& value) {
        if (from.isString()) value = Printable(from.asString());
    }

    const Json::Value& m_object;
};

}  // namespace

std::string FormatStatusJson(const StatusReport& report) {
    Json::Value root;
    Writer writer(root);
    Fields<Writer>(writer, report);
    return root.toStyledString();
}

base::Result<StatusReport> ParseStatusJson(const std::string& text) {
    const base::Result<Json::Value> root = ParseJson(text);
    if (!root) return root.GetError();
    if (!root->isObject()) return base::SentenceError("a status is an object", base::ErrorKind::kMalformed);
    StatusReport report;
    Reader reader(*root);
    Fields<Reader>(reader, report);
    return report;
}

}  // namespace agent
