// The store of OS abnormal events: one small SQLite file for today and one for the day before, in the application
// directory. Entered by the OS abnormal monitor's thread only.
#pragma once

#include <cstdint>
#include <string>

#include "platform/zel/Export.h"
#include "platform/zel/MutexUtil.h"
#include "platform/zel/SqliteDB.h"

/// Kinds of stored events.
enum OsAbnormalEventType : int32_t {
    OS_ABNORMAL_NONE = 0,
    OS_ABNORMAL_MEMORY = 1,
    OS_ABNORMAL_DISK = 2,
};

/// Opens its database for each insert and closes it afterwards, so that the file is never held open between events.
/// Thread-safety: one thread; no operation takes the mutex.
/// Lifetime: the destructor does not close an open database; InsertData always has.
/// Errors: logged here, reported by the bool result, never retried.
class ZEL_API COsAbnormalDataBase {
public:
    COsAbnormalDataBase();
    ~COsAbnormalDataBase();

    /// Returns: a database is open, which is so inside InsertData and after an OpenDb of one's own.
    bool IsOpen();

    /// Moves yesterday's file aside when the day changed (and on the first open), then opens today's.
    /// With `create` false a missing file is not made.
    /// On failure: false, with a log line; nothing is open unless it was before.
    bool OpenDb(bool create);
    /// Does nothing when none is open.
    void Close();

    /// Stores one row. Units: `eventTime` in seconds since the epoch; it is unique, so a second event of one second
    /// is refused and the first one stays.
    bool InsertData(OsAbnormalEventType type, int eventTime, const std::string& info, const std::string& data);

protected:
    int32_t m_dayOfMonth;
    std::string m_currentDbPath;
    std::string m_lastDbPath;
    zel::ISqliteDB* m_db;
    zel::CMutexUtil m_mutex;
};
