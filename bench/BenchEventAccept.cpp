// What an accepted event costs, from SendMsg to its answer, beside the least that the same disk allows in the same
// minute: one page written over in place and synced; the bytes of an event appended and synced; one SQLite insert, and
// one transaction of four; four threads that wait for each other's sync of a plain file, which is what four senders can
// have at best. All take turns, so that what disturbs one disturbs the others.
//   BenchEventAccept
// ZEL_BENCH_DIR: where the files are (the working directory, and a file system in memory beside it, unless given).
// Lines: "EVENTS place sinks what us-an-event".
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
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
constexpr int kCrowd = 64;
constexpr size_t kPage = 4096;
constexpr size_t kArea = 1 << 20;  // a file that is written over again and again
const std::string kBody(512, 'x');

/// Microseconds for each of `count` calls.
double Measure(int count, const std::function<void()>& call) {
    const auto begun = Clock::now();
    for (int i = 0; i < count; ++i) call();
    return std::chrono::duration<double, std::micro>(Clock::now() - begun).count() / count;
}

/// Microseconds for each call while so many threads make `count` of them each.
double MeasureTogether(int threads, int count, const std::function<void()>& call) {
    std::vector<std::thread> all;
    const auto begun = Clock::now();
    for (int i = 0; i < threads; ++i) {
        all.emplace_back([&] { Measure(count, call); });
    }
    for (std::thread& thread : all) thread.join();
    return std::chrono::duration<double, std::micro>(Clock::now() - begun).count() / (threads * count);
}

/// Of the quietest rounds: a disk that others use as well adds to some of them a hundred times what a sync takes.
double Quiet(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 10];
}

/// Bytes appended and synced: the file becomes longer, which the file system has to write down as well.
class GrowingFile {
public:
    explicit GrowingFile(const std::string& path) : m_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)) {}
    ~GrowingFile() { close(m_fd); }
    void Append() {
        if (write(m_fd, kBody.data(), kBody.size()) < 0 || fdatasync(m_fd) != 0) std::perror("append");
    }

private:
    const int m_fd;
};

/// Whole pages written over what is there already and synced: the sync itself.
class StandingFile {
public:
    explicit StandingFile(const std::string& path) : m_fd(open(path.c_str(), O_RDWR | O_CREAT, 0600)) {
        const std::string area(kArea, 'x');
        if (pwrite(m_fd, area.data(), area.size(), 0) < 0 || fsync(m_fd) != 0) std::perror("fill");
    }
    ~StandingFile() { close(m_fd); }
    void Write() {
        m_at = (m_at + kPage) % kArea;
        if (pwrite(m_fd, m_page.data(), m_page.size(), m_at) < 0 || fdatasync(m_fd) != 0) std::perror("write");
    }

    /// As many as wait share a sync: whoever finds nobody writing writes for all.
    void WriteTogether() {
        std::unique_lock<std::mutex> lock(m_lock);
        const uint64_t mine = ++m_asked;
        m_arrived.notify_one();
        while (m_written < mine) {
            if (m_writing) {
                m_done.wait(lock);
                continue;
            }
            m_writing = true;
            m_arrived.wait_for(lock, kMostWait, [&] { return m_asked - m_written >= kSenders; });
            const uint64_t last = m_asked;
            lock.unlock();
            Write();
            lock.lock();
            m_written = last;
            m_writing = false;
            m_done.notify_all();
        }
    }

private:
    static constexpr std::chrono::microseconds kMostWait{50};
    const int m_fd;
    const std::string m_page = std::string(kPage, 'y');
    off_t m_at = 0;
    std::mutex m_lock;
    std::condition_variable m_arrived, m_done;
    uint64_t m_asked = 0, m_written = 0;
    bool m_writing = false;
};

/// The floor of whoever keeps events in a database.
class PlainTable {
public:
    explicit PlainTable(const std::string& path) {
        sqlite3_open(path.c_str(), &m_handle);
        Execute(
            "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
            "CREATE TABLE events(id INTEGER PRIMARY KEY AUTOINCREMENT, body BLOB);");
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
    void AppendSome() {
        Execute("BEGIN IMMEDIATE;");
        for (int i = 0; i < kSenders; ++i) Append();
        Execute("COMMIT;");
    }

private:
    void Execute(const char* sql) { sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr); }
    sqlite3* m_handle = nullptr;
    sqlite3_stmt* m_insert = nullptr;
};

void Send() {
    if (!GetMsgTransmitInstance()->SendMsg("T_MSG_OS_ABNORMAL", kBody, "", 1, 0))
        std::fprintf(stderr, "not accepted\n");
}

bool MeasureIn(const std::string& place, const std::string& directory, bool delivered) {
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
        return false;
    }
    GrowingFile growing(directory + "/growing");
    StandingFile standing(directory + "/standing");
    PlainTable table(directory + "/floor.db");
    const std::vector<std::pair<const char*, std::function<double()>>> kinds = {
        {"page-synced", [&] { return Measure(kEach, [&] { standing.Write(); }); }},
        {"appended", [&] { return Measure(kEach, [&] { growing.Append(); }); }},
        {"inserted", [&] { return Measure(kEach, [&] { table.Append(); }); }},
        {"four-inserted", [&] { return Measure(kEach, [&] { table.AppendSome(); }) / kSenders; }},
        {"four-threads-synced", [&] { return MeasureTogether(kSenders, kEach, [&] { standing.WriteTogether(); }); }},
        {"one-sender", [&] { return Measure(kEach, Send); }},
        {"four-senders", [&] { return MeasureTogether(kSenders, kEach, Send); }},
        {"crowd", [&] { return MeasureTogether(kCrowd, kEach / 4, Send); }},
    };
    std::map<std::string, std::vector<double>> times;
    for (int round = 0; round < kRounds; ++round) {
        for (const auto& [what, measure] : kinds) times[what].push_back(measure());
    }
    services.FlushDelivery(60000);
    services.Stop();
    for (const auto& kind : kinds) {
        std::printf("EVENTS %s %s %s %.1f\n", place.c_str(), delivered ? "file-sink" : "no-sink", kind.first,
                    Quiet(times[kind.first]));
    }
    return true;
}

bool MeasureOn(const std::string& place) {
    std::string directory = place + "/zel-bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror(directory.c_str());
        return false;
    }
    bool measured = true;
    for (const bool delivered : {false, true}) {
        std::filesystem::create_directory(directory + "/app");
        measured = MeasureIn(place, directory + "/app", delivered) && measured;
        std::filesystem::remove_all(directory + "/app");
    }
    std::filesystem::remove_all(directory);
    return measured;
}

}  // namespace

int main() {
    zel::LogOptions log;
    log.file = false;
    zel::ConfigureLog(log);
    const char* given = std::getenv("ZEL_BENCH_DIR");
    bool measured = MeasureOn(given != nullptr ? given : std::filesystem::current_path().string());
    if (given == nullptr) measured = MeasureOn("/dev/shm") && measured;  // what it costs beside the disk
    return measured ? 0 : 1;
}
