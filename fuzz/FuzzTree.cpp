// Both versions of control groups against one model. A sequence of operations (groups made and removed, limits,
// members, controllers, others who write, writes that fail) goes through the same code to a version 1 and a version 2
// kernel made of files; after each the groups must be what a table says that knows neither version's files.
#include <cerrno>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "FakeKernel.h"
#include "FuzzSupport.h"
#include "kernel/GroupDir.h"
#include "kernel/Limits.h"

namespace {

using fuzzing::Draw;
using fuzzing::FakeKernel;
using fuzzing::Require;
using namespace zel::cgroup;

constexpr size_t kMostOperations = 24;
const std::set<int> kProcesses = {900001, 900002, 900003};
constexpr const char* kNames[] = {"a", "b", "c.1"};

/// A group as the table has it. Amounts: hundredths of a percent, KB; 0 is none.
struct Row {
    PerController<int> amount;
    CpuQuota share;       ///< the CPU's amount as the kernel has it
    int64_t swapKb = -1;  ///< version 1: memory and swap together, version 2: swap; -1: as much as there is
    Flags offered;        ///< whether the group has the controller
    Flags given;          ///< version 2: to its children
    std::set<int> processes;
    int64_t usedKb = 0;
};

/// One kernel, the code on top of it, and what should be the case there.
class World {
public:
    World(Version version, bool swap)
        : m_version(version),
          m_swap(swap),
          m_kernel(version, swap, kProcesses),
          m_root(Open(m_kernel.Root(), version)) {
        Row& root = m_rows[""];
        root.processes = kProcesses;
        root.offered = {true, true};
        if (version == Version::kV1) root.given = {true, true};
    }

    /// Returns: the groups there are, the root left out.
    std::vector<std::string> Groups() const {
        std::vector<std::string> out;
        for (const auto& row : m_rows) {
            if (!row.first.empty()) out.push_back(row.first);
        }
        return out;
    }

    bool Has(const std::string& path) const { return m_rows.count(path) != 0; }

    void Make(const std::string& parent, const std::string& name) {
        const std::string path = parent + "/" + name;
        bool created = false;
        const Result<GroupDir> made = At(parent).MakeChild(name, &created);
        Require(made.Ok() && created == (m_rows.count(path) == 0), "a group is made once");
        if (!created) return;
        Row& row = m_rows[path];
        row.offered = m_rows[parent].given;
        if (m_version == Version::kV1) row.given = {true, true};
    }

    void Remove(const std::string& parent, const std::string& name) {
        const std::string path = parent + "/" + name;
        const auto found = m_rows.find(path);
        const bool may = found == m_rows.end() || (found->second.processes.empty() && ChildrenOf(path).empty());
        const Status removed = At(parent).RemoveChild(name);
        Require(removed.Ok() == may, "a group goes when nothing is in it");
        Require(may || removed.GetError().kind == ErrorKind::kBusy, "one that stays is busy");
        if (may) m_rows.erase(path);
    }

    void Move(const std::string& path, int pid) {
        const Row& row = m_rows[path];
        const bool full = m_version == Version::kV2 && !path.empty() && (row.given.cpu || row.given.memory);
        const Status moved = At(path).MoveHere(pid);
        Require(moved.Ok() == !full, "a process goes where there is room for one");
        if (full) return;
        for (auto& each : m_rows) each.second.processes.erase(pid);
        m_rows[path].processes.insert(pid);
    }

    void MoveAllTo(const std::string& from, const std::string& to) {
        const Row& row = m_rows[to];
        const bool full = m_version == Version::kV2 && !to.empty() && (row.given.cpu || row.given.memory);
        const size_t count = m_rows[from].processes.size();
        if (from == to) return;
        const Result<int> moved = MoveAll(At(from), At(to));
        Require(moved.Ok() == (!full || count == 0), "all go where there is room for one");
        if (!moved) return;
        Require(*moved == static_cast<int>(count), "all are counted");
        m_rows[to].processes.insert(m_rows[from].processes.begin(), m_rows[from].processes.end());
        m_rows[from].processes.clear();
    }

    void Enable(const std::string& path, Controller controller) {
        Row& row = m_rows[path];
        const bool may = row.given[controller] || (row.offered[controller] && (path.empty() || row.processes.empty()));
        const Status enabled = At(path).EnableForChildren(ControllerName(controller));
        Require(enabled.Ok() == may, "a controller is given by who has it and holds no process");
        if (!may || row.given[controller]) return;
        row.given[controller] = true;
        for (const std::string& child : ChildrenOf(path)) m_rows[child].offered[controller] = true;
    }

