// Every operation of the platform that can fail does so at every one of its calls, alone and in pairs, through a start,
// five updates and a stop. Whatever fails: no controller has two owners, the module says what is so, nothing is left
// open, files are old or new, a failure is said once, and the next run is whole.
#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <random>

#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"
#include "support/Files.h"
#include "support/MonitorFixture.h"
#include "sweep/FaultyWorld.h"

namespace {

using sweep::Failure;
using sweep::Fault;
using sweep::FaultyWorld;

constexpr int kCpu = zel::kModeCpu;
constexpr int kMem = zel::kModeMemory;
constexpr int kUnified = zel::kModeUnified;

constexpr const char* kComponentFile = "/opt/agent/home/conf/cgroup_resource.json";
constexpr const char* kWatermark = "/opt/agent/home/conf/cgroup_oom_watermark.json";

/// Beyond the ten minutes of the CPU limit and the twelve hours of the memory limit before they are tried again.
constexpr time_t kLater = 13 * 3600;

struct Scenario {
    const char* name;
    bool isMain;
    bool version2;
    bool leftover;  // a component file of an earlier run lies there
    bool solaris;
    int modes[6];  // of the start and of five updates
    int maxCpu[6];
};

const Scenario kScenarios[] = {
    {"unified", true, false, false, false, {13, 13, 13, 12, 9, 13}, {10, 20, 10, 10, 10, 20}},
    {"unified on version 2", true, true, false, false, {13, 9, 12, 8, 13, 13}, {10, 20, 10, 10, 10, 20}},
    {"legacy", true, false, false, false, {5, 5, 5, 4, 1, 5}, {10, 20, 20, 10, 10, 10}},
    {"switched", true, false, false, false, {13, 5, 13, 8, 5, 13}, {10, 20, 20, 10, 10, 10}},
    {"switched on version 2", true, true, false, true, {5, 13, 5, 9, 4, 13}, {10, 10, 20, 10, 10, 10}},
    {"after a run that was cut", true, false, true, false, {5, 13, 0, 13, 1, 12}, {10, 10, 20, 10, 10, 10}},
    {"a component", false, false, false, false, {13, 13, 5, 13, 9, 5}, {10, 20, 20, 10, 10, 10}},
    {"a component on version 2", false, true, false, false, {5, 13, 13, 5, 13, 13}, {10, 20, 20, 10, 10, 10}},
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
    return out << scenario.name;
}

void Broadcast(const std::string&, const std::string&) {}

/// One life of the module on the world that is there.
class Life {
public:
    Life(const Scenario& scenario, FaultyWorld& world, const std::string& directory)
        : m_scenario(scenario), m_world(world), m_directory(directory) {
        m_conf.osAbnormalSwitch.Set(1);
        m_pri.m_ipcBroadcastCallback = Broadcast;
        if (!scenario.isMain) m_pri.m_cgroupClient = &m_client;
    }
    ~Life() {
        m_world.joined = false;
        doubles::ForgetOnlineConf();
    }
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;

    bool Start() {
        m_mode = m_scenario.modes[0];
        const std::string path = m_directory + "/" + std::to_string(m_mode) + (m_scenario.solaris ? "s" : "");
        if (!support::Exists(path)) {
            std::ofstream(path) << "max_cpu=10\nmax_memory=200\nresource_limit_mode=" << m_mode
                                << "\nmem_limit_kernel_range=4.9.0-0,6.9.9-99\ncpu_all=" << m_scenario.solaris << "\n";
        }
        doubles::P().files.alsoFiles.insert(path);
        m_pri.SetConfigPath(path);
        TheMainProcessDid();
        return m_pri.StartMonitor(nullptr, m_scenario.isMain ? "tervane" : "QorHips");
    }
    void Update(int mode, int maxCpu) {
        m_mode = mode;
        m_conf.resourceLimitMode.Set(mode);
        m_conf.maxCpu.Set(maxCpu);
        m_conf.groupMaxCpu.Set(maxCpu);
        TheMainProcessDid();
        m_pri.OnUpdate();
        if (!m_scenario.isMain) m_pri.ReloadCgroupClientConfig();
        Round();
    }
    void Stop() { m_pri.StopMonitor(); }

