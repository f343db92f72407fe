// What the operations on the tree open and write, on hosts made of files. An operation that opens more than here costs
// an agent on a large host more than it did: whoever changes a figure has a reason for it.
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "FilesHost.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupPressure.h"

using namespace fileshost;

namespace {

class FilesCostTest : public FilesTree {
protected:
    void TearDown() override {
        if (child) host->Kernel().End(child->Pid());
        FilesTree::TearDown();
    }
    /// Returns: "files opened, directories opened, writes".
    std::string CostOf(const std::function<bool()>& operation, const std::string& what) {
        host->BeginCount();
        const int writes = host->Kernel().Writes();
        EXPECT_TRUE(operation()) << what;
        const auto sum = [&](bool directories) {
            int total = 0;
            for (const std::string& each : host->Opens(directories)) total += std::stoi(each.substr(each.rfind(' ')));
            return std::to_string(total);
        };
        return sum(false) + ", " + sum(true) + ", " + std::to_string(host->Kernel().Writes() - writes);
    }
    std::string Details() const {
        std::string out;
        for (const bool directories : {false, true}) {
            for (const std::string& each : host->Opens(directories)) out += "  " + each + "\n";
        }
        return out;
    }
    bool Reconcile(int percent, bool memory = true, bool cpu = true) {
        return manager->Reconcile(cpu, memory, TotalOf(percent, 524288),
                                  {GroupOf("main", 0, 0), GroupOf("greedy", 20, 51200)});
    }
    bool Write(int quota) {
        return manager->WriteComponentConfig(
            file, {QuotaOf("Tervane", "main", 0, 0), QuotaOf("Greedy", "greedy", quota, 20480)}, 4000, 524288);
    }
    bool Place() {
        std::string error;
        return zel::PlaceComponentProcess("Greedy", child->Pid(), error);
    }
    bool Keep() {
        std::vector<zel::CgroupDrift> news;
        return zel::KeepCgroupTree({{"Greedy", child->Pid()}}, news) && news.empty();
    }
    bool Poll() {
        std::vector<zel::CgroupMemoryOomEvent> events;
        return manager->PollMemoryOomEvents(events);
    }
    bool Status(bool memoryAlone) {
        zel::CgroupTreeStatus status;
        std::string error;
        return memoryAlone ? zel::ReadCgroupMemoryStatus(status, error) : zel::ReadCgroupTreeStatus(status, error);
    }

    std::vector<std::function<bool()>> StepsOf();