    void Disable(const std::string& path, Controller controller) {
        if (m_version == Version::kV1) return Require(At(path).DisableForChildren("cpu").Ok(), "nothing is to be done");
        bool used = false;
        for (const std::string& child : ChildrenOf(path)) used = used || m_rows[child].given[controller];
        const bool may = !m_rows[path].given[controller] || !used;
        Require(At(path).DisableForChildren(ControllerName(controller)).Ok() == may, "a controller in use stays");
        if (!may || !m_rows[path].given[controller]) return;
        m_rows[path].given[controller] = false;
        for (const std::string& child : ChildrenOf(path)) {
            m_rows[child].offered[controller] = false;
            m_rows[child].amount[controller] = 0;
            if (controller == Controller::kCpu) m_rows[child].share = CpuQuota();
            if (controller == Controller::kMemory) m_rows[child].swapKb = -1;
        }
    }

    /// `inPieces`: a small share of a CPU in longer periods. `faults`: a write may have failed on the way.
    void Limit(const std::string& path, Controller controller, int64_t amount, bool inPieces, bool faults) {
        Row& row = m_rows[path];
        zel::cgroup::Limit limit = LimitFromAmount(controller, amount);
        if (inPieces) limit.cpu = QuotaInPieces(amount);
        const Status applied = ApplyLimit(controller, At(path), limit);
        const bool may = MayLimit(path, controller, limit);
        if (!may) Require(!applied.Ok(), "what the kernel does not take is told");
        if (may && !faults) Require(applied.Ok(), "what the kernel takes is in force");
        // Refused, and the way back failed as well: what stands is seen by the next look.
        if (!applied && !may && faults) return TakeOver(path, controller);
        if (!applied) return;
        row.amount[controller] = AmountOf(controller, limit);
        if (controller == Controller::kCpu) row.share = limit.cpu;
        if (controller == Controller::kMemory) row.swapKb = SwapFor(row.amount.memory);
    }

    void TakeOver(const std::string& path, Controller controller) {
        Row& row = m_rows[path];
        const Result<zel::cgroup::Limit> now = ReadLimit(controller, At(path));
        if (!now) return;
        row.amount[controller] = AmountOf(controller, *now);
        if (controller == Controller::kCpu) row.share = now->cpu;
        if (controller == Controller::kCpu || !m_swap) return;
        const Result<zel::cgroup::MemLimit> memory = ReadMemHardLimit(At(path));
        if (memory) row.swapKb = memory->swapBytes < 0 ? -1 : static_cast<int64_t>(memory->swapBytes / 1024);
    }

    /// What others do, as it comes to pass in both worlds.
    void WriteAsOthers(const std::string& path, Controller controller, int64_t amount) {
        const bool isV2 = m_version == Version::kV2;
        const zel::cgroup::Limit limit = LimitFromAmount(controller, amount);
        std::string value;
        if (controller == Controller::kMemory) {
            value = limit.bytes < 0 ? (isV2 ? "max" : "-1") : std::to_string(limit.bytes);
        } else {
            value = limit.cpu.Unlimited() ? (isV2 ? "max" : "-1") : std::to_string(limit.cpu.quotaUs);
            if (!limit.cpu.Unlimited() && limit.cpu.periodUs != kDefaultPeriodUs) return;
            if (isV2 && !limit.cpu.Unlimited()) value += " 100000";
        }
        if (m_kernel.WriteAs(path, LimitFileOf(controller, m_version), value) != 0) return;
        const Result<zel::cgroup::Limit> now = ReadLimit(controller, At(path));
        Require(now.Ok(), "what others have written can be read");
        m_rows[path].amount[controller] = AmountOf(controller, *now);
        if (controller == Controller::kCpu) m_rows[path].share = now->cpu;
    }

    void Use(const std::string& path, int64_t kb) {
        if (!m_rows[path].offered.memory) return;
        m_kernel.Use(path, kb * 1024);
        m_rows[path].usedKb = kb;
    }

    void FailWrite(int n, int error) { m_kernel.FailWrite(n, error); }

    void Check() {
        for (const auto& [path, row] : m_rows) {
            const GroupDir group = At(path);
            Require(group.IsAlive(), "a group that was not removed is there");
            const Result<std::vector<int>> processes = group.Processes();
            Require(processes && std::set<int>(processes->begin(), processes->end()) == row.processes,
                    "members are where they were put");
            const Result<std::vector<std::string>> children = group.Children();
            Require(children && children->size() == ChildrenOf(path).size(), "no group is there that was not made");
            for (const Controller controller : kAllControllers) CheckLimit(path, row, group, controller);
        }
    }

private:
    static GroupDir Open(const std::string& path, Version version) {
        Result<GroupDir> root = GroupDir::Open(path, version);
        Require(root.Ok(), "the root can be opened");
        return std::move(*root);
    }

    GroupDir At(const std::string& path) const {
        Result<GroupDir> group = m_root.OpenBelow(path);
        Require(group.Ok(), "a group that was made can be opened");
        return std::move(*group);
    }

    std::vector<std::string> ChildrenOf(const std::string& path) const {
        std::vector<std::string> out;
        for (const auto& row : m_rows) {
            if (!row.first.empty() && row.first.substr(0, row.first.rfind('/')) == path) out.push_back(row.first);
        }
        return out;
    }

    int64_t SwapFor(int memoryKb) const {
        constexpr int kPageKb = 4;
        if (memoryKb == 0) return -1;
        return m_version == Version::kV2 ? 0 : memoryKb + kPageKb;
    }

