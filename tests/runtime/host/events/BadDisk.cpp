// Bad places by a layer below SQLite.
#include "events/BadDisk.h"

#include <sqlite3.h>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

namespace support {
namespace {

constexpr sqlite3_int64 kPage = 4096;
constexpr char kName[] = "bad disk";

sqlite3_vfs* g_real = nullptr;
const sqlite3_io_methods* g_realFile = nullptr;
sqlite3_io_methods g_badFile;
std::mutex g_lock;
std::vector<std::pair<sqlite3_int64, sqlite3_int64>> g_bad;  // first byte, end
int g_left = 0;
std::atomic<int> g_failed{0};

bool IsBad(sqlite3_int64 from, int bytes) {
    const std::lock_guard<std::mutex> lock(g_lock);
    for (const auto& place : g_bad) {
        if (from >= place.second || from + bytes <= place.first || g_left == 0) continue;
        --g_left;
        ++g_failed;
        return true;
    }
    return false;
}

int Read(sqlite3_file* file, void* buffer, int bytes, sqlite3_int64 from) {
    return IsBad(from, bytes) ? SQLITE_IOERR_READ : g_realFile->xRead(file, buffer, bytes, from);
}

int Open(sqlite3_vfs*, sqlite3_filename path, sqlite3_file* file, int flags, int* given) {
    const int code = g_real->xOpen(g_real, path, file, flags, given);
    if (code != SQLITE_OK || (flags & SQLITE_OPEN_MAIN_DB) == 0) return code;
    g_realFile = file->pMethods;
    g_badFile = *g_realFile;
    g_badFile.xRead = Read;
    file->pMethods = &g_badFile;
    return code;
}

sqlite3_vfs g_vfs;

}  // namespace

BadDisk::BadDisk() {
    g_real = sqlite3_vfs_find(nullptr);
    g_vfs = *g_real;
    g_vfs.zName = kName;
    g_vfs.xOpen = Open;
    g_failed = 0;
    sqlite3_vfs_register(&g_vfs, 1);
}

BadDisk::~BadDisk() {
    sqlite3_vfs_unregister(&g_vfs);
    const std::lock_guard<std::mutex> lock(g_lock);
    g_bad.clear();
}

void BadDisk::Spoil(int firstPage, int pages, int times) {
    const std::lock_guard<std::mutex> lock(g_lock);
    g_bad.emplace_back(firstPage * kPage, (firstPage + pages) * kPage);
    g_left = times;
}

int BadDisk::Failed() const {
    return g_failed;
}

}  // namespace support
