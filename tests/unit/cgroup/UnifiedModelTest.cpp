// The unified mode against an independent model of it, call for call and log line for log line.
//
// The model below shares no code with the module: what a configuration means is written down in tables (maxima,
// kernels, kernel lists, group texts), what happens in which case in three more (first application, update, publishing
// an exit). Random sequences of requests run through both, with every answer of the manager, the client, the files, the
// legacy utility and the delivery scripted, and both journals and the state behind them must agree after every request.
//
// RC_PARAMS sets RapidCheck's parameters, e.g. RC_PARAMS="seed=1 max_success=1000"; the seed is printed at the start
// and, with the shortest failing sequence, at a failure.
#include <rapidcheck.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <map>
#include <ostream>
#include <sstream>

#include "UnifiedFixture.h"

namespace {

// ---------------------------------------------------------------------------------------------------------------
// What configurations mean
// ---------------------------------------------------------------------------------------------------------------

struct CpuCase {
    long maxCpu;
    long effective;  // of one CPU
};
const CpuCase kCpuCases[] = {{10, 9},    {20, 19},  {11, 10},        {1, 1},  {0, 1},     {200, 100},
                             {106, 100}, {105, 99}, {LONG_MAX, 100}, {-5, 1}, {300, 100}, {LONG_MIN, 1}};

const int kMemCases[] = {200, 400, 100, 299, 0, 1, -5, INT_MAX, 2097152};

// Requests with the unified bit are the interesting ones, so they come several times.
const int kModes[] = {13, 9, 12, 8, 13, 9, 12, 5, 0, 1, 4, 29, -1, 8, 10};

struct KernelCase {
    const char* release;
    bool readable;  // three numbers
    bool noMajor;   // reads, but counts as unread
    bool blacklisted;
};
enum Kernel { kModern, kBlacklisted, kOld, kNoNumbers, kMajorZero, kKernels };
const KernelCase kKernelCases[kKernels] = {
    {"6.1.0-13-cloud-amd64", true, false, false},
    {"4.9.93-010.x86_64", true, false, true},
    {"4.9.93-011.x86_64", true, false, false},
    {"mainline", false, false, false},
    {"0.5.0-1", true, true, false},
};

struct KernelList {
    const char* text;
    bool hits[kKernels];
};
const KernelList kRanges[] = {
    {"4.9.0-0,6.9.9-99", {true, true, true, false, false}},
    {"", {}},
    {"0.0.0-0,9.0.0-0", {true, true, true, false, true}},
    {"junk 6.0.0-0,6.1.0-13", {true, false, false, false, false}},
    {"4.9.93-011,4.9.93-011", {false, false, true, false, false}},
    {" \t ", {}},
    {"6.1,6.2 6.1.0-14,6.2.0-0", {}},
};
const KernelList kExcludedRanges[] = {
    {"", {}},
    {"6.1.0-13,6.1.0-13 junk", {true, false, false, false, false}},
    {"0.0.0-0,9.9.9-0", {true, true, true, false, true}},
    {" \t ", {}},
};
const KernelList kPrefixes[] = {
    {"", {}},   {"5.10 6.1", {true, false, false, false, false}}, {"4.9.93", {false, true, true, false, false}},
    {"  ", {}}, {"0.5", {false, false, false, false, true}},
};

struct ModelGroup {
    const char* name;
    long share;
    long memKb;
};
struct ModelComponent {
    const char *name, *cpuGroup, *memGroup;
    long share;
    long memKb;
};
struct GroupText {
    const char* text;
    bool parsed;  // else the built-in ones
    std::vector<ModelGroup> groups;
};
struct ComponentText {
    const char* text;
    bool parsed;
    std::vector<ModelComponent> components;
};
const std::vector<ModelGroup> kBuiltInGroups = {
    {"main", 20, 15360}, {"guard", 0, 10240}, {"collect-defense", 60, 92160}};
const std::vector<ModelComponent> kBuiltInComponents = {
    {"Tervane", "main", "main", 2000, 15360},
    {"TervaneMonitor", "collect-defense", "collect-defense", 6000, 40960},
    {"TervaneUpdate", "guard", "guard", 0, 10240},
    {"QorHips", "collect-defense", "collect-defense", 5000, 20480},
    {"QorNet", "collect-defense", "collect-defense", 5000, 10240},
    {"QorWebGuard", "collect-defense", "collect-defense", 5000, 20480}};
const std::vector<GroupText> kGroupTexts = {
    {"", false, kBuiltInGroups},
    {"a:10,b", false, kBuiltInGroups},
    {"main:50:200,main:10:-7,x:1:2:3", true, {{"main", 50, 200}, {"main", 10, -7}}},
    {"main:2147483647:2147483647,g:-3:1", true, {{"main", INT_MAX, INT_MAX}, {"g", -3, 1}}},
};
const std::vector<ComponentText> kComponentTexts = {
    {"", false, kBuiltInComponents},
    {"Tervane:main:main:2000", false, kBuiltInComponents},
    {"Tervane:main:g:10000:51200,Other:nowhere:g:1:-200,",
     true,
     {{"Tervane", "main", "g", 10000, 51200}, {"Other", "nowhere", "g", 1, -200}}},
    {"tervane:main:main:1:1", true, {{"tervane", "main", "main", 1, 1}}},
    {"Tervane:main:main:2147483647:2147483647,Tervane:g:g:1:1",
     true,
     {{"Tervane", "main", "main", INT_MAX, INT_MAX}, {"Tervane", "g", "g", 1, 1}}},
};

/// Counters of the agent's groups that a snapshot or a poll can show, at one of several levels.
std::vector<zel::CgroupMemoryOomEvent> OomEvents(unsigned shape, unsigned level) {
    const auto event = [&](const char* group, const char* path, bool parent, bool v2) {
        zel::CgroupMemoryOomEvent e;
        e.group = group;
        e.path = path;
        e.parent = parent;
        e.v2 = v2;
        e.oom_kill = level / 2;
        e.oom_kill_delta = 1;
        e.oom = level;
        e.oom_delta = 2;
        e.oom_group_kill = level % 2;
        e.oom_group_kill_delta = 3;
        e.under_oom = 1;
        return e;
    };
    switch (shape) {
        case 1: return {event("main", "/zel/main", false, true)};
        case 2: return {event("zel", "/zel", true, true), event("main", "/zel/main", false, true)};
        case 3: return {event("guard", "/zel/guard", false, false)};
        default: return {};
    }
}

// ---------------------------------------------------------------------------------------------------------------
// What happens when: rows of conditions ('1', '0', '-' for any) and steps
// ---------------------------------------------------------------------------------------------------------------

enum class Do {
    kSay,
    kAddPid,
    kWrite,
    kSelfKillQuota,
    kForgetLegacy,
    kActivate,
    kDetach,
    kOomAfterRestart,
    kNotify,
    kRemember,
    kForget,
    kRestore,
    kFallback,
    kDisable,  // ends the row with its own failure when it fails
    // publishing an exit
    kIsBackup,
    kRemoveBackup,
    kRename,
    kWriteDisabled,
    kTellTheOthers
};
struct Step {
    Do what;
    const char* text = "";
};
struct Row {
    const char* when;
    std::vector<Step> steps;
    bool result;
    mutable long hits = 0;
};

Step Say(const char* text) {
    return {Do::kSay, text};
}

// limits in force, parent stuck, limits wanted, reconciled, pid added, file written
const std::vector<Row> kInitRows = {
    {"11----", {Say("W3 MonitorPri: init parent clear failed, fallback to legacy"), {Do::kFallback}}, false},
    {"10--0-",
     {{Do::kAddPid},
      Say("F3 [MonitorPri] MonitorPri: init active failed (pid=0 write=0), fallback to legacy"),
      {Do::kFallback}},
     false},
    {"10--10",
     {{Do::kAddPid},
      {Do::kWrite},
      Say("F3 [MonitorPri] MonitorPri: init active failed (pid=1 write=0), fallback to legacy"),
      {Do::kFallback}},
     false},
    {"10-011",
     {{Do::kAddPid},
      {Do::kWrite},
      {Do::kSelfKillQuota},
      {Do::kForgetLegacy},
      {Do::kActivate},
      {Do::kDetach},
      {Do::kOomAfterRestart},
      {Do::kNotify},
      Say("W4 MonitorPri: multi-cgroup initialized")},
     true},
    {"10-111",
     {{Do::kAddPid},
      {Do::kWrite},
      {Do::kSelfKillQuota},
      {Do::kForgetLegacy},
      {Do::kActivate},
      {Do::kDetach},
      {Do::kOomAfterRestart},
      {Do::kNotify},
      {Do::kRemember},
      Say("W4 MonitorPri: multi-cgroup initialized")},
     true},
    {"0-10--",
     {Say("W3 MonitorPri: active desired but reconcile all failed, fallback to legacy"), {Do::kFallback}},
     false},
    {"0-00--", {{Do::kDisable}, Say("W4 MonitorPri: multi-cgroup initialized (unified disabled)")}, true},
    {"0--1--",
     {{Do::kDisable}, {Do::kRemember}, Say("W4 MonitorPri: multi-cgroup initialized (unified disabled)")},
     true},
};

const Step kSayStuck = Say("W3 MonitorPri: parent clear failed during update, restoring previous state");
const Step kSayWriteFailed = Say("W3 MonitorPri: write cgroup config failed during update, restoring previous state");
const Step kSayRestored = Say("W4 MonitorPri: restored previous cgroup state, keeping old config");
const Step kSayRestoreFailed = Say("W3 MonitorPri: restore previous state failed, fallback to legacy");

// the same, then: settings on record, their restore succeeds
const std::vector<Row> kUpdateRows = {
    {"11----0-", {kSayStuck, kSayWriteFailed, {Do::kFallback}}, false},
    {"11----10", {kSayStuck, kSayWriteFailed, {Do::kRestore}, kSayRestoreFailed, {Do::kFallback}}, false},
    {"11----11", {kSayStuck, kSayWriteFailed, {Do::kRestore}, kSayRestored}, false},
    {"10--0---",
     {{Do::kAddPid}, Say("W3 MonitorPri: add main pid failed during update, fallback to legacy"), {Do::kFallback}},
     false},
    {"10--100-", {{Do::kAddPid}, {Do::kWrite}, kSayWriteFailed, {Do::kFallback}}, false},
    {"10--1010",
     {{Do::kAddPid}, {Do::kWrite}, kSayWriteFailed, {Do::kRestore}, kSayRestoreFailed, {Do::kFallback}},
     false},
    {"10--1011", {{Do::kAddPid}, {Do::kWrite}, kSayWriteFailed, {Do::kRestore}, kSayRestored}, false},
    {"10-111--",
     {{Do::kAddPid}, {Do::kWrite}, {Do::kSelfKillQuota}, {Do::kDetach}, {Do::kNotify}, {Do::kRemember}},
     true},
    {"10-011--",
     {{Do::kAddPid},
      {Do::kWrite},
      {Do::kSelfKillQuota},
      {Do::kDetach},
      {Do::kNotify},
      Say("W3 MonitorPri: reconcile partial failure, config written but last state not updated"),
      {Do::kForget}},
     true},
    {"0-10----",
     {Say("W3 MonitorPri: active desired but reconcile all failed during update, fallback to legacy"), {Do::kFallback}},
     false},
    {"0-00----", {{Do::kDisable}, {Do::kForget}}, true},
    {"0--1----", {{Do::kDisable}, {Do::kRemember}}, true},
};

const Step kSayMoveFailed =
    Say("F3 [MonitorPri] MonitorPri: failed to move cgroup config [/opt/agent/home/conf/cgroup_resource.json], writing "
        "disabled config");
const Step kSayNotPublished = Say("W3 MonitorPri: failed to publish unified exit config");
const Step kSayBackupStays =
    Say("F3 [MonitorPri] MonitorPri: failed to remove unified config backup "
        "[/opt/agent/home/conf/cgroup_resource.json.legacy_exit.bak] after exit");

// component file there, stale backup there, backup removable, file movable, manager there, disabled form written
const std::vector<Row> kPublishRows = {
    {"0-----", {{Do::kTellTheOthers}}, true},
    {"110-0-", {{Do::kIsBackup}, {Do::kRemoveBackup}, kSayMoveFailed, kSayNotPublished}, false},
    {"110-10", {{Do::kIsBackup}, {Do::kRemoveBackup}, kSayMoveFailed, {Do::kWriteDisabled}, kSayNotPublished}, false},
    {"110-11",
     {{Do::kIsBackup}, {Do::kRemoveBackup}, kSayMoveFailed, {Do::kWriteDisabled}, {Do::kTellTheOthers}},
     true},
    {"11100-", {{Do::kIsBackup}, {Do::kRemoveBackup}, {Do::kRename}, kSayMoveFailed, kSayNotPublished}, false},
    {"111010",
     {{Do::kIsBackup}, {Do::kRemoveBackup}, {Do::kRename}, kSayMoveFailed, {Do::kWriteDisabled}, kSayNotPublished},
     false},
    {"111011",
     {{Do::kIsBackup}, {Do::kRemoveBackup}, {Do::kRename}, kSayMoveFailed, {Do::kWriteDisabled}, {Do::kTellTheOthers}},
     true},
    {"1111--", {{Do::kIsBackup}, {Do::kRemoveBackup}, {Do::kRename}, {Do::kRemoveBackup}, {Do::kTellTheOthers}}, true},
    {"10-00-", {{Do::kIsBackup}, {Do::kRename}, kSayMoveFailed, kSayNotPublished}, false},
    {"10-010", {{Do::kIsBackup}, {Do::kRename}, kSayMoveFailed, {Do::kWriteDisabled}, kSayNotPublished}, false},
    {"10-011", {{Do::kIsBackup}, {Do::kRename}, kSayMoveFailed, {Do::kWriteDisabled}, {Do::kTellTheOthers}}, true},
    {"1001--", {{Do::kIsBackup}, {Do::kRename}, {Do::kRemoveBackup}, kSayBackupStays, {Do::kTellTheOthers}}, true},
    {"1011--", {{Do::kIsBackup}, {Do::kRename}, {Do::kRemoveBackup}, {Do::kTellTheOthers}}, true},
};

bool Matches(const char* when, unsigned facts, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (when[i] != '-' && (when[i] == '1') != ((facts >> i & 1U) != 0)) return false;
    }
    return true;
}