    /// Whether the kernel has the controller there and takes the limit.
    bool MayLimit(const std::string& path, Controller controller, const zel::cgroup::Limit& limit) {
        const Row& row = m_rows[path];
        const bool isV2 = m_version == Version::kV2;
        if (isV2 && (path.empty() || !row.offered[controller])) return false;
        const int amount = AmountOf(controller, limit);
        if (controller == Controller::kCpu) return isV2 || row.share == limit.cpu || FitsV1(path, limit.cpu);
        const bool swapStays = !m_swap || row.swapKb == SwapFor(amount);
        if (row.amount.memory == amount && swapStays) return true;
        const bool lowers = amount != 0 && (row.amount.memory == 0 || amount < row.amount.memory);
        const bool losesSwap = m_swap && row.swapKb < 0 && SwapFor(amount) >= 0;
        // What is in use does not hinder version 2 from leaving more room than there was.
        return amount == 0 || amount >= row.usedKb || (isV2 && !lowers && !losesSwap);
    }

    /// Whether version 1's shares fit into each other, in its own parts of a CPU.
    bool FitsV1(const std::string& path, const CpuQuota& share) const {
        const auto partsOf = [&](const std::string& name) {
            const CpuQuota& each = name == path ? share : m_rows.at(name).share;
            return each.Unlimited() ? int64_t{-1} : (each.quotaUs << 20) / each.periodUs;
        };
        for (const auto& row : m_rows) {
            for (std::string above = row.first; !above.empty() && partsOf(row.first) >= 0;) {
                above = above.substr(0, above.rfind('/'));
                if (partsOf(above) >= 0 && partsOf(row.first) > partsOf(above)) return false;
            }
        }
        return true;
    }

    void CheckLimit(const std::string& path, const Row& row, const GroupDir& group, Controller controller) const {
        const Result<zel::cgroup::Limit> limit = ReadLimit(controller, group);
        const bool has = row.offered[controller] && !(path.empty() && m_version == Version::kV2);
        Require(limit.Ok() == has, "a group has the limits of its controllers");
        if (has) Require(AmountOf(controller, *limit) == row.amount[controller], "a limit is what was applied last");
    }

    const Version m_version;
    const bool m_swap;
    FakeKernel m_kernel;
    const GroupDir m_root;
    std::map<std::string, Row> m_rows;  // by path below the root
};

/// A group of both worlds, or the root.
std::string DrawGroup(Draw& draw, const World& world) {
    const std::vector<std::string> groups = world.Groups();
    const size_t index = draw.Below(groups.size() + 1);
    return index == 0 ? "" : groups[index - 1];
}

std::string ParentOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

/// One operation, the same in both.
void Step(Draw& draw, World* const (&worlds)[2]) {
    enum Kind { kMake, kRemove, kMove, kMoveAll, kEnable, kDisable, kLimit, kOthers, kUse, kKinds };
    const auto kind = static_cast<Kind>(draw.Below(kKinds));
    const std::string group = DrawGroup(draw, *worlds[0]);
    const std::string other = DrawGroup(draw, *worlds[0]);
    const Controller controller = kAllControllers[draw.Below(2)];
    const char* const name = kNames[draw.Below(std::size(kNames))];
    const uint8_t choice = draw.Byte();
    const int64_t amount =
        kind == kLimit || kind == kOthers || kind == kUse ? draw.Below(2) == 0 ? draw.Byte() : draw.Byte() * 100 : 0;
    for (World* world : worlds) {
        // A member that only one of them takes keeps a group there that goes in the other.
        if (!world->Has(group) || !world->Has(other)) continue;
        switch (kind) {
            case kMake:
                if (group.size() < 12) world->Make(group, name);
                break;
            case kRemove:
                world->Remove(ParentOf(group), group.empty() ? name : group.substr(group.rfind('/') + 1));
                break;
            case kMove: world->Move(group, *std::next(kProcesses.begin(), choice % 3)); break;
            case kMoveAll: world->MoveAllTo(group, other); break;
            case kEnable: world->Enable(group, controller); break;
            case kDisable: world->Disable(group, controller); break;
            case kLimit: {
                const bool faults = choice >= 224;
                if (faults) world->FailWrite(1 + choice % 3, choice % 2 == 0 ? EBUSY : EACCES);
                world->Limit(group, controller, amount, choice % 4 == 1, faults);
                world->FailWrite(0, 0);
                break;
            }
            case kOthers: world->WriteAsOthers(group, controller, amount); break;
            default: world->Use(group, amount); break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Draw draw(data, size);
    const bool swap = draw.Byte() % 2 == 0;
    World one(Version::kV1, swap);
    World two(Version::kV2, swap);
    World* const worlds[2] = {&one, &two};
    for (size_t i = 0; i < kMostOperations && !draw.IsUsedUp(); ++i) {
        Step(draw, worlds);
        one.Check();
        two.Check();
    }
    return 0;
}
