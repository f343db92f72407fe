// The durable spool of event messages.
#include "events/EventSpool.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "platform/zel/LogMessage.h"

namespace zelhost {
namespace {

constexpr int kBusyMs = 2000;
// Room that is set aside while there is some: on a full disk it is given free, so that the messages which tell of
// the full disk still get through. Enough for some hundreds of messages with their pages in log and file.
constexpr off_t kReserveBytes = 512 * 1024;
constexpr mode_t kReserveMode = 0640;
// A message's share of pages, index and log beyond its texts.
constexpr uint64_t kRowBytes = 128;

uint64_t CostOf(const SpoolMessage& m) {
    return m.type.size() + m.body.size() + m.extra.size() + kRowBytes;
}

void Log(int level, int line, const char* format, const std::string& a, const std::string& b) {
    zel::CLogMessage::GetInstance()->log(level, "EventSpool", line, format, a.c_str(), b.c_str());
}

std::string RandomName() {
    unsigned char bytes[8] = {};
    if (getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes))) {
        const auto seed = static_cast<uint64_t>(time(nullptr)) ^ (static_cast<uint64_t>(getpid()) << 32);
        for (size_t i = 0; i < sizeof(bytes); ++i) bytes[i] = static_cast<unsigned char>(seed >> (8 * i));
    }
    char text[2 * sizeof(bytes) + 1];
    for (size_t i = 0; i < sizeof(bytes); ++i) std::snprintf(text + 2 * i, 3, "%02x", bytes[i]);
    return text;
}

}  // namespace

CEventSpool::~CEventSpool() {
    Close();
}

void CEventSpool::Close() {
    m_insert.Finish();
    m_writer.Close();
    m_reader.Close();
}

base::Status CEventSpool::Open(const std::string& path, uint64_t maxBytes, size_t memoryRing) {
    m_path = path;
    m_maxBytes = maxBytes;
    m_memoryMost = memoryRing;
    base::Status status = base::MakeDirectories(base::DirectoryOf(path));
    if (!status) return base::SentenceError(status.GetError().Text(), status.GetError().kind);
    status = OpenOnce(path);
    if (!status && status.GetError().kind == base::ErrorKind::kMalformed) {
        Close();
        Log(zel::kLogError, __LINE__, "the event spool %s is damaged; put aside, its messages are lost: %s", path,
            status.GetError().Reason());
        status = base::PutDatabaseAside(path, path + ".corrupt-" + std::to_string(time(nullptr)));
        if (status) status = OpenOnce(path);
    }
    if (status) {
        TouchReserve();
    } else {
        Close();
    }
    return status;
}

base::Status CEventSpool::OpenOnce(const std::string& path) {
    base::DatabaseOptions options;
    options.busyMs = kBusyMs;
    options.manyThreads = true;
    // FULL: a commit is on disk when it returns. Checkpoints are the readers' work, so that no sender pays for them.
    options.setUp =
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA wal_autocheckpoint=0;"
        "PRAGMA journal_size_limit=1048576;"
        "BEGIN IMMEDIATE;"
        "CREATE TABLE IF NOT EXISTS messages(seq INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL,"
        " type BLOB NOT NULL, body BLOB NOT NULL, extra BLOB NOT NULL, arg1 INTEGER NOT NULL,"
        " arg2 INTEGER NOT NULL, bytes INTEGER NOT NULL);"
        "CREATE TABLE IF NOT EXISTS cursors(sink TEXT PRIMARY KEY, seq INTEGER NOT NULL);"
        "CREATE TABLE IF NOT EXISTS facts(name TEXT PRIMARY KEY, value);"
        "INSERT OR IGNORE INTO facts VALUES('dropped', 0);"
        "COMMIT;";
    base::Status status = m_writer.Open(path, options);
    if (status) status = PrepareMessages();
    // A cursor that is lost with the power means a message delivered twice, with the same id: allowed, and cheap.
    options.setUp = "PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=0;";
    if (status) status = m_reader.Open(path, options);
    return status;
}

