// The component file: how the main process tells every other process of the agent which groups to join.
// Pure text to record and back, and the two file operations around it. docs/CGROUP.md shows the format byte for byte.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/Errors.h"
#include "kernel/GroupTypes.h"

namespace zel {
namespace cgroup {

constexpr int kComponentFileVersion = 1;
/// Bounds of a file; anything beyond is refused.
constexpr size_t kMaxComponentFileBytes = 256 * 1024;
constexpr size_t kMaxComponents = 256;
constexpr size_t kMaxComponentPathBytes = 1024;
constexpr int kMaxComponentFileDepth = 16;

/// One controller's leaf of one component.
struct ComponentLeaf {
    bool present = false;  ///< false: the controller is not in force for this component
    std::string group;
    std::string path;
    Version version = Version::kNone;
    uint64_t inode = 0;  ///< identity of the leaf: a re-created one has another
    int quota = 0;       ///< hundredths of a percent of one CPU, or KB; 0: the group's limit alone
};

struct ComponentEntry {
    std::string name;
    ComponentLeaf cpu;
    ComponentLeaf memory;

    ComponentLeaf& Leaf(Controller controller) { return controller == Controller::kCpu ? cpu : memory; }
    const ComponentLeaf& Leaf(Controller controller) const { return controller == Controller::kCpu ? cpu : memory; }
};

/// One controller of a component whose limit is only observed: what it would be.
struct ObservedLeaf {
    bool present = false;
    std::string group;
    int quota = 0;  ///< hundredths of a percent of one CPU, or KB; 0: the group's limit alone
};

struct ObservedEntry {
    std::string name;
    ObservedLeaf cpu;
    ObservedLeaf memory;

    ObservedLeaf& Leaf(Controller controller) { return controller == Controller::kCpu ? cpu : memory; }
    const ObservedLeaf& Leaf(Controller controller) const { return controller == Controller::kCpu ? cpu : memory; }
};

/// One controller of the parent that holds all groups.
struct ComponentParent {
    bool present = false;
    std::string path;
    Version version = Version::kNone;
    uint64_t inode = 0;
    int limit = 0;  ///< hundredths of a percent of one CPU, or KB; 0: none
};

struct ComponentFile {
    bool enabled = false;  ///< false: there are no unified limits, every process leaves
    std::string bootId;
    ComponentParent cpu;
    ComponentParent memory;
    std::vector<ComponentEntry> components;
    std::vector<ObservedEntry> observed;  ///< also where `enabled` is false; the text has none where it is empty

    ComponentParent& Parent(Controller controller) { return controller == Controller::kCpu ? cpu : memory; }
    const ComponentParent& Parent(Controller controller) const { return controller == Controller::kCpu ? cpu : memory; }
    /// Returns: the entry of that name, null when there is none.
    const ComponentEntry* Find(std::string_view name) const;
    /// The same of what is only observed.
    const ObservedEntry* FindObserved(std::string_view name) const;
};

/// Returns: the file's text. The same record gives the same bytes.
std::string FormatComponentFile(const ComponentFile& file);

/// Accepts exactly what FormatComponentFile can have written: every member present and of its type, numbers in range,
/// every path the parent's path + "/" + group + "/" + name, no name twice. Unknown members are borne, so that a
/// newer writer of the same version may add some.
Result<ComponentFile> ParseComponentFile(std::string_view text);

/// Reads a file that only root or this process's user can have written; links, special files and wider modes are
/// refused. kNotFound: there is no file.
Result<ComponentFile> ReadComponentFile(const std::string& path);

/// Replaces the file, mode 0640; what a crash leaves is the old file or the new one.
Status WriteComponentFile(const std::string& path, const ComponentFile& file);

}  // namespace cgroup
}  // namespace zel
