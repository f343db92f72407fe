// What an accepted event costs, from SendMsg to its answer: one sender beside a program that appends the same bytes to
// a file and syncs them, and beside one that inserts them into a SQLite table; then four senders, who share commits.
// ZEL_BENCH_DIR: where the files are (the working directory, or its disk, unless given).
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/HostServices.h"
#include "platform/host/MsgTransmit.h"
#include "platform/zel/LogControl.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 25;
constexpr int kEach = 60;  // events of one sender in a round
constexpr int kSenders = 4;
const std::string kBody(512, 'x');

/// Microseconds for each of `count` calls, or for all of them when it makes several itself.
double Measure(int count, const std::function<void()>& call) {
    const auto begun = Clock::now();
    for (int i = 0; i < count; ++i) call();
    return std::chrono::duration<double, std::micro>(Clock::now() - begun).count() / count;
}

/// Of the quietest rounds: a disk that others use as well adds to some of them a hundred times what a sync takes.
double Quiet(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 10];
}

/// The floor that no program can go below: the bytes of one event, appended and synced.
class PlainFile {
public:
    explicit PlainFile(const std::string& path) : m_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)) {}
    ~PlainFile() { close(m_fd); }
    void Append() {
        if (write(m_fd, kBody.data(), kBody.size()) < 0 || fdatasync(m_fd) != 0) std::perror("append");
    }

private:
    const int m_fd;
};

/// The floor of whoever keeps events in a database.
class PlainTable {
public:
    explicit PlainTable(const std::string& path) {
        sqlite3_open(path.c_str(), &m_handle);
        sqlite3_exec(m_handle,
                     "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                     "CREATE TABLE events(id INTEGER PRIMARY KEY AUTOINCREMENT, body BLOB);",
                     nullptr, nullptr, nullptr);
        sqlite3_prepare_v2(m_handle, "INSERT INTO events(body) VALUES(?1);", -1, &m_insert, nullptr);
    }
    ~PlainTable() {
        sqlite3_finalize(m_insert);
        sqlite3_close(m_handle);
    }
    void Append() {
        sqlite3_bind_blob(m_insert, 1, kBody.data(), static_cast<int>(kBody.size()), SQLITE_STATIC);
        if (sqlite3_step(m_insert) != SQLITE_DONE) std::fprintf(stderr, "insert: %s\n", sqlite3_errmsg(m_handle));
        sqlite3_reset(m_insert);
    }

private:
    sqlite3* m_handle = nullptr;
    sqlite3_stmt* m_insert = nullptr;
};

void Send() {
    if (!GetMsgTransmitInstance()->SendMsg("T_MSG_OS_ABNORMAL", kBody, "", 1, 0))
        std::fprintf(stderr, "not accepted\n");
}

/// Microseconds for each event while all senders send.
double ManySenders() {
    std::vector<std::thread> senders;
    const auto begun = Clock::now();
    for (int i = 0; i < kSenders; ++i) {
        senders.emplace_back([] { Measure(kEach, Send); });
    }
    for (std::thread& sender : senders) sender.join();
    return std::chrono::duration<double, std::micro>(Clock::now() - begun).count() / (kSenders * kEach);
}

struct Result {
    std::vector<double> file, table, one, many;
};

void MeasureIn(const std::string& directory, bool delivered) {
    zelhost::HostOptions options;
    options.processName = "bench";
    options.appDir = directory;
    options.onlineConfigPath = directory + "/none.json";
    options.statisticsDbPath = "-";
    options.delivery.jsonLinesPath = delivered ? directory + "/events.jsonl" : "-";
    options.metrics.enabled = zelhost::Switch::kOff;
    zelhost::CHostServices services;
    std::string error;
    if (!services.Start(options, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return;
    }
    PlainFile file(directory + "/floor");
    PlainTable table(directory + "/floor.db");
    Result result;
    for (int round = 0; round < kRounds; ++round) {  // interleaved: what disturbs one disturbs the others
        result.file.push_back(Measure(kEach, [&] { file.Append(); }));
        result.table.push_back(Measure(kEach, [&] { table.Append(); }));
        result.one.push_back(Measure(kEach, Send));
        result.many.push_back(ManySenders());
    }
    services.FlushDelivery(60000);
    services.Stop();
    const double appended = Quiet(result.file), inserted = Quiet(result.table);
    const double one = Quiet(result.one), many = Quiet(result.many);
    std::printf("%-22s %14.1f %14.1f %14.1f %8.2f %8.2f %14.0f %14.0f\n", delivered ? "with the file sink" : "alone",
                appended, inserted, one, one / appended, one / inserted, 1e6 / many, 1e6 * kSenders / inserted);
}

void MeasureOn(const std::string& place) {
    std::string directory = place + "/zel-bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror(directory.c_str());
        return;
    }
    std::printf(
        "in %s; us an event, ratios to both floors, events a second of %d senders and their most: one sync for "
        "all of them\n%-22s %14s %14s %14s %8s %8s %14s %14s\n",
        place.c_str(), kSenders, "", "append+sync", "SQLite insert", "one sender", "/append", "/insert", "four, 1/s",
        "most, 1/s");
    for (const bool delivered : {false, true}) {
        std::filesystem::create_directory(directory + "/app");
        MeasureIn(directory + "/app", delivered);
        std::filesystem::remove_all(directory + "/app");
    }
    std::filesystem::remove_all(directory);
}

}  // namespace

int main() {
    zel::LogOptions log;
    log.file = false;
    zel::ConfigureLog(log);
    const char* given = std::getenv("ZEL_BENCH_DIR");
    MeasureOn(given != nullptr ? given : std::filesystem::current_path().string());
    if (given == nullptr) MeasureOn("/dev/shm");  // what it costs beside the disk
}