template <size_t Count>
const Row& Find(const std::vector<Row>& rows, const bool (&facts)[Count]) {
    unsigned bits = 0;
    for (size_t i = 0; i < Count; ++i) bits |= static_cast<unsigned>(facts[i]) << i;
    for (const Row& row : rows) {
        if (!Matches(row.when, bits, Count)) continue;
        ++row.hits;
        return row;
    }
    abort();  // the tables are complete, as a test of its own shows
}

// ---------------------------------------------------------------------------------------------------------------
// Scenarios
// ---------------------------------------------------------------------------------------------------------------

enum class Request { kUpdate, kInit, kPollOom, kCleanup, kFallback, kDisable, kPublish };
const Request kRequests[] = {Request::kUpdate,   Request::kUpdate,  Request::kInit,    Request::kUpdate,
                             Request::kInit,     Request::kUpdate,  Request::kPollOom, Request::kCleanup,
                             Request::kFallback, Request::kDisable, Request::kPublish};

/// One request and the world it meets. All zero is the kindest world.
struct Op {
    unsigned request = 0, mode = 0, cpu = 0, mem = 0, kernel = 0, oomShape = 0, oomLevel = 0;
    uint64_t mishaps = 0;  // one bit for every answer that is not the ordinary one

    bool Has(unsigned bit) const { return (mishaps >> bit & 1U) != 0; }
};
// Bits of Op::mishaps. First: the first call of the request, then: all later ones.
enum Mishap : unsigned {
    kReconcileFirst,
    kReconcileThen,
    kReconcileOff,
    kCpuEnabledFirst,
    kCpuEnabledThen,
    kMemEnabledFirst,
    kMemEnabledThen,
    kCpuV2,
    kMemV2,
    kParentCpuFirst,
    kParentCpuThen,
    kParentMemFirst,
    kParentMemThen,
    kAddPidFails,
    kRemovePidFails,
    kWriteFails,
    kWriteDisabledFirst,
    kWriteDisabledThen,
    kEnsureFails,
    kReloadFails,
    kNoLimitUtil,
    kStopCpuFails,
    kStopMemFails,
    kLegacyCpuV2,
    kLegacyMemV2,
    kUnameFails,
    kFileAppears,
    kFileVanishes,
    kBackupAppears,
    kRenameFails,
    kRemoveBackupFails,
    kSnapshotFails,
    kPollFails,
    kNoTransmit,
    kSendFails,
    kMarkUnreadable,
    kMarkGarbage,
    kMarkTmpFails,
    kMarkRenameFails,
    kLaterPoll
};