    /// One controller, two owners; empty: no.
    std::string OwnedTwice() {
        const bool unified = m_scenario.isMain ? static_cast<bool>(m_pri.m_unifiedActive) : m_world.joined;
        const bool cpu = unified && (m_world.unifiedCpu || m_world.joined);
        const bool mem = unified && (m_world.unifiedMem || m_world.joined);
        std::string twice;
        if (cpu && (m_world.legacyCpu || m_pri.m_resourceLimited)) twice += " cpu";
        if (mem && (m_world.legacyMem || m_pri.m_legacyMemLimited)) twice += " memory";
        return twice;
    }

    /// What the module believes and is not so; empty: nothing.
    std::string Believes() {
        std::string wrong;
        const auto check = [&wrong](const char* what, bool believed, bool is) {
            if (believed != is) wrong += std::string(" ") + what + (is ? " is" : " is not");
        };
        check("the CPU limit", m_pri.m_resourceLimited, m_world.legacyCpu);
        check("the memory limit", m_pri.m_legacyMemLimited, m_world.legacyMem);
        if (!m_scenario.isMain) return wrong;
        const bool active = m_pri.m_unifiedActive;
        check("the unified mode", active, (m_mode & kUnified) != 0);
        check("the CPU quota", m_pri.m_unifiedCpuQuotaActive, active && m_world.unifiedCpu);
        check("the memory quota", m_pri.m_unifiedMemQuotaActive, active && m_world.unifiedMem);
        const bool limits = active && (m_world.unifiedCpu || m_world.unifiedMem);
        check("the place in the main group", limits, limits && m_world.inMainGroup);
        const auto& files = doubles::P().files.content;
        const auto file = files.find(kComponentFile);
        const std::string text = file == files.end() ? "" : file->second;
        check("the component file", text == "component config", limits);
        check("the disabled component file", text == "disabled config", active && !limits);
        return wrong;
    }

    /// What was asked for and is not so; empty: nothing.
    std::string Missing(bool unifiedOnly = false) {
        std::string missing;
        const bool cpu = (m_mode & kCpu) != 0;
        const bool mem = (m_mode & kMem) != 0;
        const bool unified = m_scenario.isMain ? (m_mode & kUnified) != 0 : m_world.joined;
        const auto want = [&missing](const char* what, bool wanted, bool is) {
            if (wanted != is) missing += std::string(wanted ? " no " : " still ") + what;
        };
        if (m_scenario.isMain) {
            want("unified CPU", unified && cpu, m_pri.m_unifiedActive && m_world.unifiedCpu);
            want("unified memory", unified && mem, m_pri.m_unifiedActive && m_world.unifiedMem);
        }
        if (unifiedOnly) return missing;
        want("legacy CPU", cpu && !unified, m_world.legacyCpu);
        want("legacy memory", mem && !unified, m_world.legacyMem);
        return missing;
    }

private:
    /// A component's file is written by another process.
    void TheMainProcessDid() {
        if (m_scenario.isMain) return;
        auto& files = doubles::P().files.content;
        files.erase(kComponentFile);
        if ((m_mode & kUnified) != 0) files[kComponentFile] = "component config";
    }
    /// A quarter of a minute of rounds, with a kill in the main group in it and a host that is short of memory.
    void Round() {
        ++m_rounds;
        doubles::P().now += 1000;
        zel::CgroupMemoryOomEvent event;
        event.group = "main";
        event.path = "/zel/main";
        event.oom_kill = m_rounds;
        event.oom_kill_delta = 1;
        doubles::P().manager.poll.Always({}).Then({event});
        doubles::P().manager.snapshot.Always({event});
        m_pri.MonitorOther(60);
        std::map<std::string, std::string> figures;
        m_pri.GetExceptionInfo(figures);
        m_pri.timeEvent(9001);
        if (m_scenario.isMain) m_pri.m_osAbnormalMonitor.CheckOsAbnormal(static_cast<unsigned long>(m_rounds) * 21600);
    }

