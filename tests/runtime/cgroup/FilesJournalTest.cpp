// What the operations on the tree write, make and remove, and in which order, on hosts made of files: a limit that
// grows is written from the top, one that shrinks from below, and nobody goes where there is no limit yet.
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "FilesHost.h"

using namespace fileshost;

namespace {

/// What happens in an operation, on version 1 and on version 2; "/T" is the tree, PID this process.
struct Journal {
    const char* what;
    const char* v1;
    const char* v2;
};

const Journal kJournals[] = {
    {"the groups are made",
     "+/T\n"
     "+/T/main\n"
     "+/T/greedy\n"
     "/T/greedy/cpu.cfs_quota_us=20000\n"
     "/T/cpu.cfs_quota_us=40000\n"
     "/T/greedy/memory.limit_in_bytes=52428800\n"
     "/T/greedy/memory.memsw.limit_in_bytes=52432896\n"
     "/T/memory.limit_in_bytes=536870912\n"
     "/T/memory.memsw.limit_in_bytes=536875008\n",
     "/cgroup.subtree_control=+cpu\n"
     "/cgroup.subtree_control=+memory\n"
     "+/T\n"
     "/T/cgroup.subtree_control=+cpu\n"
     "/T/cgroup.subtree_control=+memory\n"
     "+/T/main\n"
     "/T/main/cgroup.subtree_control=+cpu\n"
     "/T/main/cgroup.subtree_control=+memory\n"
     "+/T/greedy\n"
     "/T/greedy/cgroup.subtree_control=+cpu\n"
     "/T/greedy/cgroup.subtree_control=+memory\n"
     "/T/greedy/cpu.max=20000 100000\n"
     "/T/cpu.max=40000 100000\n"
     "/T/greedy/memory.swap.max=0\n"
     "/T/greedy/memory.max=52428800\n"
     "/T/memory.swap.max=0\n"
     "/T/memory.max=536870912\n"},
    {"their leaves",
     "+/T/main/Tervane\n"
     "+/T/greedy/Greedy\n"
     "/T/greedy/Greedy/cpu.cfs_quota_us=5000\n"
     "/T/greedy/Greedy/memory.limit_in_bytes=20971520\n"
     "/T/greedy/Greedy/memory.memsw.limit_in_bytes=20975616\n",
     "+/T/main/Tervane\n"
     "+/T/greedy/Greedy\n"
     "/T/greedy/Greedy/cpu.max=5000 100000\n"
     "/T/greedy/Greedy/memory.swap.max=0\n"
     "/T/greedy/Greedy/memory.max=20971520\n"},
    {"the main process goes in", "/T/main/Tervane/cgroup.procs=PID\n", "/T/main/Tervane/cgroup.procs=PID\n"},
    {"smaller limits",
     "/T/greedy/cpu.cfs_quota_us=5000\n"
     "/T/cpu.cfs_quota_us=10000\n"
     "/T/greedy/memory.limit_in_bytes=26214400\n"
     "/T/greedy/memory.memsw.limit_in_bytes=26218496\n"
     "/T/memory.limit_in_bytes=268435456\n"
     "/T/memory.memsw.limit_in_bytes=268439552\n",
     "/T/greedy/cpu.max=5000 100000\n"
     "/T/cpu.max=10000 100000\n"
     "/T/greedy/memory.max=26214400\n"
     "/T/memory.max=268435456\n"},
    {"and leaves",
     "/T/greedy/Greedy/cpu.cfs_quota_us=2000\n"
     "/T/greedy/Greedy/memory.limit_in_bytes=10485760\n"
     "/T/greedy/Greedy/memory.memsw.limit_in_bytes=10489856\n",
     "/T/greedy/Greedy/cpu.max=2000 100000\n"
     "/T/greedy/Greedy/memory.max=10485760\n"},
    {"greater limits",
     "/T/cpu.cfs_quota_us=80000\n"
     "/T/greedy/cpu.cfs_quota_us=40000\n"
     "/T/memory.memsw.limit_in_bytes=1073745920\n"
     "/T/memory.limit_in_bytes=1073741824\n"
     "/T/greedy/memory.memsw.limit_in_bytes=104861696\n"
     "/T/greedy/memory.limit_in_bytes=104857600\n",
     "/T/cpu.max=80000 100000\n"
     "/T/greedy/cpu.max=40000 100000\n"
     "/T/memory.max=1073741824\n"
     "/T/greedy/memory.max=104857600\n"},
    {"and greater leaves",
     "/T/greedy/Greedy/cpu.cfs_quota_us=20000\n"
     "/T/greedy/Greedy/memory.memsw.limit_in_bytes=41947136\n"
     "/T/greedy/Greedy/memory.limit_in_bytes=41943040\n",
     "/T/greedy/Greedy/cpu.max=20000 100000\n"
     "/T/greedy/Greedy/memory.max=41943040\n"},
    {"memory is off, and a group is another",
     "+/T/other\n"
     "/T/other/cpu.cfs_quota_us=40000\n"
     "/T/memory.memsw.limit_in_bytes=-1\n"
     "/T/memory.limit_in_bytes=-1\n"
     "/T/greedy/memory.memsw.limit_in_bytes=-1\n"
     "/T/greedy/memory.limit_in_bytes=-1\n"
     "/T/greedy/Greedy/memory.memsw.limit_in_bytes=-1\n"
     "/T/greedy/Greedy/memory.limit_in_bytes=-1\n"
     "-/T/greedy/Greedy\n"
     "-/T/greedy\n",
     "+/T/other\n"
     "/T/other/cgroup.subtree_control=+cpu\n"
     "/T/other/cpu.max=40000 100000\n"
     "/T/memory.swap.max=max\n"
     "/T/memory.max=max\n"
     "/T/greedy/memory.swap.max=max\n"
     "/T/greedy/memory.max=max\n"
     "/T/greedy/Greedy/memory.swap.max=max\n"
     "/T/greedy/Greedy/memory.max=max\n"
     "-/T/greedy/Greedy\n"
     "-/T/greedy\n"},
    {"with its leaf",
     "+/T/other/Other\n"
     "/T/other/Other/cpu.cfs_quota_us=20000\n",
     "+/T/other/Other\n"
     "/T/other/Other/cpu.max=20000 100000\n"},
    {"a poll", "", ""},
    {"the main process goes out", "/cgroup.procs=PID\n", "/cgroup.procs=PID\n"},
    {"both are off",
     "/T/cpu.cfs_quota_us=-1\n"
     "/T/other/cpu.cfs_quota_us=-1\n"
     "/T/other/Other/cpu.cfs_quota_us=-1\n"
     "-/T/other/Other\n"
     "-/T/other\n",
     "/T/cpu.max=max\n"
     "/T/other/cpu.max=max\n"
     "/T/other/Other/cpu.max=max\n"
     "-/T/other/Other\n"
     "-/T/other\n"},
};

const char* const kEnd =
    "-/T/greedy/Greedy\n"
    "-/T/greedy\n"
    "/cgroup.procs=PID\n"
    "-/T/main/Tervane\n"
    "-/T/main\n"
    "-/T\n";

class FilesJournalTest : public FilesTree {
protected:
    std::string TakeJournal() {
        std::string out;
        const std::string pid = "procs=" + std::to_string(getpid());
        for (std::string each : host->Kernel().TakeJournal()) {
            for (size_t at = 0; (at = each.find(Tree())) != std::string::npos;) each.replace(at, Tree().size(), "/T");
            const size_t at = each.find(pid);
            if (at != std::string::npos) each.replace(at, pid.size(), "procs=PID");
            out += each + "\n";
        }
        return out;
    }
    bool Reconcile(int total, int totalKb, int percent, int kb) {
        return manager->Reconcile(true, true, TotalOf(total, totalKb),
                                  {GroupOf("main", 0, 0), GroupOf("greedy", percent, kb)});
    }
    bool Write(int quota, int quotaKb, int total, int totalKb) {
        return manager->WriteComponentConfig(
            file, {QuotaOf("Tervane", "main", 0, 0), QuotaOf("Greedy", "greedy", quota, quotaKb)}, total, totalKb);
    }
    std::vector<std::function<bool()>> Steps() {
        return {
            [this] { return Reconcile(40, 524288, 20, 51200); },
            [this] { return Write(500, 20480, 4000, 524288); },
            [this] { return manager->AddPidToGroup("main", getpid()); },
            [this] { return Reconcile(10, 262144, 5, 25600); },
            [this] { return Write(200, 10240, 1000, 262144); },
            [this] { return Reconcile(80, 1048576, 40, 102400); },
            [this] { return Write(2000, 40960, 8000, 1048576); },
            [this] {
                return manager->Reconcile(true, false, TotalOf(80, 1048576),
                                          {GroupOf("main", 0, 0), GroupOf("other", 40, 102400)});
            },
            [this] {
                return manager->WriteComponentConfig(
                    file, {QuotaOf("Tervane", "main", 0, 0), QuotaOf("Other", "other", 2000, 40960)}, 8000, 0);
            },
            [this] {
                std::vector<zel::CgroupMemoryOomEvent> events;
                return manager->PollMemoryOomEvents(events);
            },
            [this] { return manager->RemovePidFromGroup("main", getpid()); },
            [this] { return manager->Reconcile(false, false, {}); },
        };
    }
};

TEST_F(FilesJournalTest, WritesWhatDiffersInTheKernelsOrder) {
    for (const Where& where : kEverywhere) {
        Begin(where.version, where.mountRoot);
        const std::vector<std::function<bool()>> steps = Steps();
        ASSERT_EQ(std::size(kJournals), steps.size());
        for (size_t i = 0; i < steps.size(); ++i) {
            SCOPED_TRACE(std::string(kJournals[i].what) + " on " + where.Text());
            EXPECT_TRUE(steps[i]());
            EXPECT_EQ(where.version == Version::kV2 ? kJournals[i].v2 : kJournals[i].v1, TakeJournal());
        }
        End();
    }
}

TEST_F(FilesJournalTest, TheTreeGoesLeavesFirst) {
    for (const Where& where : kEverywhere) {
        Publish(where.version, where.mountRoot);
        ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
        TakeJournal();
        std::string error;
        EXPECT_TRUE(zel::RemoveAgentCgroupTree(error)) << error;
        EXPECT_EQ(kEnd, TakeJournal()) << where.Text();
        End();
    }
}

}  // namespace
