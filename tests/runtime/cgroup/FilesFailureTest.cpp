// Opens and reads that fail for a moment, one after the other, on hosts made of files: what is in force stays, nothing
// is told to be in order that was not looked at, and the next time all is well.
#include <cerrno>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "FilesHost.h"
#include "platform/zel/CgroupPressure.h"
#include "support/Faults.h"

using namespace fileshost;

namespace {

constexpr int kMostCalls = 400;

class FilesFailureTest : public FilesTree {
protected:
    /// `operation` with its n-th call failing, for each n that it has. Nothing differs from what is wanted, so nothing
    /// is written, but that this process is put where it is. Returns: "refused of all" for opens and for reads.
    std::string FailEach(const std::function<bool()>& operation) {
        std::string out;
        const std::string allowed = Tree() + "/main/Tervane/cgroup.procs=" + std::to_string(getpid());
        for (const auto& [call, error] : {std::pair(faults::Call::kOpenat, EMFILE), {faults::Call::kRead, EIO}}) {
            int refused = 0;
            int n = 1;
            for (; n < kMostCalls; ++n) {
                EXPECT_TRUE(operation());
                host->Kernel().TakeJournal();
                {
                    const faults::Failing failing(call, error, n);
                    const bool done = operation();
                    if (failing.Calls() < n) break;
                    refused += done ? 0 : 1;
                }
                for (const std::string& each : host->Kernel().TakeJournal()) EXPECT_EQ(allowed, each) << n;
            }
            out += (out.empty() ? "" : ", ") + std::to_string(refused) + " of " + std::to_string(n - 1);
        }
        return out;
    }
    std::vector<std::function<bool()>> Operations();
    bool Reconcile() {
        return manager->Reconcile(true, true, TotalOf(40, 524288),
                                  {GroupOf("main", 0, 0), GroupOf("greedy", 20, 51200)});
    }
    bool Write() {
        return manager->WriteComponentConfig(
            file, {QuotaOf("Tervane", "main", 0, 0), QuotaOf("Greedy", "greedy", 500, 20480)}, 4000, 524288);
    }
};

/// Of opens and of reads, on version 1 and on version 2.
struct Refusals {
    const char* what;
    const char* v1;
    const char* v2;
};
const Refusals kRefusals[] = {
    {"the same groups", "34 of 35, 20 of 25", "39 of 40, 26 of 31"},
    {"the same leaves", "22 of 50, 8 of 28", "26 of 51, 12 of 30"},
    {"a poll", "13 of 24, 5 of 8", "7 of 21, 3 of 6"},
    {"the main process goes in", "3 of 5, 0 of 6", "6 of 8, 3 of 9"},
    {"a component's place", "0 of 1, 0 of 4", "0 of 1, 0 of 4"},
    {"the components' places", "11 of 12, 2 of 5", "11 of 12, 2 of 5"},
    {"the pressure's files", "11 of 12, 2 of 5", "11 of 12, 2 of 5"},
    {"the status", "2 of 84, 0 of 62", "2 of 54, 0 of 38"},
};

std::vector<std::function<bool()>> FilesFailureTest::Operations() {
    return {
        [this] { return Reconcile(); },
        [this] { return Write(); },
        [this] {
            std::vector<zel::CgroupMemoryOomEvent> events;
            return manager->PollMemoryOomEvents(events) && events.empty();
        },
        [this] { return manager->AddPidToGroup("main", getpid()); },
        [] {
            std::string error;
            return zel::PlaceComponentProcess("Tervane", getpid(), error);
        },
        [] {
            std::string error;
            zel::ComponentPlaces places;
            return zel::ReadComponentPlaces(places, error) && places.directories.size() == 2 &&
                   !places.directories["Greedy"].empty() && !places.directories["Tervane"].empty();
        },
        [] { return zel::FindCgroupPressure().whole; },
        [] {
            zel::CgroupTreeStatus status;
            std::string error;
            return zel::ReadCgroupTreeStatus(status, error);
        },
    };
}

TEST_F(FilesFailureTest, WhatIsUnreadIsNeitherWrittenNorInOrder) {
    for (const Where& where : {kEverywhere[0], kEverywhere[1]}) {
        Publish(where.version, where.mountRoot);
        FilesHost::PutProc("/proc/vmstat", "nr_x 0\n");
        ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
        const std::vector<std::function<bool()>> operations = Operations();
        ASSERT_EQ(std::size(kRefusals), operations.size());
        for (size_t i = 0; i < operations.size(); ++i) {
            SCOPED_TRACE(std::string(kRefusals[i].what) + " on " + where.Text());
            EXPECT_EQ(where.version == Version::kV2 ? kRefusals[i].v2 : kRefusals[i].v1, FailEach(operations[i]));
        }
        ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
        End();
    }
}

}  // namespace