    const Scenario& m_scenario;
    FaultyWorld& m_world;
    const std::string& m_directory;
    int m_mode = 0;
    int m_rounds = 0;
    COnlineClientConf m_conf;
    zel::CCgroupClient m_client;
    MonitorPriProbe m_pri;
};

/// Log lines at level 3 and above, as text.
std::vector<std::string> Complaints(size_t from) {
    std::vector<std::string> all;
    const auto& logs = doubles::P().logs;
    for (size_t i = from; i < logs.size(); ++i) {
        if (logs[i].level <= 3) all.push_back(logs[i].text);
    }
    return all;
}

/// How a failure is said: one line with one of these texts, in the step in which it happens. An operation that is not
/// here is silent: its result is not looked at, or stands in the statistics (a limit that is not lifted), or the next
/// round does it again (a reading, a message that the delivery refuses).
const std::map<std::string, std::vector<std::string>> kSaid = {
    {"CCgroupManager::AddPidToGroup", {"init active failed (pid=0 write=0)", "add main pid failed during update"}},
    {"CCgroupManager::WriteComponentConfig", {"init active failed (pid=1 write=0)", "write cgroup config failed"}},
    {"CCgroupManager::WriteDisabledConfig", {"WriteDisabledConfig failed", "failed to publish unified exit config"}},
    {"CCgroupManager::PollMemoryOomEvents", {"poll multi-cgroup memory OOM events failed"}},
    {"CResourceMonitor::FetchResourceMonitorInfo", {"FetchResourceMonitorInfo fail"}},
    {"CThreadUtil::startThread", {"start os os abnormal monitor fail"}},
    {"CTimerEvent::startTimer", {"start timer fail for monitor timer"}},
    {"CToolUtil::GetSelfDiskFreeSpace", {"get disk free space fail"}},
    {"IResourceLimitUtil::PrepareMemLimit", {"mem limit fail ["}},
    {"IResourceLimitUtil::StartMemLimit", {"mem limit fail ["}},
    {"IResourceLimitUtil::StartCpuLimit", {"limit cpu fail, error is"}},
    {"ISqliteDB::Compile", {"compile os abnormal sql fail"}},
    {"ISqliteStatement::BindInt", {"insert os abnormal value fail"}},
    {"ISqliteStatement::BindString", {"insert os abnormal value fail"}},
    {"ISqliteStatement::Step", {"insert os abnormal value fail"}},
    {"GetSqliteDB", {"save obnormal event to db fail when open db"}},
    {"ISqliteDB::Execute", {"save obnormal event to db fail when open db"}},
};
/// The same where only some uses of the operation are told: a reconcile that keeps a part at the first application is
/// seen in the settings that are not remembered, the store of kills is written again by the next look, a store of
/// another day goes without a word when there is none.
const std::map<std::string, std::vector<std::string>> kSometimesSaid = {
    {"CCgroupManager::Reconcile",
     {"active desired but reconcile all failed", "Reconcile(false,false) failed", "init parent clear failed",
      "parent clear failed during update", "reconcile partial failure"}},
    {"CCgroupManager::SnapshotSelfMemoryOomCounters", {"snapshot self cgroup OOM counters failed"}},
    {"CFileCom::rename", {"OOM watermark failed", "failed to move cgroup config"}},
    {"CFileUtil::IsFile", {"ParseMonitorConfig Fail"}},
    {"CFileUtil::RemoveFile", {"failed to remove unified config backup", "remove /opt/agent/home/last_os_abnormal.db"}},
    {"CFileUtil::WriteNewFile", {"OOM watermark failed"}},
    {"IMsgTransmit::SendMsg",
     {"report cgroup OOM after restart event failed", "report runtime cgroup OOM event failed"}},
    {"IResourceLimitUtil::StopCpuLimit", {"uninstall legacy cpu cgroup failed"}},
    {"IResourceLimitUtil::StopMemLimit", {"uninstall legacy mem cgroup failed"}},
    {"uname", {"mem limit fail [10 - 0]"}},
};
/// Lines that follow from a failure that has its own, and lines that tell of no failure.
const char* const kBesides[] = {
    "cgroup memory OOM after restart group",  // kills
    "cgroup v1 memory OOM group",
    "failed to publish unified exit config",                // without a manager to disable the file
    "write cgroup config failed during update, restoring",  // said of a parent that cannot be cleared, too
    "open os abnormal db fail",                             // the reason of the one that counts
};

bool HasOne(const std::string& line, const std::vector<std::string>& texts) {
    return std::any_of(texts.begin(), texts.end(),
                       [&line](const std::string& text) { return line.find(text) != std::string::npos; });
}

/// What is wrong with the words about one failed operation; empty: nothing.
std::string WronglySaid(const std::string& operation, const std::vector<std::string>& lines) {
    const auto always = kSaid.find(operation);
    const auto sometimes = kSometimesSaid.find(operation);
    const std::vector<std::string> texts = always != kSaid.end()               ? always->second
                                           : sometimes != kSometimesSaid.end() ? sometimes->second
                                                                               : std::vector<std::string>();
    int said = 0;
    for (const std::string& line : lines) {
        if (HasOne(line, texts)) {
            ++said;
        } else if (!HasOne(line, {std::begin(kBesides), std::end(kBesides)})) {
            return "unexpected: " + line;
        }
    }
    if (said > 1) return "said " + std::to_string(said) + " times";
    return said == 0 && always != kSaid.end() ? "not said" : "";
}

class ModuleFaultsTest : public ::testing::TestWithParam<Scenario> {
protected:
    struct Outcome {
        int calls = 0;
        std::string wrong;                    // empty: every invariant held
        std::vector<std::string> complaints;  // of the steps in which something failed
        std::vector<std::string> failed;
    };

