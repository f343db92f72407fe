// Names of controllers and of groups.
#include "GroupTypes.h"

#include <algorithm>

namespace zel {
namespace cgroup {

const char* ControllerName(Controller controller) {
    return controller == Controller::kCpu ? "cpu" : "memory";
}

bool IsSafeGroupName(std::string_view name) {
    if (name.empty() || name.size() > kMaxGroupNameBytes || name.front() == '.' || name.front() == '-') return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
               c == '-';
    });
}

}  // namespace cgroup
}  // namespace zel