base::Status CEventSpool::PrepareMessages() {
    base::Statement name(m_writer, "INSERT OR IGNORE INTO facts VALUES('name', ?1);");
    if (!name.Bind(1, RandomName()) || !name.Done()) return m_writer.LastError("open");
    m_insert = base::Statement(m_writer,
                               "INSERT INTO messages(time, type, body, extra, arg1, arg2, bytes)"
                               " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7);");
    base::Statement facts(m_writer,
                          "SELECT (SELECT value FROM facts WHERE name='name'),"
                          "(SELECT value FROM facts WHERE name='dropped'),"
                          "(SELECT count(*) FROM messages), (SELECT coalesce(sum(bytes), 0) FROM messages);");
    if (!m_insert.IsOk() || !facts.Row()) return m_writer.LastError("open");
    base::MutexLock lock(m_figuresLock);
    m_name = facts.Text(0);
    m_figures.dropped = static_cast<uint64_t>(facts.Int(1));
    m_messages = facts.Int(2);
    m_bytes = facts.Int(3);
    return {};
}

std::string CEventSpool::ReservePath() const {
    return m_path + ".reserve";
}

void CEventSpool::RemoveReserve() {
    static_cast<void>(base::RemoveFile(ReservePath()));  // ignoring: then that room stays taken
}

void CEventSpool::TouchReserve() {
    const base::Result<base::Fd> fd = base::OpenForUpdating(ReservePath(), kReserveMode);
    m_reserve = fd && posix_fallocate(fd->Get(), 0, kReserveBytes) == 0;
    if (!m_reserve) RemoveReserve();
}

void CEventSpool::ReleaseReserve() {
    m_reserve = false;
    RemoveReserve();
}

bool CEventSpool::Insert(const SpoolMessage& message) {
    const bool done = m_insert.Bind(1, message.time) && m_insert.BindBlob(2, message.type) &&
                      m_insert.BindBlob(3, message.body) && m_insert.BindBlob(4, message.extra) &&
                      m_insert.Bind(5, message.arg1) && m_insert.Bind(6, message.arg2) &&
                      m_insert.Bind(7, static_cast<int64_t>(CostOf(message))) && m_insert.Done();
    m_insert.Reset();
    return done;
}

bool CEventSpool::DropOldest(uint64_t bytes, Change& change) {
    // What every sink has is not lost by going; it goes uncounted.
    while (bytes > m_maxBytes) {
        int64_t seq = 0, cost = 0;
        bool confirmed = false;
        {
            base::Statement oldest(m_writer,
                                   "SELECT seq, bytes, seq <= coalesce((SELECT min(seq) FROM cursors), 0),"
                                   " seq = (SELECT max(seq) FROM messages) FROM messages ORDER BY seq LIMIT 1;");
            if (const auto found = oldest.Step(); found != base::Statement::Outcome::kRow) {
                return found == base::Statement::Outcome::kDone;
            }
            if (oldest.Int(3) != 0) return true;  // the newest stays, however large
            seq = oldest.Int(0);
            cost = oldest.Int(1);
            confirmed = oldest.Int(2) != 0;
        }
        base::Statement remove(m_writer, "DELETE FROM messages WHERE seq = ?1;");
        remove.Bind(1, seq);
        if (!remove.Done()) return false;
        bytes -= std::min(bytes, static_cast<uint64_t>(cost));
        change.bytes -= cost;
        --change.messages;
        if (!confirmed) ++change.dropped;
    }
    return true;
}

base::Status CEventSpool::WriteTransaction(const std::vector<Request*>& batch, Change& change) {
    change = Change();
    bool ok = m_writer.Execute("BEGIN IMMEDIATE;").Ok();
    int64_t held = 0;
    if (ok) {
        // The sum as it is under the write lock: the readers remove confirmed messages beside us.
        base::MutexLock lock(m_figuresLock);
        held = m_bytes;
    }
    const auto add = [&](const SpoolMessage& message) {
        change.bytes += static_cast<int64_t>(CostOf(message));
        ++change.messages;
        return Insert(message);
    };
    for (size_t i = 0; ok && i < m_memory.size(); ++i) ok = add(m_memory[i]);
    for (size_t i = 0; ok && i < batch.size(); ++i) ok = add(batch[i]->message);
    const auto bytes = static_cast<uint64_t>(std::max<int64_t>(0, held + change.bytes));
    if (ok && bytes > m_maxBytes) {
        ok = DropOldest(bytes, change);
        base::Statement note(m_writer, "UPDATE facts SET value = value + ?1 WHERE name = 'dropped';");
        note.Bind(1, static_cast<int64_t>(change.dropped));
        ok = ok && note.Done();
    }
    ok = ok && m_writer.Execute("COMMIT;");
    if (ok) return {};
    const base::Error error = m_writer.LastError("write");
    static_cast<void>(m_writer.Execute("ROLLBACK;"));  // ignoring: there may be no transaction any more
    return error;
}

