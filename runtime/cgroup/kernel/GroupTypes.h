// Words that every file of the control-group layer uses: version, controller, one value per controller, identity and
// name of a group. Pure.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zel {
namespace cgroup {

enum class Version { kNone = 0, kV1 = 1, kV2 = 2 };

enum class Controller { kCpu = 0, kMemory = 1 };

constexpr std::array<Controller, 2> kAllControllers = {Controller::kCpu, Controller::kMemory};

/// "cpu" or "memory", as the kernel calls them.
const char* ControllerName(Controller controller);

/// One value for each controller.
template <typename T>
struct PerController {
    T cpu{};
    T memory{};
    T& operator[](Controller controller) { return controller == Controller::kCpu ? cpu : memory; }
    const T& operator[](Controller controller) const { return controller == Controller::kCpu ? cpu : memory; }
};

using Flags = PerController<bool>;

/// Tells one group from another of the same name.
/// Kernel: since Linux 4.14 a number does not come again while the device lives. Before, the lowest free one is given,
/// so a group that is made anew may have its predecessor's: docs/CGROUP.md says what holds there.
struct GroupIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;
    bool operator==(const GroupIdentity& other) const { return device == other.device && inode == other.inode; }
    bool operator!=(const GroupIdentity& other) const { return !(*this == other); }
};

constexpr size_t kMaxGroupNameBytes = 64;

/// Returns: whether a name may be used for a group of ours: ASCII letters, digits, '.', '_', '-', at most 64, no
/// leading '.' or '-'. So no '/', no "..", nothing that a shell or a log would trip over.
bool IsSafeGroupName(std::string_view name);

/// Leaf of a group for processes that have none of their own. No component may be called so.
constexpr char kOwnLeaf[] = "_own";

}  // namespace cgroup
}  // namespace zel
