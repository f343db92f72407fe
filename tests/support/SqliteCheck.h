// What SQLite says of a database as a kill left it. For programs that link SQLite.
#pragma once

#include <sqlite3.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace support {

/// Returns: "ok", or what is wrong. Opens the database itself, which ends what a kill has left half done.
inline std::string CheckDatabase(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_stmt* check = nullptr;
    std::string answer;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (sqlite3_prepare_v2(db, "pragma integrity_check", -1, &check, nullptr) == SQLITE_OK &&
        sqlite3_step(check) == SQLITE_ROW) {
        answer = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
    } else {
        answer = sqlite3_errmsg(db);
    }
    sqlite3_finalize(check);
    sqlite3_close(db);
    return answer;
}

/// The same of a copy at `copy`, so that the next process finds the database untouched, hot journal included.
inline std::string CheckCopyOfDatabase(const std::string& path, const std::string& copy) {
    for (const char* part : {"", "-wal", "-journal"}) {
        unlink((copy + part).c_str());
        std::ifstream from(path + part, std::ios::binary);
        if (from && from.peek() != std::ifstream::traits_type::eof()) {
            std::ofstream(copy + part, std::ios::binary) << from.rdbuf();
        }
    }
    unlink((copy + "-shm").c_str());
    return CheckDatabase(copy);
}

}  // namespace support