void CEventSpool::KeepInMemory(const SpoolMessage& message) {
    base::MutexLock lock(m_figuresLock);
    if (m_memoryMost == 0) {
        ++m_figures.dropped;
        return;
    }
    while (m_memory.size() >= m_memoryMost) {
        m_memory.pop_front();
        ++m_figures.dropped;
    }
    m_memory.push_back(message);
    m_figures.inMemory = m_memory.size();
}

bool CEventSpool::CommitBatch(const std::vector<Request*>& batch) {
    Change change;
    base::Status written = WriteTransaction(batch, change);
    if (!written && m_reserve) {
        ReleaseReserve();
        written = WriteTransaction(batch, change);
    }
    const bool ok = written.Ok();
    bool wasBroken = false;
    {
        base::MutexLock lock(m_figuresLock);
        wasBroken = m_figures.broken;
        m_figures.broken = !ok;
        if (ok) {
            m_bytes += change.bytes;
            m_messages += change.messages;
            m_figures.dropped += change.dropped;
            m_figures.inMemory = 0;
        }
    }
    if (ok) {
        m_memory.clear();
        if (wasBroken) {
            Log(zel::kLogWarning, __LINE__, "the event spool %s can be written again%s", m_path, "");
        }
        Wake();
        return true;
    }
    for (Request* request : batch) KeepInMemory(request->message);
    Wake();  // somebody has to try again
    if (!wasBroken) {
        Log(zel::kLogError, __LINE__, "the event spool %s cannot be written (%s); messages wait in memory", m_path,
            written.GetError().Reason());
    }
    return false;
}

bool CEventSpool::Append(SpoolMessage message) {
    Request request;
    request.message = std::move(message);
    base::MutexLock lock(m_queueLock);
    m_queue.push_back(&request);
    while (!request.done) {
        if (m_leader) {
            m_committed.wait(m_queueLock);
            continue;
        }
        m_leader = true;
        std::vector<Request*> batch;
        batch.swap(m_queue);
        lock.unlock();
        const bool durable = CommitBatch(batch);
        lock.lock();
        m_leader = false;
        for (Request* each : batch) {
            each->durable = durable;
            each->done = true;
        }
        m_committed.notify_all();
    }
    lock.unlock();
    base::MutexLock figures(m_figuresLock);
    ++(request.durable ? m_figures.accepted : m_figures.refused);
    return request.durable;
}

bool CEventSpool::FlushMemory() {
    base::MutexLock lock(m_queueLock);
    while (m_leader) m_committed.wait(m_queueLock);
    if (m_memory.empty() && m_reserve) return true;
    m_leader = true;
    lock.unlock();
    bool ok = m_memory.empty();
    if (!ok) ok = CommitBatch({});
    if (ok && !m_reserve) TouchReserve();
    lock.lock();
    m_leader = false;
    m_committed.notify_all();
    return ok;
}

base::Status CEventSpool::SetSinks(const std::vector<std::string>& sinks) {
    base::MutexLock lock(m_readLock);
    std::vector<std::string> known;
    {
        base::Statement all(m_reader, "SELECT sink FROM cursors;");
        while (all.Row()) known.push_back(all.Text(0));
    }
    bool ok = true;
    for (const std::string& sink : known) {
        if (std::find(sinks.begin(), sinks.end(), sink) != sinks.end()) continue;
        base::Statement remove(m_reader, "DELETE FROM cursors WHERE sink = ?1;");
        remove.Bind(1, sink);
        ok = remove.Done() && ok;
    }
    for (const std::string& sink : sinks) {
        base::Statement add(m_reader, "INSERT OR IGNORE INTO cursors VALUES(?1, 0);");
        add.Bind(1, sink);
        ok = add.Done() && ok;
    }
    if (!ok) return m_reader.LastError("write");
    return {};
}

