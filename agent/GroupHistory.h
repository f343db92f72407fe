// What the main process adds to the statistics once a minute: the use of its groups and the host's pressure.
#pragma once

#include <map>
#include <string>

#include "platform/host/MtIntf.h"

namespace agent {

/// Registered while it lives.
/// Thread-safety: asked by one collection at a time, on a thread of the statistics.
class GroupHistory final : public IMtInfo {
public:
    GroupHistory() { CMtIntf::RegMtInfoCallback(this); }
    ~GroupHistory() override { CMtIntf::UnRegMtInfoCallback(this); }
    GroupHistory(const GroupHistory&) = delete;
    GroupHistory& operator=(const GroupHistory&) = delete;

    bool GetExceptionInfo(std::map<std::string, std::string>& info) override;

private:
    unsigned int m_asked = 0;
};

}  // namespace agent