struct World {
    bool component = false;  // not the main process
    bool noCallback = false;
    bool client = false;
    bool solaris = false;
    unsigned cpus = 0, range = 0, prefixes = 0, excludeRange = 0, groups = 0, components = 0;
};
const long kCpuCounts[] = {4, 1, 0, -1};

struct Scenario {
    World world;
    std::vector<Op> ops;
};

std::ostream& operator<<(std::ostream& out, const Op& op) {
    static const char* const names[] = {"Update", "Init", "PollOom", "Cleanup", "Fallback", "Disable", "Publish"};
    out << names[static_cast<int>(kRequests[op.request])] << "(mode " << kModes[op.mode] << ", cpu "
        << kCpuCases[op.cpu].maxCpu << ", mem " << kMemCases[op.mem] << ") on kernel "
        << kKernelCases[op.kernel].release << ", OOM shape " << op.oomShape << " level " << op.oomLevel << ", mishaps:";
    for (unsigned bit = 0; bit <= kLaterPoll; ++bit) {
        if (op.Has(bit)) out << ' ' << bit;
    }
    return out;
}
std::ostream& operator<<(std::ostream& out, const Scenario& s) {
    out << "main=" << !s.world.component << " callback=" << !s.world.noCallback << " client=" << s.world.client
        << " solaris=" << s.world.solaris << " cpus=" << kCpuCounts[s.world.cpus] << " range=["
        << kRanges[s.world.range].text << "] excluded=[" << kPrefixes[s.world.prefixes].text << "] excludedRange=["
        << kExcludedRanges[s.world.excludeRange].text << "] groups=[" << kGroupTexts[s.world.groups].text
        << "] components=[" << kComponentTexts[s.world.components].text << "]";
    for (const Op& op : s.ops) out << "\n  " << op;
    return out;
}

// ---------------------------------------------------------------------------------------------------------------
// The model
// ---------------------------------------------------------------------------------------------------------------

const char* const kWatermark = "/opt/agent/home/conf/cgroup_oom_watermark.json";

int32_t Saturated(__int128 value) {
    return value > INT_MAX ? INT_MAX : static_cast<int32_t>(value);
}

/// An answer that is asked for several times in one request.
struct Tape {
    bool first = false, then = false;
    bool used = false;
    bool Next() {
        if (used) return then;
        used = true;
        return first;
    }
};

class Model {
public:
    explicit Model(const World& world) : m_world(world) {}

    struct Last {
        int mode = 0;
        long cpu = 0;
        int mem = 0;
    };
    struct Watermark {
        enum { kNone, kGarbage, kGood } state = kNone;
        std::map<std::string, std::vector<int64_t>> items;
    };

    bool Run(const Op& op) {
        m_op = &op;
        lines.clear();
        parentQuestions.clear();
        legacyCpu = legacyMem = true;
        const int mode = kModes[op.mode];
        m_cpuEnabled = {((mode & 1) != 0) != op.Has(kCpuEnabledFirst), ((mode & 1) != 0) != op.Has(kCpuEnabledThen)};
        m_memEnabled = {((mode & 4) != 0) != op.Has(kMemEnabledFirst), ((mode & 4) != 0) != op.Has(kMemEnabledThen)};
        m_parentCpu = {((mode & 1) != 0) != op.Has(kParentCpuFirst), ((mode & 1) != 0) != op.Has(kParentCpuThen)};
        m_parentMem = {((mode & 4) != 0) != op.Has(kParentMemFirst), ((mode & 4) != 0) != op.Has(kParentMemThen)};
        m_writeDisabled = {!op.Has(kWriteDisabledFirst), !op.Has(kWriteDisabledThen)};
        if (op.Has(kFileVanishes)) fileThere = false;
        if (op.Has(kFileAppears)) fileThere = true;
        if (op.Has(kBackupAppears)) backupThere = true;
        if (op.Has(kMarkGarbage)) mark = {Watermark::kGarbage, {}};
        now += op.Has(kLaterPoll) ? 300 : 299;

        switch (kRequests[op.request]) {
            case Request::kInit: return Apply(false);
            case Request::kUpdate: return Apply(true);
            case Request::kPollOom: PollOom(); return true;
            case Request::kCleanup: return Cleanup();
            case Request::kFallback: return Fallback();
            case Request::kDisable: m_groups = "groups[]"; return Disable();
            case Request::kPublish: return Publish();
        }
        return false;
    }

    // what the last request did
    Lines lines;
    Lines parentQuestions;
    // what it left
    bool manager = false, active = false;
    Last last;
    int quotaCpu = 0, quotaMem = 0;
    bool legacyCpu = false, legacyMem = false;  // still remembered
    bool fileThere = false, backupThere = false;
    Watermark mark;
    long now = 1700000000;
    long lastReport = 0;

private:
    void Put(const std::string& line) { lines.push_back(line); }
    bool Ask(const char* call, bool answer) {
        Put(std::string("CCgroupManager::") + call + "()");
        return answer;
    }
    bool AskParent(const char* call, Tape& tape) {
        parentQuestions.push_back(std::string("CCgroupManager::") + call + "()");
        return tape.Next();
    }

    // --- what a request asks for ---