base::Result<std::vector<SpoolMessage>> CEventSpool::Read(const std::string& sink, size_t most, size_t mostBytes) {
    std::vector<SpoolMessage> messages;
    base::MutexLock lock(m_readLock);
    base::Statement query(m_reader,
                          "SELECT seq, time, type, body, extra, arg1, arg2 FROM messages"
                          " WHERE seq > coalesce((SELECT seq FROM cursors WHERE sink = ?1), 0)"
                          " ORDER BY seq LIMIT ?2;");
    if (!query.IsOk()) return m_reader.LastError("read");
    query.Bind(1, sink);
    query.Bind(2, static_cast<int64_t>(most));
    size_t bytes = 0;
    while (bytes < mostBytes && query.Row()) {
        SpoolMessage m;
        m.seq = query.Int(0);
        m.id = m_name + "-" + std::to_string(m.seq);
        m.time = query.Int(1);
        m.type = query.Text(2);
        m.body = query.Text(3);
        m.extra = query.Text(4);
        m.arg1 = static_cast<int>(query.Int(5));
        m.arg2 = static_cast<int>(query.Int(6));
        bytes += CostOf(m);
        messages.push_back(std::move(m));
    }
    return messages;
}

base::Status CEventSpool::Confirm(const std::string& sink, int64_t seq) {
    base::MutexLock lock(m_readLock);
    base::Statement move(m_reader, "UPDATE cursors SET seq = max(seq, ?2) WHERE sink = ?1;");
    move.Bind(1, sink);
    move.Bind(2, seq);
    if (!move.Done()) return m_reader.LastError("write");
    RemoveConfirmed();
    return {};
}

void CEventSpool::RemoveConfirmed() {
    if (!m_reader.Execute("BEGIN IMMEDIATE;")) return;
    int64_t count = 0, bytes = 0;
    bool ok = false;
    {
        base::Statement sum(m_reader,
                            "SELECT count(*), coalesce(sum(bytes), 0) FROM messages"
                            " WHERE seq <= (SELECT min(seq) FROM cursors);");
        if (sum.Row()) {
            count = sum.Int(0);
            bytes = sum.Int(1);
            ok = true;
        }
    }
    ok = ok && m_reader.Execute("DELETE FROM messages WHERE seq <= (SELECT min(seq) FROM cursors);");
    // The figures move before the write lock is given up, so that a writer's sums never count a message twice.
    base::MutexLock lock(m_figuresLock);
    if (!ok || !m_reader.Execute("COMMIT;")) {
        static_cast<void>(m_reader.Execute("ROLLBACK;"));  // ignoring: there may be no transaction any more
        return;
    }
    m_messages -= count;
    m_bytes -= bytes;
}

void CEventSpool::Checkpoint() {
    base::MutexLock lock(m_readLock);
    m_reader.Checkpoint();
}

uint64_t CEventSpool::News() {
    base::MutexLock lock(m_newsLock);
    return m_newsCount;
}

uint64_t CEventSpool::WaitForNews(uint64_t seen, unsigned int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    base::MutexLock lock(m_newsLock);
    while (m_newsCount == seen && m_news.wait_until(m_newsLock, end) != std::cv_status::timeout) {
    }
    return m_newsCount;
}

void CEventSpool::Wake() {
    {
        base::MutexLock lock(m_newsLock);
        ++m_newsCount;
    }
    m_news.notify_all();
}

CEventSpool::Figures CEventSpool::GetFigures() {
    base::MutexLock lock(m_figuresLock);
    Figures figures = m_figures;
    figures.messages = static_cast<uint64_t>(std::max<int64_t>(0, m_messages));
    figures.bytes = static_cast<uint64_t>(std::max<int64_t>(0, m_bytes));
    return figures;
}

uint64_t CEventSpool::Waiting(const std::string& sink) {
    base::MutexLock lock(m_readLock);
    base::Statement query(m_reader,
                          "SELECT count(*) FROM messages"
                          " WHERE seq > coalesce((SELECT seq FROM cursors WHERE sink = ?1), 0);");
    query.Bind(1, sink);
    return query.Row() ? static_cast<uint64_t>(query.Int(0)) : 0;
}

}  // namespace zelhost
