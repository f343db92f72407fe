// What the main process adds to the statistics once a minute: the use of its groups and the host's pressure.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "base/Pressure.h"
#include "base/ProcFiles.h"
#include "platform/host/MtIntf.h"
#include "platform/zel/CgroupFigures.h"

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
    /// Nothing is opened anew for a row.
    void ReadWaits(base::PressureResource resource, int64_t& some, int64_t* full);

    unsigned int m_asked = 0;
    zel::CCgroupFiguresReader m_reader;
    std::array<base::KeptFile, base::kPressureResources> m_pressure;
};

}  // namespace agent