    long Effective(long maxCpu) {
        long effective = 0;
        for (const CpuCase& c : kCpuCases) {
            if (c.maxCpu == maxCpu) effective = c.effective;
        }
        Put("CResourceMonitor::IsCpuSolarisMode()");
        if (!m_world.solaris) return effective;
        Put("sysconf(_SC_NPROCESSORS_CONF)");
        const long cpus = kCpuCounts[m_world.cpus];
        return cpus >= 1 ? effective * cpus : effective;
    }

    bool ReadKernel() {
        Put("uname()");
        if (m_op->Has(kUnameFails) || !kKernelCases[m_op->kernel].readable) return false;
        m_kernel = static_cast<int>(m_op->kernel);
        return true;
    }
    bool KernelKnown() const { return m_kernel >= 0 && !kKernelCases[m_kernel].noMajor; }
    bool InRange(const KernelList& list) {
        if (std::string(list.text).find_first_not_of(" \t") == std::string::npos) return false;
        if (!KernelKnown() && !ReadKernel()) return false;
        return list.hits[m_kernel];
    }
    bool HasPrefix(const KernelList& list) const { return m_kernel >= 0 && list.hits[m_kernel]; }

    void KernelPolicy(bool& cpuOn, bool& memOn) {
        if (!KernelKnown()) ReadKernel();
        const auto off = [&](bool& flag, const char* format) {
            Put(doubles::Format(format, m_kernel >= 0 ? kKernelCases[m_kernel].release : ""));
            flag = false;
        };
        if (cpuOn && m_kernel >= 0 && kKernelCases[m_kernel].blacklisted) off(cpuOn, kCpuBlacklisted);
        if (memOn && !InRange(kRanges[m_world.range])) off(memOn, kMemNotAllowed);
        if (memOn && HasPrefix(kPrefixes[m_world.prefixes])) off(memOn, kMemExcluded);
        if (memOn && InRange(kExcludedRanges[m_world.excludeRange])) off(memOn, kMemInRange);
    }

    /// Fills the texts of the records as the manager is shown them.
    void Build(long effective, int maxMem, bool cpuOn, bool memOn) {
        const GroupText& groups = kGroupTexts[m_world.groups];
        const ComponentText& components = kComponentTexts[m_world.components];
        if (groups.parsed) {
            Put("F4 [MonitorPri] MonitorPri: parsed " + std::to_string(groups.groups.size()) +
                " cgroup groups from config");
        }
        m_groups = "groups[";
        std::map<std::string, int32_t> quotas;
        for (const ModelGroup& g : groups.groups) {
            const int32_t quota = cpuOn && g.share > 0 ? Saturated(static_cast<__int128>(g.share) * effective) : 0;
            quotas[g.name] = quota;
            const __int128 scaled = static_cast<__int128>(g.memKb) * maxMem / 200;
            const int32_t memory = memOn && g.memKb > 0 ? Saturated(scaled * 3 / 2) : 0;
            m_groups += doubles::Format("%s%s cpu=%d %d.%02d mem=%d %dKB", m_groups.back() == '[' ? "" : "; ", g.name,
                                        cpuOn, quota / 100, quota % 100, memOn, memory);
        }
        m_groups += "]";
        if (components.parsed) {
            Put("F4 [MonitorPri] MonitorPri: parsed " + std::to_string(components.components.size()) +
                " cgroup components from config");
        }
        m_quotas = "quotas[";
        m_ownFound = false;
        for (const ModelComponent& c : components.components) {
            const auto found = quotas.find(c.cpuGroup);
            const __int128 group = found == quotas.end() ? 0 : found->second;
            const int32_t cpu = c.share > 0 ? Saturated(group * c.share / 10000) : 0;
            const int32_t memory = Saturated(static_cast<__int128>(c.memKb) * maxMem / 200);
            m_quotas += doubles::Format("%s%s@%s/%s %d %dKB", m_quotas.back() == '[' ? "" : "; ", c.name, c.cpuGroup,
                                        c.memGroup, cpu, memory);
            if (!m_ownFound && std::string(c.name) == "Tervane") {
                m_ownFound = true;
                m_ownCpu = cpu;
                m_ownMem = memory;
            }
        }
        m_quotas += "]";
        m_total = doubles::Format("total{cpu=%d %ld.00 mem=%d %dKB}", cpuOn, effective, memOn,
                                  Saturated(static_cast<__int128>(maxMem) * 1024 * 3 / 2));
    }

    bool Reconcile(long effective, int maxMem, bool cpuOn, bool memOn, bool answer) {
        Build(effective, maxMem, cpuOn, memOn);
        Put(doubles::Format("CCgroupManager::Reconcile(%d,%d,", cpuOn, memOn) + m_total + "," + m_groups + ")");
        return answer;
    }

    // --- requests ---

    bool Apply(bool update) {
        const int mode = kModes[m_op->mode];
        const int maxMem = kMemCases[m_op->mem];
        if (m_world.component) return true;
        if ((mode & 8) == 0) return Cleanup();
        const bool unified = active && manager;
        if (unified && !update) return true;
        if (!manager) {
            Put("CCgroupManager::CCgroupManager()");
            Put("CCgroupManager::EnsureInitialized()");
            manager = true;
        }
        m_asked = {mode, Effective(kCpuCases[m_op->cpu].maxCpu), maxMem};
        if (unified) {
            if (last.mode == mode && last.cpu == m_asked.cpu && last.mem == maxMem) return true;
            Put(
                doubles::Format("F4 [MonitorPri] MonitorPri: multi-cgroup updating, "
                                "mode %d->%d cpu %ld->%ld mem %d->%d",
                                last.mode, mode, last.cpu, m_asked.cpu, last.mem, maxMem));
        }

        bool cpuOn = (mode & 1) != 0;
        bool memOn = (mode & 4) != 0;
        KernelPolicy(cpuOn, memOn);
        const bool reconciled = Reconcile(m_asked.cpu, maxMem, cpuOn, memOn, !m_op->Has(kReconcileFirst));
        m_cpuInForce = Ask("IsCpuCgroupEnabled", m_cpuEnabled.Next());
        m_memInForce = Ask("IsMemCgroupEnabled", m_memEnabled.Next());
        bool stuck = false;
        if (!reconciled && !cpuOn) stuck = AskParent("IsParentCpuActive", m_parentCpu);
        if (!reconciled && !memOn && !stuck) stuck = AskParent("IsParentMemActive", m_parentMem);
        m_parentCpuLimit = AskParent("IsParentCpuActive", m_parentCpu) ? 900 : 0;
        if (m_parentCpuLimit != 0) parentQuestions.push_back("CCgroupManager::GetParentCpuLimit100Times()");
        m_parentMemLimit = AskParent("IsParentMemActive", m_parentMem) ? 307200 : 0;
        if (m_parentMemLimit != 0) parentQuestions.push_back("CCgroupManager::GetParentMemLimitKB()");

        const bool inForce = m_cpuInForce || m_memInForce;
        const bool wanted = cpuOn || memOn;
        const bool pid = !m_op->Has(kAddPidFails);
        const bool written = !m_op->Has(kWriteFails);
        if (!unified) return Play(Find(kInitRows, {inForce, stuck, wanted, reconciled, pid, written}));
        return Play(Find(kUpdateRows, {inForce, stuck, wanted, reconciled, pid, written, last.mode != 0,
                                       !m_op->Has(kReconcileThen)}));
    }

