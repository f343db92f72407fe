// What SQLite says of a database as a kill left it, and changes of one from beside. For programs that link SQLite.
#pragma once

#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
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

/// Runs statements on a database that others may have open. Returns: empty, or what SQLite says.
inline std::string RunStatements(const std::string& path, const std::string& statements) {
    constexpr int kPatienceMs = 60000;
    sqlite3* file = nullptr;
    sqlite3_open(path.c_str(), &file);
    sqlite3_busy_timeout(file, kPatienceMs);
    const int done = sqlite3_exec(file, statements.c_str(), nullptr, nullptr, nullptr);
    const std::string said = done == SQLITE_OK ? "" : sqlite3_errmsg(file);
    sqlite3_close(file);
    return said;
}

/// Returns: the number that a query gives, -1 when it cannot be read.
inline int64_t AskNumber(const std::string& path, const std::string& query) {
    sqlite3* file = nullptr;
    sqlite3_stmt* row = nullptr;
    int64_t number = -1;
    if (sqlite3_open(path.c_str(), &file) == SQLITE_OK &&
        sqlite3_prepare_v2(file, query.c_str(), -1, &row, nullptr) == SQLITE_OK && sqlite3_step(row) == SQLITE_ROW) {
        number = sqlite3_column_int64(row, 0);
    }
    sqlite3_finalize(row);
    sqlite3_close(file);
    return number;
}

}  // namespace support