    void TearDown() override {
        doubles::ResetPlatform();
        doubles::ForgetOnlineConf();
    }

    static const std::string& Directory() {
        static const support::TempDir directory;
        return directory.Path();
    }

    /// The whole scenario with these faults, then a life without any on what it left.
    Outcome Run(const std::vector<Fault>& faults) {
        doubles::ResetPlatform();
        auto& platform = doubles::P();
        platform.keepInJournal = [](const std::string&) { return false; };
        const Scenario& scenario = GetParam();
        if (scenario.leftover) platform.files.content[kComponentFile] = "component config";
        FaultyWorld world(scenario.version2);
        world.Attach();
        world.FailAt(faults);
        Outcome outcome;
        Faulty(scenario, world, outcome);
        outcome.calls = world.Calls();
        outcome.failed = world.Failed();
        Note(outcome, "left open: ", world.Left());
        if (outcome.wrong.empty()) Whole(scenario, world, outcome);
        return outcome;
    }

    static void Note(Outcome& outcome, const std::string& what, const std::string& wrong) {
        if (outcome.wrong.empty() && !wrong.empty()) outcome.wrong = what + wrong;
    }

    void Faulty(const Scenario& scenario, FaultyWorld& world, Outcome& outcome) {
        Life life(scenario, world, Directory());
        size_t failed = 0;
        size_t logged = 0;
        const auto after = [&](const std::string& step) {
            Note(outcome, "after " + step + " two owners:", life.OwnedTwice());
            Note(outcome, "after " + step + " ", FilesTorn());
            if (world.Failed().size() != failed) {
                const std::vector<std::string> said = Complaints(logged);
                outcome.complaints.insert(outcome.complaints.end(), said.begin(), said.end());
            } else if (step.find("update") == 0) {
                const std::string wrong = life.Believes();
                if (wrong != " the memory limit is" || !IsNotTriedAgain(world)) {
                    Note(outcome, step + " leaves wrong beliefs:", wrong);
                }
                Note(outcome, "after " + step + ":", life.Missing(true));
            }
            failed = world.Failed().size();
            logged = doubles::P().logs.size();
        };
        const bool started = life.Start();
        after("the start");
        for (int i = 1; i < 6 && started; ++i) {
            life.Update(scenario.modes[i], scenario.maxCpu[i]);
            after("update " + std::to_string(i));
        }
        if (started) Settle(scenario, life, world, outcome);
        life.Stop();
        after("the stop");
    }

    /// The next update, when everything may be tried again and nothing fails.
    void Settle(const Scenario& scenario, Life& life, FaultyWorld& world, Outcome& outcome) {
        world.Hold(true);
        doubles::P().now += kLater;
        life.Update(scenario.modes[5], scenario.maxCpu[5]);
        Note(outcome, "the next update leaves wrong beliefs:", life.Believes());
        if (!MayStay(world)) Note(outcome, "after the next update:", life.Missing());
        world.Hold(false);
    }

    /// A legacy limit that could not be lifted is not tried again while the settings stay the same: it is remembered
    /// as in force, reported as such, and lifted by the next change. So it may outlive the next update.
    static bool MayStay(const FaultyWorld& world) {
        const auto& failed = world.Failed();
        return std::any_of(failed.begin(), failed.end(), [](const std::string& name) {
            return name == "IResourceLimitUtil::StopCpuLimit" || name == "IResourceLimitUtil::StopMemLimit";
        });
    }

    /// A legacy memory limit that could not be written is not tried for half a day. What stands there although its
    /// writing was reported as failed is found by then, which is when the life settles.
    static bool IsNotTriedAgain(const FaultyWorld& world) {
        const auto& failed = world.Failed();
        return std::any_of(failed.begin(), failed.end(), [](const std::string& name) {
            return name == "IResourceLimitUtil::PrepareMemLimit" || name == "IResourceLimitUtil::StartMemLimit";
        });
    }