    bool Play(const Row& row) {
        for (const Step& step : row.steps) {
            if (!PlayStep(step)) return false;
        }
        return row.result;
    }

    /// Returns: false when the row ends here.
    bool PlayStep(const Step& step) {
        switch (step.what) {
            case Do::kSay: Put(step.text); break;
            case Do::kAddPid: Put("CCgroupManager::AddPidToGroup(main,4242)"); break;
            case Do::kWrite:
                Put(std::string("CCgroupManager::WriteComponentConfig(") + kComponentFile + "," + m_quotas +
                    doubles::Format(",%d,%d)", m_parentCpuLimit, m_parentMemLimit));
                if (!m_op->Has(kWriteFails)) fileThere = true;
                break;
            case Do::kSelfKillQuota: SelfKillQuota(); break;
            case Do::kForgetLegacy: legacyCpu = legacyMem = false; break;
            case Do::kActivate: active = true; break;
            case Do::kDetach: Detach(); break;
            case Do::kOomAfterRestart: OomAfterRestart(); break;
            case Do::kNotify: Notify(); break;
            case Do::kRemember: last = m_asked; break;
            case Do::kForget: last = {}; break;
            case Do::kRestore: {
                bool cpuOn = (last.mode & 1) != 0;
                bool memOn = (last.mode & 4) != 0;
                const std::string groups = m_groups;
                KernelPolicy(cpuOn, memOn);
                Reconcile(last.cpu, last.mem, cpuOn, memOn, true);
                m_groups = groups;
                break;
            }
            case Do::kFallback: Fallback(); break;
            case Do::kDisable: return Disable();
            case Do::kIsBackup: Put(std::string("CFileUtil::IsFile(") + kBackupFile + ")"); break;
            case Do::kRemoveBackup:
                Put(std::string("CFileUtil::RemoveFile(") + kBackupFile + ")");
                if (!m_op->Has(kRemoveBackupFails)) backupThere = false;
                break;
            case Do::kRename:
                Put(std::string("CFileCom(") + kComponentFile + ")::rename(" + kBackupFile + ")");
                if (!m_op->Has(kRenameFails)) {
                    fileThere = false;
                    backupThere = true;
                }
                break;
            case Do::kWriteDisabled: WriteDisabled(); break;
            case Do::kTellTheOthers:
                Notify();
                if (m_world.client) Put("CCgroupClient::ReloadConfig()");
                break;
        }
        return true;
    }

    bool WriteDisabled() {
        Put(std::string("CCgroupManager::WriteDisabledConfig(") + kComponentFile + ")");
        const bool ok = m_writeDisabled.Next();
        if (ok) fileThere = true;
        return ok;
    }

    void Notify() {
        if (m_world.noCallback) {
            Put("W3 MonitorPri: no IPC broadcast callback, cannot send cgroup config notify");
        } else {
            Put(kBroadcast);
            Put(kNotified);
        }
    }

    void SelfKillQuota() {
        quotaCpu = quotaMem = 0;
        if (!m_ownFound) {
            Put("W3 MonitorPri: Tervane quota not found in multi-cgroup config, self-kill keeps config limits");
            return;
        }
        if (m_cpuInForce && m_ownCpu > 0) quotaCpu = m_ownCpu;
        if (m_memInForce && m_ownMem > 0) quotaMem = m_ownMem;
        Put(doubles::Format(
            "F4 [MonitorPri] MonitorPri: unified self-kill quota cpuActive=%d cpuQ=%d memActive=%d memQ=%d",
            quotaCpu > 0, quotaCpu, quotaMem > 0, quotaMem));
    }

    void Detach() {
        bool v2 = Ask("IsCpuCgroupEnabled", m_cpuEnabled.Next()) && Ask("IsCpuV2", m_op->Has(kCpuV2));
        v2 = v2 || (Ask("IsMemCgroupEnabled", m_memEnabled.Next()) && Ask("IsMemV2", m_op->Has(kMemV2)));
        if (v2) {
            Put("IsResourceLimitCpuCgroupV2Runtime()");
            if (m_op->Has(kLegacyCpuV2)) ClearLegacyCpu();
            Put("IsResourceLimitMemCgroupV2Runtime()");
            if (m_op->Has(kLegacyMemV2)) ClearLegacyMem();
        }
        if (m_cpuInForce) ClearLegacyCpu();
        if (m_memInForce) ClearLegacyMem();
    }
    void ClearLegacyCpu() {
        Put("ClearResourceLimitCpuCgroupState()");
        legacyCpu = false;
    }
    void ClearLegacyMem() {
        Put("ClearResourceLimitMemCgroupState()");
        legacyMem = false;
    }

    // --- the ways out ---

    bool Publish() {
        Put(std::string("CFileUtil::IsFile(") + kComponentFile + ")");
        Tape disabled = m_writeDisabled;
        const bool facts[] = {fileThere, backupThere,    !m_op->Has(kRemoveBackupFails), !m_op->Has(kRenameFails),
                              manager,   disabled.Next()};
        return Play(Find(kPublishRows, facts));
    }

    void LeaveGroup() {
        Put("CCgroupManager::ResetMemoryOomMonitor()");
        Put("CCgroupManager::RemovePidFromGroup(main,4242)");
    }

    void BecomeLegacy() {
        active = false;
        last = {};
        legacyCpu = legacyMem = false;
    }

    bool Fallback() {
        quotaCpu = quotaMem = 0;
        if (manager) LeaveGroup();
        const bool published = Publish();
        BecomeLegacy();
        Put(published ? "W4 MonitorPri: entered legacy fallback mode"
                      : "W3 MonitorPri: legacy fallback config publish failed, local legacy state reset for retry");
        return published;
    }

    bool Cleanup() {
        quotaCpu = quotaMem = 0;
        if (!active) {
            Put(std::string("CFileUtil::IsFile(") + kComponentFile + ")");
            if (!fileThere) return true;
        }
        if (manager) {
            Put("W4 MonitorPri: multi-cgroup mode disabled, publishing legacy exit");
            LeaveGroup();
        }
        const bool published = Publish();
        BecomeLegacy();
        return published;
    }

    bool Disable() {
        quotaCpu = quotaMem = 0;
        if (manager) {
            Put("CCgroupManager::Reconcile(0,0," + m_groups + ")");
            if (m_op->Has(kReconcileOff)) {
                Put("W3 MonitorPri: Reconcile(false,false) failed in EnterUnifiedDisabled, fallback to legacy");
                Fallback();
                return false;
            }
        }
        if (!manager || !WriteDisabled()) {
            Put("W3 MonitorPri: WriteDisabledConfig failed, fallback to legacy");
            Fallback();
            return false;
        }
        Put("GetResourceLimitUtil()");
        if (!m_op->Has(kNoLimitUtil)) {
            Put("IResourceLimitUtil::StopCpuLimit(error=0)");
            if (m_op->Has(kStopCpuFails)) {
                Put("F3 [MonitorPri] MonitorPri: uninstall legacy cpu cgroup failed ret[3] err[5], reason[multi-cgroup "
                    "unified disabled]");
            }
            Put("IResourceLimitUtil::StopMemLimit(error=0,1)");
            if (m_op->Has(kStopMemFails)) {
                Put("F3 [MonitorPri] MonitorPri: uninstall legacy mem cgroup failed ret[4] err[6], reason[multi-cgroup "
                    "unified disabled]");
            }
            Put("IResourceLimitUtil::ReleaseLimits()");
        }
        legacyCpu = legacyMem = false;
        active = true;
        Notify();
        return true;
    }

