// SQLite behind the seam: one connection, used by one thread at a time, that never waits long for another writer.
#include "platform/zel/SqliteDB.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include "base/Fd.h"

namespace zel {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr int kBusyTimeoutMs = 200;  // a caller has a round to keep: two seconds at most between its ticks

class Statement final : public ISqliteStatement {
public:
    Statement(sqlite3_stmt* statement, int& lastError) : m_statement(statement), m_lastError(lastError) {}
    ~Statement() { sqlite3_finalize(m_statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool Step() override {
        const int result = sqlite3_step(m_statement);
        if (result == SQLITE_DONE) return true;
        if (result == SQLITE_ROW) return false;
        // Reset gives back the locks of the failed attempt; it repeats the code, which is therefore not looked at.
        sqlite3_reset(m_statement);
        m_lastError = result;
        return false;
    }

    bool BindString(const std::string& name, const std::string& value) override {
        const int index = IndexOf(name);
        return index != 0 && Check(sqlite3_bind_text64(m_statement, index, value.data(), value.size(), SQLITE_TRANSIENT,
                                                       SQLITE_UTF8));
    }

    bool BindInt(const std::string& name, int value) override {
        const int index = IndexOf(name);
        return index != 0 && Check(sqlite3_bind_int(m_statement, index, value));
    }

private:
    int IndexOf(const std::string& name) {
        const int index = sqlite3_bind_parameter_index(m_statement, name.c_str());
        if (index == 0) m_lastError = SQLITE_RANGE;
        return index;
    }

    bool Check(int result) {
        if (result != SQLITE_OK) m_lastError = result;
        return result == SQLITE_OK;
    }

    sqlite3_stmt* const m_statement;
    int& m_lastError;
};

class Database final : public ISqliteDB {
public:
    explicit Database(sqlite3* handle) : m_handle(handle) {}
    ~Database() {
        m_statements.clear();  // what nobody released would keep the file open
        sqlite3_close(m_handle);
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    ISqliteStatement* Compile(const std::string& sql) override {
        sqlite3_stmt* compiled = nullptr;
        if (sql.size() >= INT_MAX) {
            m_lastError = SQLITE_TOOBIG;
            return nullptr;
        }
        const int length = static_cast<int>(sql.size()) + 1;  // with its NUL, which spares SQLite a copy
        const int result = sqlite3_prepare_v2(m_handle, sql.c_str(), length, &compiled, nullptr);
        if (result != SQLITE_OK || compiled == nullptr) {
            m_lastError = result != SQLITE_OK ? result : SQLITE_MISUSE;  // nothing but blanks compiles to nothing
            return nullptr;
        }
        m_statements.push_back(std::make_unique<Statement>(compiled, m_lastError));
        return m_statements.back().get();
    }

    void ReleaseStatement(ISqliteStatement* statement) override {
        for (auto at = m_statements.begin(); at != m_statements.end(); ++at) {
            if (at->get() != statement) continue;
            m_statements.erase(at);
            return;
        }
    }

    bool Execute(const std::string& sql) override {
        const int result = sqlite3_exec(m_handle, sql.c_str(), nullptr, nullptr, nullptr);
        if (result != SQLITE_OK) m_lastError = result;
        return result == SQLITE_OK;
    }

    int GetLastError() override { return m_lastError; }

private:
    sqlite3* const m_handle;
    int m_lastError = SQLITE_OK;
    std::vector<std::unique_ptr<Statement>> m_statements;
};

// The path with the links of its directories resolved: SQLite refuses a link anywhere in a path, while here only the
// file itself must not be one. Returns: empty when the directory does not exist.
std::string WithRealDirectory(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    char real[PATH_MAX];
    if (::realpath(directory.c_str(), real) == nullptr) return std::string();
    return std::string(real) + "/" + path.substr(slash == std::string::npos ? 0 : slash + 1);
}

// Makes a missing file with our mode before SQLite would make it with its own. Only a file that was not there is
// opened here: closing a database file drops every lock that the process holds on it. Source: sqlite.org/howtocorrupt.
int PrepareFile(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0) {
        if (S_ISLNK(info.st_mode)) return SQLITE_CANTOPEN_SYMLINK;
        if (S_ISDIR(info.st_mode)) return SQLITE_CANTOPEN_ISDIR;
        return S_ISREG(info.st_mode) ? SQLITE_OK : SQLITE_CANTOPEN;
    }
    const base::Fd made(base::RetryOnSignal(
        [&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode); }));
    return made.IsOpen() || errno == EEXIST ? SQLITE_OK : SQLITE_CANTOPEN;
}

}  // namespace

ISqliteDB* GetSqliteDB(const std::string& path, int& error) {
    const std::string real = WithRealDirectory(path);
    error = real.empty() ? SQLITE_CANTOPEN_FULLPATH : PrepareFile(real);
    if (error != SQLITE_OK) return nullptr;
    constexpr int kFlags =
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    sqlite3* handle = nullptr;
    error = sqlite3_open_v2(real.c_str(), &handle, kFlags, nullptr);
    if (error != SQLITE_OK) {
        sqlite3_close(handle);
        return nullptr;
    }
    sqlite3_busy_timeout(handle, kBusyTimeoutMs);
    return new Database(handle);
}

void RemoveSqliteDB(ISqliteDB* db) {
    delete static_cast<Database*>(db);
}

}  // namespace zel
