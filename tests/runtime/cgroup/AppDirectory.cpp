// The utility library's operation that the cgroup layer calls, so that its objects link without the rest.
#include "platform/zel/ToolUtil.h"

namespace zel {

std::string CToolUtil::GetApplicationDirPath() {
    return "/opt/zeltest";
}

}  // namespace zel
