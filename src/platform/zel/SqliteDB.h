// A small wrapper of SQLite. The order of the virtual operations is shared layout: keep it.
#pragma once

#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// One compiled statement. Lifetime: until ReleaseStatement of the database that compiled it.
class ZEL_API ISqliteStatement {
public:
    /// Returns: true when the statement is done.
    virtual bool Step() = 0;
    /// `name` carries its colon, as in ":info". The value is copied.
    virtual bool BindString(const std::string& name, const std::string& value) = 0;
    virtual bool BindInt(const std::string& name, int value) = 0;

protected:
    ~ISqliteStatement() = default;
};

/// One open database. Thread-safety: one thread at a time.
class ZEL_API ISqliteDB {
public:
    /// Returns: a statement that the caller hands back with ReleaseStatement, or null.
    virtual ISqliteStatement* Compile(const std::string& sql) = 0;
    virtual void ReleaseStatement(ISqliteStatement* statement) = 0;
    virtual bool Execute(const std::string& sql) = 0;
    /// Returns: extended result code of the last failed operation. Source: sqlite.org/rescode.html.
    virtual int GetLastError() = 0;

protected:
    ~ISqliteDB() = default;
};

/// Opens a database file, creating it when missing (mode 0640; a symbolic link is refused).
/// Owns: the caller, until RemoveSqliteDB. On failure: null, `error` is the result code.
ZEL_API ISqliteDB* GetSqliteDB(const std::string& path, int& error);

/// Closes and frees.
ZEL_API void RemoveSqliteDB(ISqliteDB* db);

}  // namespace zel
