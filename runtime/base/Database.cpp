// SQLite: opening, statements, damaged files.
#include "base/Database.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <tuple>
#include <utility>
#include <vector>

#include "base/Fd.h"
#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/TrustedRead.h"

namespace base {
namespace {

constexpr int kPrimaryCode = 0xff;
// Pages of every database that is made here, each with its header in the write-ahead log.
// Source: sqlite.org/fileformat2.html, "The Write-Ahead Log".
constexpr uint64_t kLogPageBytes = 4096 + 24;

ErrorKind KindOfCode(int code) {
    if (code == SQLITE_CANTOPEN_SYMLINK) return ErrorKind::kRefused;
    if (code == SQLITE_IOERR_READ || code == SQLITE_IOERR_CORRUPTFS) return ErrorKind::kUnreadable;
    switch (code & kPrimaryCode) {
        case SQLITE_NOTADB:
        case SQLITE_CORRUPT: return ErrorKind::kMalformed;
        case SQLITE_FULL:
        case SQLITE_NOMEM: return ErrorKind::kNoSpace;
        case SQLITE_READONLY: return ErrorKind::kReadOnly;
        case SQLITE_BUSY:
        case SQLITE_LOCKED: return ErrorKind::kBusy;
        case SQLITE_PERM:
        case SQLITE_AUTH: return ErrorKind::kDenied;
        case SQLITE_TOOBIG: return ErrorKind::kTooLarge;
        default: return ErrorKind::kOther;
    }
}

// The path with the links of its directories resolved: SQLite refuses a link anywhere in a path, while here only the
// file itself must not be one. Returns: empty when the directory does not exist.
std::string WithRealDirectory(const std::string& path) {
    char real[PATH_MAX];
    if (::realpath(DirectoryOf(path).c_str(), real) == nullptr) return {};
    return std::string(real) + "/" + FileNameOf(path);
}

// Makes a missing file with our mode before SQLite would make it with its own. Only a file that was not there is
// opened here: closing a database file drops every lock that the process holds on it. Source: sqlite.org/howtocorrupt.
int MakeFile(const std::string& path, mode_t mode) {
    const Fd made(
        RetryOnSignal([&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode); }));
    if (!made) return errno == EEXIST ? SQLITE_OK : SQLITE_CANTOPEN;
    // Again, because the process's umask was applied. The log and its index take their modes from this file.
    return ::fchmod(made.Get(), mode) == 0 ? SQLITE_OK : SQLITE_PERM;
}

// SQLite writes to these beside the file itself. Source: sqlite.org/tempfiles.html.
constexpr const char* kBeside[] = {"", "-wal", "-shm", "-journal"};

// Nobody else has a hand in what is written: the directory, the file and those beside it.
Status JudgePlace(const std::string& path) {
    const Result<Fd> directory = OpenTrustedDirectory(DirectoryOf(path));
    // What is no verdict is told in SQLite's own terms, when it does not open the file either.
    if (!directory && directory.GetError().error != 0) return {};
    if (!directory) return directory.GetError();
    const std::string name = FileNameOf(path);
    for (const char* end : kBeside) {
        struct stat info {};
        if (::fstatat(directory->Get(), (name + end).c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
        // So is the kind of the file itself.
        if (*end == '\0' && !S_ISREG(info.st_mode)) continue;
        Status own = JudgeOwnFile(info, path + end);
        if (!own) return own;
    }
    return {};
}

// Returns: SQLITE_OK when a regular file stands there, or was made.
int PrepareFile(const std::string& path, const DatabaseOptions& options) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return options.readOnly ? SQLITE_CANTOPEN : MakeFile(path, options.mode);
    if (S_ISLNK(info.st_mode)) return SQLITE_CANTOPEN_SYMLINK;
    if (S_ISDIR(info.st_mode)) return SQLITE_CANTOPEN_ISDIR;
    return S_ISREG(info.st_mode) ? SQLITE_OK : SQLITE_CANTOPEN;
}

}  // namespace

Status Database::Open(const std::string& path, const DatabaseOptions& options) {
    Close();
    m_path = path;
    const std::string real = WithRealDirectory(path);
    if (!real.empty() && !options.readOnly) {
        Status judged = JudgePlace(real);
        if (!judged) {
            m_code = SQLITE_CANTOPEN;
            return judged;
        }
    }
    const int prepared = real.empty() ? SQLITE_CANTOPEN_FULLPATH : PrepareFile(real, options);
    if (prepared != SQLITE_OK) return Fail(prepared, "open");
    const int access = options.readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int threads = options.manyThreads ? SQLITE_OPEN_FULLMUTEX : SQLITE_OPEN_NOMUTEX;
    const int opened = sqlite3_open_v2(real.c_str(), &m_handle,
                                       access | threads | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE, nullptr);
    Status status = opened == SQLITE_OK ? Status() : Fail(opened, "open");
    if (status) {
        sqlite3_busy_timeout(m_handle, options.busyMs);
        status = Execute(options.setUp);
    }
    m_logBytes = 0;
    // Last: a pragma among the statements that sets the automatic checkpoint, itself such a hook, would replace ours.
    if (status && options.countLog) sqlite3_wal_hook(m_handle, NoteLog, this);
    if (!status) Close();
    return status;
}

void Database::Close() {
    if (m_handle != nullptr) sqlite3_close(m_handle);
    m_handle = nullptr;
}

Status Database::Execute(const std::string& sql) {
    if (m_handle == nullptr) return Fail(SQLITE_MISUSE, "use");
    const int code = sqlite3_exec(m_handle, sql.c_str(), nullptr, nullptr, nullptr);
    return code == SQLITE_OK ? Status() : Fail(code, "use");
}

void Database::Checkpoint() {
    // Ignoring: what a reader holds up is moved the next time.
    if (m_handle != nullptr) sqlite3_wal_checkpoint_v2(m_handle, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

Status Database::RestartLog() {
    if (m_handle == nullptr) return Fail(SQLITE_MISUSE, "use");
    const int code = sqlite3_wal_checkpoint_v2(m_handle, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
    if (code != SQLITE_OK) return Fail(code, "write back");
    m_logBytes = 0;
    return {};
}

int Database::NoteLog(void* self, sqlite3*, const char*, int pages) {
    static_cast<Database*>(self)->m_logBytes = static_cast<uint64_t>(pages) * kLogPageBytes;
    return SQLITE_OK;
}

Status Database::Fail(int code, const char* operation) {
    m_code = code;
    // The connection's own text tells more than the code's, as long as it is about this failure.
    const bool own = m_handle != nullptr && sqlite3_extended_errcode(m_handle) == code;
    return MakeError(KindOfCode(code), operation, m_path, own ? sqlite3_errmsg(m_handle) : sqlite3_errstr(code));
}

Error Database::LastError(const char* operation) const {
    const int code = m_handle != nullptr ? sqlite3_extended_errcode(m_handle) : m_code;
    return MakeError(KindOfCode(code), operation, m_path,
                     m_handle != nullptr ? sqlite3_errmsg(m_handle) : sqlite3_errstr(code));
}

Statement::Statement(const Database& database, const std::string& sql) {
    if (sql.size() >= INT_MAX) {
        m_code = SQLITE_TOOBIG;
        return;
    }
    const int length = static_cast<int>(sql.size()) + 1;  // with its NUL, which spares SQLite a copy
    m_code = sqlite3_prepare_v2(database.Handle(), sql.c_str(), length, &m_handle, nullptr);
    if (m_code == SQLITE_OK && m_handle == nullptr) m_code = SQLITE_MISUSE;  // nothing but blanks compiles to nothing
}

Statement::Statement(Statement&& other) noexcept
    : m_handle(std::exchange(other.m_handle, nullptr)), m_code(std::exchange(other.m_code, 0)) {}

Statement& Statement::operator=(Statement&& other) noexcept {
    if (this == &other) return *this;
    Finish();
    m_handle = std::exchange(other.m_handle, nullptr);
    m_code = std::exchange(other.m_code, 0);
    return *this;
}

void Statement::Finish() {
    sqlite3_finalize(m_handle);  // null is allowed; its result repeats the last step's
    m_handle = nullptr;
}

bool Statement::Bind(int parameter, int64_t value) {
    return Check(sqlite3_bind_int64(m_handle, parameter, value));
}

bool Statement::Bind(int parameter, std::string_view text) {
    return Check(sqlite3_bind_text64(m_handle, parameter, text.empty() ? "" : text.data(), text.size(),
                                     SQLITE_TRANSIENT, SQLITE_UTF8));
}

bool Statement::BindBlob(int parameter, std::string_view bytes) {
    // A blob of no bytes, not NULL, for an empty text.
    return Check(
        sqlite3_bind_blob64(m_handle, parameter, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_STATIC));
}

int Statement::Find(const std::string& name) {
    const int parameter = sqlite3_bind_parameter_index(m_handle, name.c_str());
    if (parameter == 0) m_code = SQLITE_RANGE;
    return parameter;
}

Statement::Outcome Statement::Step() {
    if (m_handle == nullptr) return Outcome::kFailed;
    const int code = sqlite3_step(m_handle);
    if (code == SQLITE_ROW) return Outcome::kRow;
    if (code == SQLITE_DONE) return Outcome::kDone;
    // Reset gives back the locks of the failed attempt; it repeats the code, which is therefore not looked at.
    sqlite3_reset(m_handle);
    m_code = code;
    return Outcome::kFailed;
}

void Statement::Reset() {
    if (m_handle == nullptr) return;
    sqlite3_reset(m_handle);
    sqlite3_clear_bindings(m_handle);
}

int64_t Statement::Int(int column) const {
    return m_handle == nullptr ? 0 : sqlite3_column_int64(m_handle, column);
}

std::string Statement::Text(int column) const {
    if (m_handle == nullptr) return {};
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(m_handle, column));
    const int size = sqlite3_column_bytes(m_handle, column);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<size_t>(size));
}

bool Statement::Check(int code) {
    if (code != SQLITE_OK) m_code = code;
    return code == SQLITE_OK;
}

bool IsDamaged(int code) {
    return KindOfCode(code) == ErrorKind::kMalformed;
}

Status PutDatabaseAside(const std::string& path, const std::string& aside) {
    if (!ReadFileMark(path).exists) return ErrnoError(ENOENT, "rename", path);
    // The logs first: were the power lost in between, no log must stand beside the next database.
    for (const char* part : {"-wal", "-journal"}) {
        const std::string log = path + part;
        const Status moved = ReadFileMark(log).exists ? RenameFile(log, aside + part) : RemoveFile(aside + part);
        if (!moved) return moved;
    }
    const Status removed = RemoveFile(path + "-shm");
    if (!removed) return removed;
    return RenameFile(path, aside);
}

namespace {

/// One database that was put aside, with its logs.
struct PutAside {
    std::string name;
    timespec since{};  // when it got its name
    uint64_t bytes = 0;
};

void AddPart(const Fd& directory, const std::string& file, std::vector<PutAside>& all) {
    struct stat info {};
    if (::fstatat(directory.Get(), file.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode)) return;
    std::string name = file;
    for (const std::string_view log : kBeside) {
        if (log.empty() || name.size() <= log.size() || name.substr(name.size() - log.size()) != log) continue;
        name.resize(name.size() - log.size());
        break;
    }
    const auto isSame = [&](const PutAside& each) { return each.name == name; };
    auto found = std::find_if(all.begin(), all.end(), isSame);
    if (found == all.end()) found = all.insert(all.end(), {name, {}, 0});
    if (name == file || found->since.tv_sec == 0) found->since = info.st_ctim;
    found->bytes += static_cast<uint64_t>(info.st_blocks) * 512;
}

/// Newest first.
std::vector<PutAside> ListPutAside(const Fd& directory, const std::string& prefix) {
    std::vector<PutAside> all;
    Fd readable(RetryOnSignal([&] { return ::openat(directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    DIR* const entries = readable ? ::fdopendir(readable.Get()) : nullptr;
    if (entries == nullptr) return all;
    readable.Release();
    while (const dirent* const entry = ::readdir(entries)) {
        const std::string file = entry->d_name;
        if (file.size() > prefix.size() && file.compare(0, prefix.size(), prefix) == 0) AddPart(directory, file, all);
    }
    ::closedir(entries);
    std::sort(all.begin(), all.end(), [](const PutAside& one, const PutAside& other) {
        return std::tie(one.since.tv_sec, one.since.tv_nsec, one.name) >
               std::tie(other.since.tv_sec, other.since.tv_nsec, other.name);
    });
    return all;
}

}  // namespace

Status ThinOutPutAside(const std::string& prefix, size_t most, uint64_t mostBytes) {
    const Result<Fd> directory = OpenTrustedDirectory(DirectoryOf(prefix));
    if (!directory) return directory.GetError();
    size_t kept = 0;
    uint64_t bytes = 0;
    Status status;
    for (const PutAside& each : ListPutAside(*directory, FileNameOf(prefix))) {
        ++kept;
        bytes += each.bytes;
        if (kept == 1 || (kept <= most && bytes <= mostBytes)) continue;
        for (const char* part : kBeside) {
            const Status removed = RemoveFile(DirectoryOf(prefix) + "/" + each.name + part);
            if (!removed) status = removed;
        }
    }
    return status;
}

namespace {

bool HasLog(const std::string& path) {
    return ReadFileMark(path + "-journal").exists || ReadFileMark(path + "-wal").exists;
}

Status RemoveLogs(const std::string& path) {
    for (const char* part : {"-wal", "-journal", "-shm"}) {
        const Status removed = RemoveFile(path + part);
        if (!removed) return removed;
    }
    return {};
}

// The first read rolls back a journal; closing the last connection moves a write-ahead log into the file.
Status RollBack(const std::string& path) {
    constexpr int kOthersMs = 200;
    DatabaseOptions options;
    options.busyMs = kOthersMs;
    options.setUp = "SELECT count(*) FROM sqlite_master;";
    const Status settled = Database().Open(path, options);
    const bool sound = settled || settled.GetError().kind != ErrorKind::kMalformed;
    return sound ? settled : RemoveLogs(path);
}

}  // namespace

Status RenameDatabase(const std::string& from, const std::string& to) {
    if (ReadFileMark(from).exists && HasLog(from)) {
        const Status rolledBack = RollBack(from);
        if (!rolledBack) return rolledBack;
    }
    // What is left of one that stood there before.
    if (ReadFileMark(from).exists && HasLog(to) && !ReadFileMark(to).exists) {
        const Status removed = RemoveLogs(to);
        if (!removed) return removed;
    }
    return RenameFile(from, to);
}

}  // namespace base