    /// What the run left must not hinder the next one.
    void Whole(const Scenario& scenario, FaultyWorld& world, Outcome& outcome) {
        world.FailAt({});
        world.unifiedCpu = world.unifiedMem = world.legacyCpu = world.legacyMem = world.inMainGroup = false;
        doubles::P().now += kLater;
        Life life(scenario, world, Directory());
        if (!life.Start()) return Note(outcome, "the next run: ", "no start");
        life.Update(scenario.modes[5], scenario.maxCpu[5]);
        Note(outcome, "the next run believes wrongly:", life.Believes());
        Note(outcome, "the next run:", life.Missing());
        life.Stop();
    }

    /// Files that hold state are old or new.
    static std::string FilesTorn() {
        const auto& files = doubles::P().files.content;
        const auto mark = files.find(kWatermark);
        Json::Value root;
        if (mark != files.end() && !Json::Reader().parse(mark->second, root)) return "a torn watermark file";
        return "";
    }

    static std::string Show(const std::vector<Fault>& faults, const Outcome& outcome) {
        std::string text = GetParam().name;
        for (const Fault& fault : faults) {
            text += ", call " + std::to_string(fault.call) + (fault.how == Failure::kHalf ? " by half" : "");
        }
        for (const std::string& name : outcome.failed) text += ", " + name;
        for (const std::string& line : outcome.complaints) text += "\n  said: " + line;
        return text;
    }
};

/// Pairs are many: a sample in every run, all of them where that is asked for.
int PairsWanted() {
    const char* given = std::getenv("ZEL_SWEEP_PAIRS");
    if (given == nullptr) return 300;
    return std::string(given) == "all" ? -1 : std::atoi(given);
}

}  // namespace

TEST_P(ModuleFaultsTest, OneFaultAtEveryCall) {
    const Outcome clean = Run({});
    ASSERT_EQ("", clean.wrong) << GetParam().name;
    int runs = 1;
    for (int call = 1; call <= clean.calls; ++call) {
        for (const Failure how : {Failure::kWhole, Failure::kHalf}) {
            const std::vector<Fault> faults = {{call, how}};
            const Outcome outcome = Run(faults);
            ++runs;
            ASSERT_EQ(1u, outcome.failed.size());
            EXPECT_EQ("", outcome.wrong) << Show(faults, outcome);
            EXPECT_EQ("", WronglySaid(outcome.failed[0], outcome.complaints)) << Show(faults, outcome);
        }
    }
    printf("%s: %d runs with one fault, %d calls\n", GetParam().name, runs, clean.calls);
}

TEST_P(ModuleFaultsTest, TwoFaults) {
    const char* given = std::getenv("ZEL_SWEEP_SEED");
    const auto seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::mt19937 random(seed);
    const int calls = Run({}).calls;
    const int wanted = PairsWanted();
    int runs = 0;
    const auto run = [&](int first, int second, int kinds) {
        const std::vector<Fault> faults = {{first, (kinds & 1) != 0 ? Failure::kHalf : Failure::kWhole},
                                           {second, (kinds & 2) != 0 ? Failure::kHalf : Failure::kWhole}};
        const Outcome outcome = Run(faults);
        ++runs;
        EXPECT_EQ("", outcome.wrong) << Show(faults, outcome);
        return outcome.calls;
    };
    if (wanted >= 0) {
        for (int i = 0; i < wanted && !HasFailure(); ++i) {
            const int first = 1 + static_cast<int>(random() % static_cast<unsigned>(calls));
            run(first, first + 1 + static_cast<int>(random() % static_cast<unsigned>(calls - first + 20)),
                static_cast<int>(random() % 4));
        }
    } else {
        for (int first = 1; first <= calls && !HasFailure(); ++first) {
            int last = calls;
            for (int second = first + 1; second <= last; ++second) {
                for (int kinds = 0; kinds < 4; ++kinds) last = std::max(last, run(first, second, kinds));
            }
        }
    }
    printf("%s: %d runs with two faults, seed %u (ZEL_SWEEP_SEED repeats it)\n", GetParam().name, runs, seed);
}

INSTANTIATE_TEST_SUITE_P(Lives, ModuleFaultsTest, ::testing::ValuesIn(kScenarios),
                         [](const auto& life) { return "Life" + std::to_string(life.index); });
