// The store of OS abnormal events. Today's file and the last day's lie in the application directory; the platform's
// wrapper opens them. Entered by the OS abnormal monitor's thread only.
#include "OsAbnormalDataBase.h"

#include "MonitorCommon.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/TimeUtil.h"
#include "platform/zel/ToolUtil.h"

using monitor::kEventStoreLogSource;
using monitor::Say;

namespace {

constexpr const char* kCreateTableSql =
    "create table if not exists os_abnormal(event_time integer UNIQUE, type integer, info varchar, data varchar);";
constexpr const char* kInsertSql = "insert into os_abnormal values(:event_time,:type,:info,:data);";

void SayOpenFailed(int level, int error) {
    SAY_FORMATTED_AS(kEventStoreLogSource, level, "open os abnormal db fail, error is %d", error);
}

}  // namespace

COsAbnormalDataBase::COsAbnormalDataBase() : m_dayOfMonth(0), m_db(nullptr) {
    const std::string directory = zel::CToolUtil::GetApplicationDirPath();
    m_currentDbPath = directory + zel::kCurrentOsAbnormalDbName;
    m_lastDbPath = directory + zel::kLastOsAbnormalDbName;
}

COsAbnormalDataBase::~COsAbnormalDataBase() = default;

bool COsAbnormalDataBase::IsOpen() {
    return m_db != nullptr;
}

bool COsAbnormalDataBase::OpenDb(bool create) {
    const int today = zel::CTimeUtil::GetCurrentDataTime().GetDayOfMonth();
    if (today != m_dayOfMonth) {
        if (zel::CFileUtil::IsFile(m_lastDbPath) && !zel::CFileUtil::RemoveFile(m_lastDbPath)) {
            // The day stays unset, so that every open tries again.
            SAY_FORMATTED_AS(kEventStoreLogSource, zel::kLogWarning, "remove %s fail", m_lastDbPath.c_str());
            return false;
        }
        zel::CFileCom(m_currentDbPath).rename(m_lastDbPath);  // ignoring: there may be no current file yet
        m_dayOfMonth = today;
    }
    if (!zel::CFileUtil::IsFile(m_currentDbPath) && !create) {
        SAY_FORMATTED_AS(kEventStoreLogSource, zel::kLogInfo, "open os abnormal db fail, %s is not exists",
                         m_currentDbPath.c_str());
        return false;
    }
    if (m_db != nullptr) return true;

    int error = 0;
    m_db = zel::GetSqliteDB(m_currentDbPath, error);
    if (m_db == nullptr) {
        SayOpenFailed(zel::kLogInfo, error);
        return false;
    }
    if (m_db->Execute(kCreateTableSql)) return true;
    error = m_db->GetLastError();  // before the close: the code is gone with the object
    Close();
    SayOpenFailed(zel::kLogWarning, error);
    return false;
}

void COsAbnormalDataBase::Close() {
    if (m_db == nullptr) return;
    zel::RemoveSqliteDB(m_db);
    m_db = nullptr;
}

bool COsAbnormalDataBase::InsertData(OsAbnormalEventType type, int eventTime, const std::string& info,
                                     const std::string& data) {
    if (!OpenDb(true)) {
        Say(zel::kLogWarning, "save obnormal event to db fail when open db");
        return false;
    }
    bool stored = false;
    zel::ISqliteStatement* statement = m_db->Compile(kInsertSql);
    if (statement == nullptr) {
        SAY_FORMATTED_AS(kEventStoreLogSource, zel::kLogWarning, "compile os abnormal sql fail, error is %d",
                         m_db->GetLastError());
    } else {
        stored = statement->BindInt(":event_time", eventTime) && statement->BindInt(":type", type) &&
                 statement->BindString(":info", info) && statement->BindString(":data", data) && statement->Step();
        if (!stored) {
            SAY_FORMATTED_AS(kEventStoreLogSource, zel::kLogWarning, "insert os abnormal value fail, error is %d",
                             m_db->GetLastError());
        }
        m_db->ReleaseStatement(statement);
    }
    Close();
    return stored;
}