    // --- out-of-memory kills ---

    static std::string KeyOf(const zel::CgroupMemoryOomEvent& e) {
        return (e.parent ? "parent" : e.group) + "|" + e.path + (e.v2 ? "|v2" : "|v1");
    }

    bool Snapshot(std::vector<zel::CgroupMemoryOomEvent>& events) {
        Put("CCgroupManager::SnapshotSelfMemoryOomCounters()");
        events = OomEvents(m_op->oomShape, m_op->oomLevel);
        return !m_op->Has(kSnapshotFails);
    }

    bool WriteMark(const std::vector<zel::CgroupMemoryOomEvent>& events) {
        const std::string tmp = std::string(kWatermark) + ".tmp";
        Put("CFileUtil::WriteNewFile(" + tmp + ",0)");
        if (m_op->Has(kMarkTmpFails)) return false;
        Put("CFileCom(" + tmp + ")::rename(" + kWatermark + ")");
        if (m_op->Has(kMarkRenameFails)) {
            Put("CFileUtil::RemoveFile(" + tmp + ")");
            return false;
        }
        mark = {Watermark::kGood, {}};
        for (const auto& e : events) mark.items[KeyOf(e)] = {e.oom_kill, e.oom, e.oom_group_kill};
        return true;
    }

    bool SendOom() {
        if (m_op->Has(kNoTransmit)) {
            Put("W3 MonitorPri: cannot report cgroup OOM event, MsgTransmit instance is null");
            return false;
        }
        Put("IMsgTransmit::SendMsg(T_MSG_OS_ABNORMAL,body,\"\",1,0)");
        return !m_op->Has(kSendFails);
    }

    void OomAfterRestart() {
        std::vector<zel::CgroupMemoryOomEvent> events;
        if (!Snapshot(events)) {
            Put("W3 MonitorPri: snapshot self cgroup OOM counters failed");
            return;
        }
        if (events.empty()) return;
        Put(std::string("CFileUtil::IsFile(") + kWatermark + ")");
        bool known = mark.state != Watermark::kNone;
        if (known) {
            Put(doubles::Format("CFileUtil::ReadFullFile(%s,65536)", kWatermark));
            known = !m_op->Has(kMarkUnreadable) && mark.state == Watermark::kGood;
        }
        if (!known) {
            if (!WriteMark(events)) {
                Put(doubles::Format("F3 [MonitorPri] MonitorPri: initialize cgroup OOM watermark failed [%s]",
                                    kWatermark));
            }
            return;
        }
        bool found = false;
        for (const auto& e : events) {
            const auto stored = mark.items.find(KeyOf(e));
            if (stored == mark.items.end()) continue;
            const int64_t kills = std::max<int64_t>(0, e.oom_kill - stored->second[0]);
            const int64_t groupKills = std::max<int64_t>(0, e.oom_group_kill - stored->second[2]);
            if (kills == 0 && groupKills == 0) continue;
            found = true;
            Put(doubles::Format(
                "F3 [MonitorPri] MonitorPri: detected cgroup memory OOM after restart group=[%s] "
                "parent=%d path=[%s] oomKill=%ld(+%ld) oomGroupKill=%ld(+%ld)",
                e.group.c_str(), e.parent, e.path.c_str(), e.oom_kill, kills, e.oom_group_kill, groupKills));
        }
        if (found && !SendOom()) Put("W3 MonitorPri: report cgroup OOM after restart event failed");
        if (!WriteMark(events)) {
            Put(doubles::Format("F3 [MonitorPri] MonitorPri: update cgroup OOM watermark failed [%s]", kWatermark));
        }
    }

    void PollOom() {
        if (m_world.component || !manager) return;
        if (!active) {
            Put("CCgroupManager::ResetMemoryOomMonitor()");
            return;
        }
        Put("CCgroupManager::PollMemoryOomEvents()");
        if (m_op->Has(kPollFails)) Put("W3 MonitorPri: poll multi-cgroup memory OOM events failed");
        const auto events = OomEvents(m_op->oomShape, m_op->oomLevel);
        bool own = false;
        for (const auto& e : events) {
            own = own || e.parent || e.group == "main";
            const std::string head = doubles::Format(
                "F3 [MonitorPri] MonitorPri: cgroup v%d memory OOM group=[%s] parent=%d path=[%s] oomKill=%ld(+1) ",
                e.v2 ? 2 : 1, e.group.c_str(), e.parent, e.path.c_str(), e.oom_kill);
            Put(head + (e.v2 ? doubles::Format("oom=%ld(+2) oomGroupKill=%ld(+3)", e.oom, e.oom_group_kill)
                             : std::string("underOom=1 oomKillDisable=0")));
        }
        if (events.empty()) return;
        if (lastReport == 0 || now - lastReport >= 300) {
            lastReport = now;
            if (!SendOom()) Put("W3 MonitorPri: report runtime cgroup OOM event failed");
        }
        if (!own) return;
        std::vector<zel::CgroupMemoryOomEvent> snapshot;
        if (Snapshot(snapshot) && !snapshot.empty()) WriteMark(snapshot);
    }

    static constexpr const char* kCpuBlacklisted =
        "F4 [MonitorPri] MonitorPri: CPU cgroup disabled, kernel [%s] in blacklist";
    static constexpr const char* kMemNotAllowed =
        "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [%s] not in allowlist";
    static constexpr const char* kMemExcluded =
        "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [%s] in exclude list";
    static constexpr const char* kMemInRange =
        "F4 [MonitorPri] MonitorPri: Memory cgroup disabled, kernel [%s] in exclude range";

    const World m_world;
    const Op* m_op = nullptr;
    int m_kernel = -1;  // of kKernelCases, once read
    Last m_asked;
    std::string m_groups, m_quotas, m_total;
    bool m_ownFound = false;
    int32_t m_ownCpu = 0, m_ownMem = 0;
    bool m_cpuInForce = false, m_memInForce = false;
    int m_parentCpuLimit = 0, m_parentMemLimit = 0;
    Tape m_cpuEnabled, m_memEnabled, m_parentCpu, m_parentMem, m_writeDisabled;
};

// ---------------------------------------------------------------------------------------------------------------
// The module under the same scenario
// ---------------------------------------------------------------------------------------------------------------

template <class T>
void Script(doubles::Answers<T>& answers, T first, T then) {
    answers.Always(then).Then(first);
}

void Toggle(std::set<std::string>& paths, const std::string& path, bool on) {
    if (on) {
        paths.insert(path);
    } else {
        paths.erase(path);
    }
}

class Module {
public:
    explicit Module(const World& world) {
        doubles::ResetPlatform();
        m_pri = std::make_unique<MonitorPriProbe>();
        m_pri->m_isMainAgent = !world.component;
        m_pri->m_ipcBroadcastCallback = world.noCallback ? nullptr : RecordBroadcast;
        m_pri->m_cgroupClient = world.client ? &m_client : nullptr;
        m_pri->m_memLimitKernelRange = kRanges[world.range].text;
        m_pri->m_memLimitExcludeKernels = kPrefixes[world.prefixes].text;
        m_pri->m_memLimitExcludeRange = kExcludedRanges[world.excludeRange].text;
        m_pri->m_cgroupGroupsSpec = kGroupTexts[world.groups].text;
        m_pri->m_cgroupComponentsSpec = kComponentTexts[world.components].text;
        auto& p = doubles::P();
        p.base.solaris = world.solaris;
        p.kernel.configuredCpus = kCpuCounts[world.cpus];
        p.manager.parentCpuLimit.Always(900);
        p.manager.parentMemLimit.Always(307200);
        p.journal.clear();
    }

