// The log is kept by a layer below SQLite that hands every call on to the ordinary one.
#include "sweep/LoggedDisk.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>

namespace sweep {
namespace {

enum class What { kWrite, kTruncate, kSync, kRemove };

struct Change {
    What what;
    std::string path;
    size_t at = 0;     // of a write; the length of a truncation; of others 1: the directory is synced
    std::string text;  // of a write
};

constexpr char kName[] = "logged disk";

sqlite3_vfs* g_real = nullptr;
sqlite3_vfs g_vfs;
std::mutex g_lock;
std::vector<Change> g_log;

struct File {
    std::string path;
    const sqlite3_io_methods* real = nullptr;
    bool isNew = false;  // a log or journal, whose first sync is one of its directory too
};
std::map<sqlite3_file*, File> g_files;
/// Databases and logs have calls of their own. They stay, because connections outlive the log.
std::map<const sqlite3_io_methods*, sqlite3_io_methods> g_logged;

const sqlite3_io_methods* RealOf(sqlite3_file* file) {
    const std::lock_guard<std::mutex> guard(g_lock);
    return g_files[file].real;
}

void Note(sqlite3_file* file, What what, size_t at = 0, std::string text = "") {
    const std::lock_guard<std::mutex> guard(g_lock);
    g_log.push_back({what, g_files[file].path, at, std::move(text)});
}

int Write(sqlite3_file* file, const void* text, int bytes, sqlite3_int64 at) {
    Note(file, What::kWrite, static_cast<size_t>(at),
         std::string(static_cast<const char*>(text), static_cast<size_t>(bytes)));
    return RealOf(file)->xWrite(file, text, bytes, at);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    Note(file, What::kTruncate, static_cast<size_t>(size));
    return RealOf(file)->xTruncate(file, size);
}

int Sync(sqlite3_file* file, int flags) {
    const int code = RealOf(file)->xSync(file, flags);
    if (code != SQLITE_OK) return code;
    const std::lock_guard<std::mutex> guard(g_lock);
    File& known = g_files[file];
    g_log.push_back({What::kSync, known.path, known.isNew ? size_t{1} : size_t{0}, ""});
    known.isNew = false;
    return code;
}

int Open(sqlite3_vfs*, sqlite3_filename path, sqlite3_file* file, int flags, int* given) {
    const bool isNew = path != nullptr && (flags & SQLITE_OPEN_MAIN_DB) == 0 && access(path, F_OK) != 0;
    const int code = g_real->xOpen(g_real, path, file, flags, given);
    constexpr int kSeen = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL;
    if (code != SQLITE_OK || (flags & kSeen) == 0 || path == nullptr) return code;
    const std::lock_guard<std::mutex> guard(g_lock);
    g_files[file] = {path, file->pMethods, isNew};
    sqlite3_io_methods& logged = g_logged[file->pMethods];
    logged = *file->pMethods;
    logged.xWrite = Write;
    logged.xTruncate = Truncate;
    logged.xSync = Sync;
    file->pMethods = &logged;
    return code;
}

int Remove(sqlite3_vfs*, const char* path, int syncDirectory) {
    const int code = g_real->xDelete(g_real, path, syncDirectory);
    const std::lock_guard<std::mutex> guard(g_lock);
    g_log.push_back({What::kRemove, path, static_cast<size_t>(syncDirectory), ""});
    return code;
}

void Apply(const Change& change, size_t bytes, std::map<std::string, std::string>& files) {
    if (change.what == What::kRemove) {
        files.erase(change.path);
        return;
    }
    std::string& text = files[change.path];
    if (change.what == What::kTruncate) text.resize(change.at);
    if (change.what != What::kWrite) return;
    if (text.size() < change.at + bytes) text.resize(change.at + bytes);
    std::memcpy(text.data() + change.at, change.text.data(), bytes);
}

}  // namespace

LoggedDisk::LoggedDisk() {
    g_real = sqlite3_vfs_find(nullptr);
    g_vfs = *g_real;
    g_vfs.zName = kName;
    g_vfs.xOpen = Open;
    g_vfs.xDelete = Remove;
    g_log.clear();
    g_files.clear();
    sqlite3_vfs_register(&g_vfs, 1);
}

LoggedDisk::~LoggedDisk() {
    Stop();
}

void LoggedDisk::Stop() {
    sqlite3_vfs_unregister(&g_vfs);
}

size_t LoggedDisk::Length() const {
    const std::lock_guard<std::mutex> guard(g_lock);
    return g_log.size();
}

std::map<std::string, std::string> LoggedDisk::After(size_t place, const Keep& keep) const {
    const std::lock_guard<std::mutex> guard(g_lock);
    place = std::min(place, g_log.size());
    std::map<std::string, size_t> sure;  // up to where a file's changes are on the disk
    size_t sureNames = 0;                // and the directory's
    for (size_t i = 0; i < place; ++i) {
        const Change& change = g_log[i];
        if (change.what == What::kSync) sure[change.path] = i + 1;
        if ((change.what == What::kSync || change.what == What::kRemove) && change.at != 0) sureNames = i + 1;
    }
    std::map<std::string, std::string> files;
    for (size_t i = 0; i < place; ++i) {
        const Change& change = g_log[i];
        const bool isSure = i < (change.what == What::kRemove ? sureNames : sure[change.path]);
        const size_t whole = change.what == What::kWrite ? change.text.size() : 1;
        const size_t kept = isSure ? whole : std::min(whole, keep(whole));
        if (kept > 0) Apply(change, kept, files);
    }
    return files;
}

}  // namespace sweep
