// SQLite behind one opener and two owners: a database file that a process running as root may open, and its statements.
// Nobody else calls sqlite3_open: what one file needs (a mode from the first moment on, no link, no umask that is
// changed while other threads run) every file needs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/Result.h"

struct sqlite3;
struct sqlite3_stmt;

namespace base {

/// How a database is opened.
struct DatabaseOptions {
    int busyMs = 0;            ///< how long an operation waits for the lock of another connection
    bool readOnly = false;     ///< read as it is; nothing is made
    bool manyThreads = false;  ///< SQLite serialises the calls; else one thread at a time uses the connection
    bool countLog = false;     ///< LogBytes is kept; the log is then moved by Checkpoint and RestartLog only
    mode_t mode = 0640;        ///< of a file that is made, whatever the umask is
    const char* setUp = "";    ///< statements that belong to opening: pragmas, then what must exist
};

/// One connection.
/// Thread-safety: one thread at a time, unless opened for many.
/// Errors: kMalformed when the file is no sound database, kUnreadable when the disk does not give a page back,
/// kNoSpace, kReadOnly, kBusy, kDenied and kRefused by what SQLite says, and its text as the hint.
class Database {
public:
    Database() = default;
    ~Database() { Close(); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Opens a file, and makes it when it is missing; what was open is closed. Links among its directories are
    /// followed, the file itself must be none.
    /// On failure: nothing is open.
    Status Open(const std::string& path, const DatabaseOptions& options);
    /// Requires: every statement of it is gone.
    void Close();
    bool IsOpen() const { return m_handle != nullptr; }

    /// Runs one or more statements that give no rows.
    Status Execute(const std::string& sql);

    /// Moves the pages of a write-ahead log into the file, as far as nobody reads them.
    void Checkpoint();
    /// Moves all of them, so that the next commit writes the log from its beginning. Blocks: for the disk, and for
    /// others' transactions as long as the options say.
    /// On failure: the log goes on growing, for instance because somebody reads.
    Status RestartLog();
    /// Returns: how long the write-ahead log was at this connection's last commit; 0 after RestartLog.
    /// Requires: opened with countLog.
    uint64_t LogBytes() const { return m_logBytes; }

    /// Returns: the extended result code of the last failure of this object; statements keep their own.
    /// Source: sqlite.org/rescode.html.
    int Code() const { return m_code; }
    /// Returns: the latest failure on this connection, a statement's too.
    Error LastError(const char* operation) const;

    sqlite3* Handle() const { return m_handle; }

private:
    Status Fail(int code, const char* operation);
    static int NoteLog(void* self, sqlite3* handle, const char* schema, int pages);

    sqlite3* m_handle = nullptr;
    uint64_t m_logBytes = 0;
    std::string m_path;
    int m_code = 0;
};

/// One compiled statement.
/// Lifetime: ends before its database is closed. Thread-safety: that of its database.
/// Errors: every operation tells by its result; Code says which. One that did not compile fails at every operation.
class Statement {
public:
    Statement() = default;
    Statement(const Database& database, const std::string& sql);
    ~Statement() { Finish(); }
    Statement(Statement&& other) noexcept;
    Statement& operator=(Statement&& other) noexcept;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool IsOk() const { return m_handle != nullptr; }
    /// Gives the statement back; it fails from then on.
    void Finish();

    /// Parameters count from 1. A text is copied, the bytes of a blob must stay until Reset.
    bool Bind(int parameter, int64_t value);
    bool Bind(int parameter, std::string_view text);
    bool BindBlob(int parameter, std::string_view bytes);
    /// `name` with its colon. Returns: the parameter's number, 0 when there is none.
    int Find(const std::string& name);

    /// What one step gave. A failed one has given its locks back.
    enum class Outcome { kRow, kDone, kFailed };
    Outcome Step();
    bool Row() { return Step() == Outcome::kRow; }
    bool Done() { return Step() == Outcome::kDone; }
    /// Makes it ready for another run, with nothing bound.
    void Reset();

    /// Columns of the row, from 0.
    int64_t Int(int column) const;
    std::string Text(int column) const;

    /// Returns: the extended result code of the last failure, 0 when nothing failed.
    int Code() const { return m_code; }

private:
    bool Check(int code);

    sqlite3_stmt* m_handle = nullptr;
    int m_code = 0;
};

/// Returns: whether a result code says that the file is no sound database, so that a new one must take its place.
bool IsDamaged(int code);

/// Moves a damaged database and its log out of the way to `aside`: a new database beside an old log would be taken for
/// its continuation, and what can be read of the old one is partly in the log.
Status PutDatabaseAside(const std::string& path, const std::string& aside);

/// Removes the oldest of the databases whose paths begin with `prefix`, as they were put aside, with their logs: `most`
/// stay, and of these the older ones only while all together take at most `mostBytes`. The newest always stays.
Status ThinOutPutAside(const std::string& prefix, size_t most, uint64_t mostBytes);

/// Renames a database. What a killed process left of a transaction in its journal is rolled back first, because the
/// journal belongs to the name: apart from it the file is damaged, and beside another file it damages that one.
/// A file that is no database is renamed as it is.
/// On failure: nothing has moved; kBusy while another process is in the middle of a transaction.
Status RenameDatabase(const std::string& from, const std::string& to);

}  // namespace base
