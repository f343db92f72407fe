// The component file: whatever the text, it is refused or it is one that says the same when written and read again,
// and then every path in it lies in its own tree.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ComponentFile.h"

namespace {

void Require(bool condition) {
    if (!condition) abort();
}

bool Same(const zel::cgroup::ComponentLeaf& a, const zel::cgroup::ComponentLeaf& b) {
    return a.present == b.present && a.group == b.group && a.path == b.path && a.version == b.version &&
           a.inode == b.inode && a.quota == b.quota;
}

void CheckLeaf(const zel::cgroup::ComponentParent& parent, const zel::cgroup::ComponentLeaf& leaf,
               const std::string& name) {
    if (!leaf.present) return;
    Require(parent.present && leaf.version == parent.version && leaf.inode != 0 && leaf.quota >= 0);
    Require(leaf.path == parent.path + "/" + leaf.group + "/" + name);
    Require(zel::cgroup::IsSafeGroupName(leaf.group) && zel::cgroup::IsSafeGroupName(name));
    Require(leaf.path.find("/../") == std::string::npos && leaf.path[0] == '/');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const zel::cgroup::Result<zel::cgroup::ComponentFile> parsed = zel::cgroup::ParseComponentFile(text);
    if (!parsed) {
        Require(!parsed.GetError().Text().empty());
        return 0;
    }
    for (const zel::cgroup::ComponentEntry& entry : parsed->components) {
        CheckLeaf(parsed->cpu, entry.cpu, entry.name);
        CheckLeaf(parsed->memory, entry.memory, entry.name);
        Require(parsed->Find(entry.name) == &entry);
    }
    const std::string written = zel::cgroup::FormatComponentFile(*parsed);
    const zel::cgroup::Result<zel::cgroup::ComponentFile> again = zel::cgroup::ParseComponentFile(written);
    if (!again) {
        // Only a text that was all but too long may grow beyond the bound when it is written in full.
        Require(written.size() > zel::cgroup::kMaxComponentFileBytes);
        return 0;
    }
    Require(again->enabled == parsed->enabled && again->components.size() == parsed->components.size());
    for (size_t index = 0; index < parsed->components.size(); ++index) {
        Require(again->components[index].name == parsed->components[index].name);
        Require(Same(again->components[index].cpu, parsed->components[index].cpu));
        Require(Same(again->components[index].memory, parsed->components[index].memory));
    }
    Require(zel::cgroup::FormatComponentFile(*again) == written);
    return 0;
}
