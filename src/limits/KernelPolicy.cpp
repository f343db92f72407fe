// Which kernels a limit may be used on: the local release from uname(2), prefix lists and version ranges.
// Entered by configuration parsing and by the set-up of the control groups, which the core serialises.
#include <sys/utsname.h>

#include "MonitorPri.h"
#include "platform/zel/KernelVersion.h"
#include "platform/zel/StringUtil.h"

bool CMonitorPri::GetLocalKernel() {
    // Deliberately false for a record that is filled already: callers look at `major` first and ask only when it is 0.
    if (m_localKernel.major != 0) return false;

    struct utsname system = {};
    if (uname(&system) != 0) return false;

    const std::string release = system.release;
    zel::KernelReleaseNumbers numbers;
    if (!zel::ParseKernelRelease(release, numbers)) return false;

    m_localKernel.major = numbers.majorPart;
    m_localKernel.minor = numbers.minorPart;
    m_localKernel.patch = numbers.patchPart;
    m_localKernel.build = numbers.build;
    m_localKernel.release = release;
    return true;
}

bool CMonitorPri::CheckKernelHits(const std::string& list) {
    return zel::HasKernelPrefix(list, m_localKernel.release);
}

bool CMonitorPri::LocalKernelLimits(std::string& list) {
    const std::string trimmed = zel::CStringUtil::trim(list);
    if (trimmed.empty()) return false;  // before the kernel is read: nothing to compare it with
    if (m_localKernel.major == 0 && !GetLocalKernel()) return false;

    zel::PackedKernelVersion local;
    local.packed = zel::PackKernelVersion(m_localKernel.major, m_localKernel.minor, m_localKernel.patch);
    local.build = m_localKernel.build;
    return zel::IsKernelInRangeList(trimmed, local);
}