    bool Run(const Op& op) {
        SetUpWorld(op);
        const int mode = kModes[op.mode];
        const long maxCpu = kCpuCases[op.cpu].maxCpu;
        const int maxMem = kMemCases[op.mem];
        switch (kRequests[op.request]) {
            case Request::kInit: return m_pri->InitMultiCgroup(mode, maxCpu, maxMem);
            case Request::kUpdate: return m_pri->UpdateMultiCgroup(mode, maxCpu, maxMem);
            case Request::kPollOom: m_pri->CheckMultiCgroupOom(); return true;
            case Request::kCleanup: return m_pri->CleanupUnifiedConfigForLegacy();
            case Request::kFallback: return m_pri->EnterLegacyFallback({});
            case Request::kDisable: return m_pri->EnterUnifiedDisabled({});
            case Request::kPublish: return m_pri->PublishUnifiedExitConfig();
        }
        return false;
    }

    /// Every difference to the model after a request, or nothing.
    std::string Differences(const Model& model) {
        Lines lines;
        Lines parentQuestions;
        for (std::string& line : doubles::P().journal) {
            const bool parent = line.compare(0, 24, "CCgroupManager::IsParent") == 0 ||
                                line.compare(0, 25, "CCgroupManager::GetParent") == 0;
            (parent ? parentQuestions : lines).push_back(std::move(line));
        }
        doubles::P().journal.clear();
        doubles::P().logs.clear();
        std::ostringstream out;
        Compare(out, "journal", model.lines, lines);
        Compare(out, "questions about the parent", model.parentQuestions, parentQuestions);
        Compare(out, "state", StateOf(model), State());
        return out.str();
    }

private:
    void SetUpWorld(const Op& op) {
        auto& p = doubles::P();
        const int mode = kModes[op.mode];
        const bool cpu = (mode & 1) != 0;
        const bool mem = (mode & 4) != 0;
        auto& m = p.manager;
        Script(m.reconcile, !op.Has(kReconcileFirst), !op.Has(kReconcileThen));
        m.reconcileGroupsOnly.Always(!op.Has(kReconcileOff));
        Script(m.cpuEnabled, cpu != op.Has(kCpuEnabledFirst), cpu != op.Has(kCpuEnabledThen));
        Script(m.memEnabled, mem != op.Has(kMemEnabledFirst), mem != op.Has(kMemEnabledThen));
        m.cpuV2.Always(op.Has(kCpuV2));
        m.memV2.Always(op.Has(kMemV2));
        Script(m.parentCpuActive, cpu != op.Has(kParentCpuFirst), cpu != op.Has(kParentCpuThen));
        Script(m.parentMemActive, mem != op.Has(kParentMemFirst), mem != op.Has(kParentMemThen));
        m.addPid.Always(!op.Has(kAddPidFails));
        m.removePid.Always(!op.Has(kRemovePidFails));
        m.writeComponent.Always(!op.Has(kWriteFails));
        Script(m.writeDisabled, !op.Has(kWriteDisabledFirst), !op.Has(kWriteDisabledThen));
        m.ensureInitialized.Always(!op.Has(kEnsureFails));
        m.snapshot.Always(OomEvents(op.oomShape, op.oomLevel));
        m.poll.Always(OomEvents(op.oomShape, op.oomLevel));
        m.snapshotOk.Always(!op.Has(kSnapshotFails));
        m.pollOk.Always(!op.Has(kPollFails));
        p.client.reload.Always(!op.Has(kReloadFails));
        p.limit.present = !op.Has(kNoLimitUtil);
        p.limit.stopCpu.Always(op.Has(kStopCpuFails) ? doubles::LimitAnswer{3, 5} : doubles::LimitAnswer{});
        p.limit.stopMem.Always(op.Has(kStopMemFails) ? doubles::LimitAnswer{4, 6} : doubles::LimitAnswer{});
        p.limit.cpuV2Runtime.Always(op.Has(kLegacyCpuV2));
        p.limit.memV2Runtime.Always(op.Has(kLegacyMemV2));
        p.kernel.unameResult = op.Has(kUnameFails) ? -1 : 0;
        p.kernel.release = kKernelCases[op.kernel].release;
        p.transmitPresent = !op.Has(kNoTransmit);
        p.sendMsg.Always(!op.Has(kSendFails));
        p.now += op.Has(kLaterPoll) ? 300 : 299;

        auto& f = p.files;
        if (op.Has(kFileVanishes)) f.content.erase(kComponentFile);
        if (op.Has(kFileAppears)) f.content[kComponentFile] = "of somebody else";
        if (op.Has(kBackupAppears)) f.content[kBackupFile] = "stale";
        if (op.Has(kMarkGarbage)) f.content[kWatermark] = "{\"items\": [";
        Toggle(f.failRename, kComponentFile, op.Has(kRenameFails));
        Toggle(f.failRemove, kBackupFile, op.Has(kRemoveBackupFails));
        Toggle(f.failRead, kWatermark, op.Has(kMarkUnreadable));
        Toggle(f.failWrite, std::string(kWatermark) + ".tmp", op.Has(kMarkTmpFails));
        Toggle(f.failRename, std::string(kWatermark) + ".tmp", op.Has(kMarkRenameFails));

        m_pri->m_legacyCpuEnabled = true;
        m_pri->m_legacyMemEnabled = true;
    }

    Lines State() {
        const auto& files = doubles::P().files.content;
        return {doubles::Format("manager=%d active=%d last=%d,%ld,%d", m_pri->m_cgroupManager != nullptr,
                                static_cast<bool>(m_pri->m_unifiedActive), m_pri->m_lastUnifiedMode,
                                static_cast<long>(m_pri->m_lastUnifiedMaxCpu), m_pri->m_lastUnifiedMaxMem),
                doubles::Format(
                    "quota=%d/%d,%d/%d legacy=%d,%d", static_cast<bool>(m_pri->m_unifiedCpuQuotaActive),
                    static_cast<int>(m_pri->m_unifiedCpuQuota100Times),
                    static_cast<bool>(m_pri->m_unifiedMemQuotaActive), static_cast<int>(m_pri->m_unifiedMemQuotaKB),
                    static_cast<bool>(m_pri->m_legacyCpuEnabled), static_cast<bool>(m_pri->m_legacyMemEnabled)),
                doubles::Format("file=%d backup=%d mark=%d lastReport=%ld", files.count(kComponentFile) != 0,
                                files.count(kBackupFile) != 0, files.count(kWatermark) != 0,
                                static_cast<long>(m_pri->m_lastRuntimeOomReportTime))};
    }
    static Lines StateOf(const Model& m) {
        return {doubles::Format("manager=%d active=%d last=%d,%ld,%d", m.manager, m.active, m.last.mode, m.last.cpu,
                                m.last.mem),
                doubles::Format("quota=%d/%d,%d/%d legacy=%d,%d", m.quotaCpu > 0, m.quotaCpu, m.quotaMem > 0,
                                m.quotaMem, m.legacyCpu, m.legacyMem),
                doubles::Format("file=%d backup=%d mark=%d lastReport=%ld", m.fileThere, m.backupThere,
                                m.mark.state != Model::Watermark::kNone, m.lastReport)};
    }

