// The record of a failed memory limit, which holds further attempts back for 12 hours, also across restarts.
// One small file in the application directory. Entered by the thread that handles the configuration.
#include "CgroupErrorRecord.h"

#include <ctime>
#include <list>

#include "MonitorPri.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/ToolUtil.h"

bool CMonitorPri::WriteCgroupError(int errorCode) {
    if (!IsRecordedCgroupError(errorCode)) return false;
    const std::string text = FormatCgroupError(errorCode, time(nullptr));
    const std::string path = zel::CToolUtil::GetApplicationDirPath() + zel::kCgroupErrorFileName;
    if (!IsUsableCgroupErrorPath(path.size())) return false;
    return zel::CFileUtil::WriteNewFile(path, text, false);
}

bool CMonitorPri::CheckCgroupError() {
    const std::string path = zel::CToolUtil::GetApplicationDirPath() + zel::kCgroupErrorFileName;
    if (!IsUsableCgroupErrorPath(path.size()) || !zel::CFileUtil::IsFile(path)) return false;

    std::list<std::string> lines;
    if (!zel::CFileUtil::ReadFileLineToList(path, lines, kCgroupErrorMaxLines) || lines.empty()) return false;

    for (const std::string& line : lines) {
        int code = 0;
        int64_t when = 0;
        if (!ParseCgroupError(line, code, when)) continue;
        if (!IsRecordedCgroupError(code)) continue;
        if (IsRecentCgroupError(time(nullptr), when)) return true;
        // The file goes, the lines already read still count: a later one may be recent.
        zel::CFileUtil::RemoveFile(path);
    }
    return false;
}
