// Hostile texts for the readers of the kernel's hierarchies: mountinfo, /proc/self/cgroup and /proc/cgroups, cut at the
// NUL bytes of the input, and of control files. Whatever comes, the decision names a reason, and no group path leads
// out of its mount.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "kernel/ControlText.h"
#include "Hierarchy.h"
#include "base/ProcGroups.h"

using namespace zel::cgroup;

namespace {

void Require(bool holds) {
    if (!holds) abort();
}

std::string TakePart(std::string_view& rest) {
    const size_t end = rest.find('\0');
    std::string part(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return part;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    LayoutTexts texts;
    texts.mountInfo = TakePart(rest);
    texts.selfCgroup = TakePart(rest);
    texts.cgroups = TakePart(rest);
    for (const base::CgroupMount& mount : base::ParseMountInfo(texts.mountInfo)) {
        Require(!mount.mountPoint.empty() && mount.mountPoint.front() == '/');
        Require(!mount.root.empty() && mount.root.front() == '/');
        Require(mount.mountPoint.find('\0') == std::string::npos);
        Require(!mount.v2 || mount.controllers.empty());
    }
    for (Controller controller : {Controller::kCpu, Controller::kMemory}) {
        const auto candidates = DecideHierarchy(controller, texts);
        Require(!candidates.empty());
        for (const Hierarchy& hierarchy : candidates) {
            Require(!hierarchy.reason.empty());
            const std::string directory = hierarchy.DirectoryOf(hierarchy.ownPath);
            Require(directory.empty() || directory.compare(0, hierarchy.mountPoint.size(), hierarchy.mountPoint) == 0);
        }
    }
    const std::string_view whole(reinterpret_cast<const char*>(data), size);
    Require(base::UnescapeOctal(whole).size() <= size);
    for (int pid : ParsePids(whole)) Require(pid > 0);
    Require(ParseFlatKeyed(whole).size() <= size);
    (void)ParseNumberOrMax(whole).Ok();
    return 0;
}