    std::unique_ptr<treetest::Child> child;
    zel::CCgroupFiguresReader figures;
    zel::CCgroupClient client;
};

/// Of each operation in the order of StepsOf: files and directories opened, and writes, on version 1 and on version 2.
struct Cost {
    const char* what;
    const char* v1;
    const char* v2;
};
const Cost kCosts[] = {
    {"look for the place", "4, 3, 0", "2, 3, 0"},
    {"make the groups", "26, 9, 6", "68, 11, 14"},
    {"make the leaves", "18, 13, 3", "21, 13, 3"},
    {"take the main process in", "7, 6, 1", "9, 6, 1"},
    {"the same groups", "24, 12, 0", "28, 19, 0"},
    {"the same leaves", "11, 11, 0", "15, 11, 0"},
    {"another total", "21, 9, 1", "27, 9, 1"},
    {"another leaf", "12, 11, 1", "18, 21, 1"},
    {"the total's amount", "2, 2, 0", "1, 2, 0"},
    {"a component's place", "13, 6, 1", "14, 6, 1"},
    {"the same place", "15, 9, 0", "13, 16, 0"},
    {"a round of the keeper", "26, 14, 0", "32, 14, 0"},
    {"the next round", "26, 14, 0", "0, 0, 0"},
    {"the next but one", "26, 14, 0", "0, 0, 0"},
    {"a poll", "6, 20, 0", "6, 26, 0"},
    {"a poll at rest", "5, 19, 0", "0, 0, 0"},
    {"the next poll", "5, 19, 0", "0, 0, 0"},
    {"the figures", "15, 14, 0", "13, 12, 0"},
    {"the figures again", "3, 1, 0", "3, 1, 0"},
    {"the status", "56, 20, 0", "35, 9, 0"},
    {"of memory alone", "25, 9, 0", "20, 9, 0"},
    {"the pressure's files", "1, 9, 0", "1, 9, 0"},
    {"the components' places", "1, 9, 0", "1, 9, 0"},
    {"who is no component", "5, 6, 1", "6, 6, 1"},
    {"memory off", "41, 22, 6", "39, 25, 6"},
    {"memory on", "38, 20, 8", "58, 40, 8"},
    {"the main process out", "6, 5, 1", "4, 12, 1"},
    {"switched off", "45, 24, 9", "36, 20, 9"},
    {"somebody is in it still", "7, 9, 0", "5, 9, 0"},
    {"nobody is in it any more", "14, 22, 0", "12, 22, 0"},
    {"nothing to look after", "0, 0, 0", "0, 0, 0"},
    {"made anew", "44, 22, 9", "79, 22, 15"},
    {"the end", "9, 13, 0", "7, 13, 0"},
};

/// One after the other, from a host without a tree to one without it again.
std::vector<std::function<bool()>> FilesCostTest::StepsOf() {
    const auto readFigures = [this] { return !figures.Read(true).empty(); };
    const auto readPlaces = [] {
        zel::ComponentPlaces places;
        std::string error;
        return zel::ReadComponentPlaces(places, error);
    };
    return {
        [this] { return manager->EnsureInitialized(); },
        [this] { return Reconcile(40); },
        [this] { return Write(500); },
        [this] { return manager->AddPidToGroup("main", getpid()); },
        [this] { return Reconcile(40); },
        [this] { return Write(500); },
        [this] { return Reconcile(50); },
        [this] { return Write(600); },
        [this] { return manager->GetParentCpuLimit100Times() == 5000; },
        [this] { return Place(); },
        [this] { return Place(); },
        [this] { return Keep(); },
        [this] { return Keep(); },
        [this] { return Keep(); },
        [this] { return Poll(); },
        [this] { return Poll(); },
        [this] { return Poll(); },
        readFigures,
        readFigures,
        [this] { return Status(false); },
        [this] { return Status(true); },
        [] { return zel::FindCgroupPressure().whole; },
        readPlaces,
        [this] { return client.ReloadConfig(); },
        [this] { return Reconcile(50, false); },
        [this] { return Reconcile(50, true) && Write(500); },
        [this] { return manager->RemovePidFromGroup("main", getpid()); },
        [this] { return Reconcile(0, false, false) && manager->WriteDisabledConfig(file); },
        [this] { return Keep(); },
        [this] {
            host->Kernel().End(child->Pid());
            return Keep();
        },
        [this] { return Keep(); },
        [this] { return Reconcile(40) && Write(500); },
        [] {
            std::string error;
            return zel::RemoveAgentCgroupTree(error);
        },
    };
}

TEST_F(FilesCostTest, EachOperationOpensAndWritesWhatItNeeds) {
    for (const Where& where : {kEverywhere[0], kEverywhere[1]}) {
        Begin(where.version);
        child = Bear("");
        zel::SetCgroupClientComponent("Greedy");
        FilesHost::PutProc("/proc/vmstat", "oom_kill 0\n");  // what else happens on the machine is no matter here
        const std::vector<std::function<bool()>> steps = StepsOf();
        ASSERT_EQ(std::size(kCosts), steps.size());
        for (size_t i = 0; i < steps.size(); ++i) {
            const std::string cost = CostOf(steps[i], kCosts[i].what);
            EXPECT_EQ(where.version == Version::kV2 ? kCosts[i].v2 : kCosts[i].v1, cost)
                << kCosts[i].what << " on " << where.Text() << "\n"
                << Details();
        }
        host->Kernel().End(child->Pid());
        child.reset();
        End();
    }
}

}  // namespace