    static void Compare(std::ostream& out, const char* what, const Lines& expected, const Lines& actual) {
        if (expected == actual) return;
        out << what << " differs\n";
        for (size_t i = 0; i < std::max(expected.size(), actual.size()); ++i) {
            const std::string want = i < expected.size() ? expected[i] : "(nothing)";
            const std::string got = i < actual.size() ? actual[i] : "(nothing)";
            out << (want == got ? "    " : "  ! ") << want << "\n";
            if (want != got) out << "  > " << got << "\n";
        }
    }

    zel::CCgroupClient m_client;
    std::unique_ptr<MonitorPriProbe> m_pri;
};

/// Runs a scenario through both. Returns: the first request's differences, or nothing.
std::string Disagreement(const Scenario& scenario) {
    Model model(scenario.world);
    Module module(scenario.world);
    for (size_t i = 0; i < scenario.ops.size(); ++i) {
        const bool expected = model.Run(scenario.ops[i]);
        const bool actual = module.Run(scenario.ops[i]);
        std::string text = module.Differences(model);
        if (expected != actual) text += doubles::Format("result: model %d, module %d\n", expected, actual);
        if (!text.empty()) return doubles::Format("after request %zu:\n", i + 1) + text;
    }
    return "";
}

// ---------------------------------------------------------------------------------------------------------------
// Generators. Everything shrinks towards zero: the plain update in the kindest world.
// ---------------------------------------------------------------------------------------------------------------

/// RapidCheck narrows ranges for small sizes; only the number of requests is meant to be small here.
template <class T>
rc::Gen<T> AtFullSize(rc::Gen<T> generator) {
    return rc::gen::resize(rc::kNominalSize, std::move(generator));
}

template <class T, size_t Count>
rc::Gen<unsigned> IndexOf(const T (&)[Count]) {
    return rc::gen::inRange(0U, static_cast<unsigned>(Count));
}

/// Mostly the first entry, so that the rest of the scenario gets a chance.
template <class T>
rc::Gen<unsigned> MostlyFirst(const T& entries) {
    return rc::gen::map(rc::gen::inRange(0U, 3U * static_cast<unsigned>(std::size(entries))),
                        [&entries](unsigned n) { return n < std::size(entries) ? n : 0U; });
}

rc::Gen<uint64_t> Mishaps() {
    const auto any = rc::gen::arbitrary<uint64_t>();
    // Each a mishap with probability 1/4, 1/8 or, mostly, 1/16: long ways through the states need few of them.
    return rc::gen::map(rc::gen::tuple(any, any, any, any, rc::gen::inRange(0, 6)),
                        [](const std::tuple<uint64_t, uint64_t, uint64_t, uint64_t, int>& t) {
                            uint64_t bits = std::get<0>(t) & std::get<1>(t);
                            if (std::get<4>(t) != 5) bits &= std::get<2>(t);
                            if (std::get<4>(t) < 3) bits &= std::get<3>(t);
                            return bits;
                        });
}

rc::Gen<Op> Ops() {
    return AtFullSize(rc::gen::build<Op>(
        rc::gen::set(&Op::request, IndexOf(kRequests)), rc::gen::set(&Op::mode, IndexOf(kModes)),
        rc::gen::set(&Op::cpu, MostlyFirst(kCpuCases)), rc::gen::set(&Op::mem, MostlyFirst(kMemCases)),
        rc::gen::set(&Op::kernel, MostlyFirst(kKernelCases)), rc::gen::set(&Op::oomShape, rc::gen::inRange(0U, 4U)),
        rc::gen::set(&Op::oomLevel, rc::gen::inRange(0U, 4U)), rc::gen::set(&Op::mishaps, Mishaps())));
}

rc::Gen<bool> Seldom() {
    return rc::gen::map(rc::gen::inRange(0, 8), [](int n) { return n == 7; });
}

rc::Gen<Scenario> Scenarios() {
    const auto world = AtFullSize(rc::gen::build<World>(
        rc::gen::set(&World::component, Seldom()), rc::gen::set(&World::noCallback, Seldom()),
        rc::gen::set(&World::client, rc::gen::arbitrary<bool>()), rc::gen::set(&World::solaris, Seldom()),
        rc::gen::set(&World::cpus, IndexOf(kCpuCounts)), rc::gen::set(&World::range, MostlyFirst(kRanges)),
        rc::gen::set(&World::prefixes, MostlyFirst(kPrefixes)),
        rc::gen::set(&World::excludeRange, MostlyFirst(kExcludedRanges)),
        rc::gen::set(&World::groups, MostlyFirst(kGroupTexts)),
        rc::gen::set(&World::components, MostlyFirst(kComponentTexts))));
    return rc::gen::build<Scenario>(
        rc::gen::set(&Scenario::world, world),
        rc::gen::set(&Scenario::ops, rc::gen::resize(8, rc::gen::container<std::vector<Op>>(Ops()))));
}

}  // namespace

class UnifiedModelTest : public ::testing::TestWithParam<std::pair<const std::vector<Row>*, size_t>> {};

TEST_P(UnifiedModelTest, TheTableDecidesEveryCaseExactlyOnce) {
    const auto& rows = *GetParam().first;
    const size_t columns = GetParam().second;
    for (const Row& row : rows) EXPECT_EQ(columns, std::string(row.when).size()) << row.when;
    for (unsigned facts = 0; facts < 1U << columns; ++facts) {
        std::string matching;
        for (const Row& row : rows) {
            if (Matches(row.when, facts, columns)) matching += std::string(row.when) + " ";
        }
        EXPECT_EQ(columns + 1, matching.size()) << facts << ": " << matching;
    }
}

INSTANTIATE_TEST_SUITE_P(Tables, UnifiedModelTest,
                         ::testing::Values(std::make_pair(&kInitRows, 6), std::make_pair(&kUpdateRows, 8),
                                           std::make_pair(&kPublishRows, 6)));

TEST(UnifiedModelRandomTest, ModuleAgreesWithModelOnEverySequence) {
    constexpr long kSequences = ZEL_MODEL_SEQUENCES;
    const char* given = getenv("RC_PARAMS");
    std::string params = given != nullptr ? given : "";
    const bool ownCount = params.find("max_success") != std::string::npos;
    if (!ownCount) params += " max_success=" + std::to_string(kSequences);
    setenv("RC_PARAMS", params.c_str(), 1);

    long requests = 0;
    EXPECT_TRUE(rc::check("the module agrees with the model", [&requests] {
        const Scenario scenario = *Scenarios();
        requests += static_cast<long>(scenario.ops.size());
        const std::string disagreement = Disagreement(scenario);
        if (!disagreement.empty()) RC_FAIL(disagreement);
    }));
    long leastHits = requests;
    for (const auto* rows : {&kInitRows, &kUpdateRows, &kPublishRows}) {
        for (const Row& row : *rows) leastHits = std::min(leastHits, row.hits);
    }
    printf("%ld requests, least used row of the tables: %ld times\n", requests, leastHits);
    // A model check proves as much as it reaches.
    constexpr long kEnoughToReachEveryRow = 100000;
    if (ownCount || kSequences < kEnoughToReachEveryRow) return;
    EXPECT_GT(leastHits, 30);
}
