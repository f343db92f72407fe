// The durable spool of event messages.
#include "events/EventSpool.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/MakeDirectories.h"
#include "platform/zel/LogMessage.h"

namespace zelhost {
namespace {

constexpr int kBusyMs = 2000;
// Room that is set aside while there is some: on a full disk it is given free, so that the messages which tell of
// the full disk still get through. Enough for some hundreds of messages with their pages in log and file.
constexpr off_t kReserveBytes = 512 * 1024;
constexpr mode_t kReserveMode = 0640;
// What is committed at once, and what waits in memory, is at most this part of what the write-ahead log may hold.
constexpr uint64_t kLogParts = 8;
// The log begins anew at about this length, below what it is cut to: writing over what is there already takes a disk
// less than making a file longer.
constexpr uint64_t kLogStep = 768 * 1024;
// What is waited for other senders is at most this part of a commit, and never longer than this.
constexpr int kLingerParts = 4;
constexpr std::chrono::milliseconds kMostLinger{20};
constexpr size_t kNameDigits = 16;
// Bytes of a database that hold its user version, and what that is in a spool that holds nothing: neither a message nor
// a count that somebody asks for. Source: sqlite.org/fileformat2.html, "The Database Header".
constexpr off_t kUserVersionAt = 60;
constexpr unsigned char kSettled[4] = {0, 0, 0, 1};
constexpr const char* kUnsettle = "PRAGMA user_version=0;";
constexpr off_t kSmallFile = 256 * 1024;  // a resting file beyond it is made small first
const std::string kGivenUpBy = "given up by ";
// Up to where a sink has everything; see BindCursor.
const std::string kCursor = "max(?2, coalesce((SELECT seq FROM cursors WHERE sink = ?1 AND ?3 = 0), 0))";
const std::string kPutAsideMark = ".corrupt-";
// Places of a damaged file that are stepped over; what is behind the last one is looked for from the end.
constexpr int kMostGaps = 64;
constexpr std::chrono::seconds kSalvagePatience{5};  // a disk that cannot read takes its time to say so
constexpr int64_t kMostStep = int64_t{1} << 40;      // beyond any number of a message
constexpr int64_t kMostNumber = int64_t{1} << 62;    // the same of a file as a whole
constexpr int64_t kMostRemoved = 512;                // of kept messages at a time: senders wait meanwhile
// A message's share of pages, index and log beyond its texts.
constexpr uint64_t kRowBytes = 128;

uint64_t CostOf(const SpoolMessage& m) {
    return m.type.size() + m.body.size() + m.extra.size() + kRowBytes;
}

void Log(int level, int line, const char* format, const std::string& a, const std::string& b) {
    zel::CLogMessage::GetInstance()->log(level, "EventSpool", line, format, a.c_str(), b.c_str());
}

}  // namespace

CEventSpool::~CEventSpool() {
    Close();
}

void CEventSpool::Close() {
    base::MutexLock lock(m_readLock);
    if (!m_memory.empty()) {
        Log(zel::kLogError, __LINE__, "the event spool %s: %s messages that waited in memory are lost", m_path,
            std::to_string(m_memory.size()));
    }
    m_unsavedDrops += m_memory.size();
    {
        base::MutexLock figures(m_figuresLock);
        m_figures.dropped += m_memory.size();
        m_figures.inMemory = 0;
    }
    m_memory.clear();
    m_memoryBytes = 0;
    // Ignoring failures: then a count is short, or messages come again under the same ids.
    if (m_resting.exchange(false) && (m_unsavedDrops > 0 || m_unsaved)) static_cast<void>(OpenFiles());
    static_cast<void>(SaveDrops());
    if (m_unsaved) static_cast<void>(KeepAndRemove());
    if (m_unsavedDrops == 0 && !m_unsaved && IsEmptied()) MarkSettled();
    CloseFiles();
}

void CEventSpool::CloseFiles() {
    m_insert.Finish();
    m_writer.Close();
    m_reader.Close();
}

base::Status CEventSpool::Open(const std::string& path, uint64_t maxBytes, size_t memoryRing) {
    m_path = path;
    m_maxBytes = maxBytes;
    m_memoryMost = memoryRing;
    m_resting = IsSettled();
    base::MutexLock lock(m_readLock);
    base::Status status = m_resting ? base::Status() : OpenFiles();
    base::MutexLock figures(m_figuresLock);
    m_figures.broken = !status;
    return status;
}

base::Status CEventSpool::OpenFiles() {
    base::Status status = base::MakeDirectories(base::DirectoryOf(m_path));
    if (!status) return base::SentenceError(status.GetError().Text(), status.GetError().kind);
    status = OpenOnce();
    const auto failedAs = [&](base::ErrorKind kind) { return !status && status.GetError().kind == kind; };
    if (!status && !failedAs(base::ErrorKind::kMalformed) && !failedAs(base::ErrorKind::kRefused)) {
        // A full disk, whatever SQLite calls it: the log and its index want room. That is what the reserve is for.
        ReleaseReserve();
        status = OpenOnce();
    }
    if (status && m_damage) status = SaveDamaged();
    // A file that is new here, because somebody took the other one away, must not number below the cursors.
    if (status && !GoOnCounting(0)) status = m_writer.LastError("write");
    if (status) m_openFailures = 0;
    const bool hopeless = failedAs(base::ErrorKind::kUnreadable) && ++m_openFailures >= kMostReadFailures;
    if (hopeless || failedAs(base::ErrorKind::kMalformed)) status = Replace(status.GetError());
    if (!status) CloseFiles();
    if (status) TouchReserve();
    return status;
}

base::Status CEventSpool::OpenOnce() {
    base::DatabaseOptions options;
    options.busyMs = kBusyMs;
    options.manyThreads = true;
    options.countLog = true;
    // FULL: a commit is on disk when it returns. The log is moved into the file once a second, and by a sender at a
    // rate at which it has become long by then.
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
        "INSERT OR IGNORE INTO facts VALUES('name', lower(hex(randomblob(8))));"
        // Behind every number that was given, where only damage leaves a cursor, it would swallow what comes.
        "UPDATE cursors SET seq = coalesce((SELECT seq FROM sqlite_sequence WHERE name = 'messages'), 0)"
        " WHERE seq > coalesce((SELECT seq FROM sqlite_sequence WHERE name = 'messages'), 0);"
        "COMMIT;";
    m_counted = false;
    m_nextLogBound = 0;
    m_nextLogMove = 0;
    base::Status status = m_writer.Open(m_path, options);
    if (status) status = ReadFacts();
    // A cursor that is lost with the power means a message delivered twice, with the same id: allowed, and cheap.
    options.setUp = "PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=0;";
    options.countLog = false;
    if (status) status = m_reader.Open(m_path, options);
    if (status) {
        ++m_generation;
        m_counted = true;
        m_readFailures = 0;
    } else {
        CloseFiles();
    }
    return status;
}

base::Status CEventSpool::ReadFacts() {
    m_insert = base::Statement(m_writer,
                               "INSERT INTO messages(time, type, body, extra, arg1, arg2, bytes, seq)"
                               " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8);");
    if (!m_insert.IsOk()) return m_writer.LastError("open");  // before another statement has a reason of its own
    base::Statement facts(m_writer,
                          "SELECT (SELECT value FROM facts WHERE name='name'),"
                          "(SELECT value FROM facts WHERE name='dropped'),"
                          "(SELECT count(*) FROM messages), (SELECT coalesce(sum(bytes), 0) FROM messages);");
    if (!facts.Row()) return m_writer.LastError("open");
    m_name = facts.Text(0);
    {
        base::MutexLock lock(m_figuresLock);
        m_figures.dropped = static_cast<uint64_t>(facts.Int(1)) + m_unsavedDrops;
        m_messages = facts.Int(2);
        m_bytes = facts.Int(3);
    }
    base::Statement version(m_writer, "PRAGMA user_version;");
    m_settled = version.Row() && version.Int(0) != 0;
    return ReadGivenUp();
}

base::Status CEventSpool::ReadGivenUp() {
    m_givenUp.clear();
    base::Statement facts(m_writer, "SELECT name, value FROM facts;");
    base::Statement::Outcome step = facts.Step();
    for (; step == base::Statement::Outcome::kRow; step = facts.Step()) {
        const std::string name = facts.Text(0);
        if (name.compare(0, kGivenUpBy.size(), kGivenUpBy) != 0) continue;
        m_givenUp[name.substr(kGivenUpBy.size())] = static_cast<uint64_t>(facts.Int(1));
    }
    if (step == base::Statement::Outcome::kFailed) return m_writer.LastError("open");
    return {};
}

// --- resting ---

bool CEventSpool::IsSettled() const {
    if (base::ReadFileMark(m_path + "-wal").size > 0 || base::ReadFileMark(ReservePath()).size < kReserveBytes) {
        return false;
    }
    const base::Result<base::Fd> file = base::OpenForReading(m_path);
    unsigned char version[sizeof(kSettled)] = {};
    return file && pread(file->Get(), version, sizeof(version), kUserVersionAt) == sizeof(version) &&
           std::equal(std::begin(version), std::end(version), std::begin(kSettled));
}

bool CEventSpool::IsEmptied() const {
    base::Statement any(m_writer, "SELECT count(*) FROM (SELECT 1 FROM messages LIMIT 1);");
    return any.Row() && any.Int(0) == 0;
}

void CEventSpool::MarkSettled() {
    // Ignoring failures: the next start opens the file and sees for itself.
    if (base::ReadFileMark(m_path).size > kSmallFile) {
        m_insert.Finish();
        static_cast<void>(m_writer.Execute("PRAGMA temp_store=MEMORY; VACUUM;"));
    }
    {
        base::MutexLock lock(m_figuresLock);
        if (m_settled || m_figures.dropped > 0) return;
    }
    if (m_givenUp.empty()) static_cast<void>(m_writer.Execute("PRAGMA user_version=1;"));
}

bool CEventSpool::TryRest() {
    if (m_resting) return true;
    if (!m_writer.IsOpen() || !m_memory.empty() || m_unsavedDrops > 0) return false;
    base::MutexLock lock(m_readLock);
    if (m_unsaved || !m_sinksKept) return false;
    // What a run that was killed has left, and what was kept for a sink that is gone.
    const bool emptied = IsEmptied() || (RemoveConfirmed() > 0 && IsEmptied());
    if (!emptied && !m_sinks.empty()) return false;
    if (emptied) MarkSettled();
    CloseFiles();
    m_restsOnSome = !emptied;
    m_resting = true;
    return true;
}

bool CEventSpool::Rest() {
    TakeLead();
    bool resting = false;
    try {
        resting = TryRest();
    } catch (const std::exception&) {
        // Ignoring: for want of memory, and it is only put off.
    }
    GiveUpLead();
    return resting;
}

// --- a damaged file ---

base::Status CEventSpool::PutAside(const base::Error& why) {
    Damage damage;
    damage.reason = why.Reason();
    damage.name = m_name;
    if (m_counted) {
        base::MutexLock lock(m_figuresLock);
        damage.had = m_messages;
    }
    CloseFiles();
    ReleaseReserve();
    damage.aside = m_path + kPutAsideMark + std::to_string(time(nullptr));
    for (int i = 2; base::ReadFileMark(damage.aside).exists; ++i) {
        damage.aside = m_path + kPutAsideMark + std::to_string(time(nullptr)) + "-" + std::to_string(i);
    }
    const base::Status status = base::PutDatabaseAside(m_path, damage.aside);
    // One that came after another was never written to: what is to be saved is in the first.
    if (status && !m_damage) m_damage = damage;
    // Ignoring a failure: more than one too many does not come of it.
    static_cast<void>(base::ThinOutPutAside(m_path + kPutAsideMark, kMostPutAside, 2 * MostLogBytes()));
    return status;
}

base::Status CEventSpool::Replace(const base::Error& why) {
    base::Status status = PutAside(why);
    if (status) status = OpenOnce();
    if (status) status = SaveDamaged();
    if (!status) {
        CloseFiles();
        return status;
    }
    // At a start it is not known yet who they are; what they have confirmed stays in memory until it is.
    return m_sinks.empty() ? status : KeepSinks();
}

base::Status CEventSpool::SaveDamaged() {
    Salvaged salvaged;
    base::Database old;
    base::DatabaseOptions options;
    options.setUp = "PRAGMA wal_autocheckpoint=0;";
    // Writable, because its log has to be read as well. Ignoring a failure: then there is nothing to save.
    static_cast<void>(old.Open(m_damage->aside, options));
    base::Status status = SalvageFacts(old, salvaged);
    if (!status) return status;
    const base::Status saved = SalvageTexts(old, salvaged);
    if (!saved) {
        Log(zel::kLogError, __LINE__, "the messages of %s cannot be written again: %s", m_damage->aside,
            saved.GetError().Reason());
        salvaged.saved = 0;
    }
    status = ReadFacts();
    if (status) NoteSalvaged(salvaged);
    return status;
}

void CEventSpool::NoteSalvaged(const Salvaged& salvaged) {
    // The numbers of what waits follow each other and the oldest go first. Of what was counted some may have been
    // confirmed, and could not be removed any more.
    int64_t had = m_damage->had;
    const int64_t first = std::max(salvaged.lowest, salvaged.confirmed + 1);
    if (salvaged.newest > 0) {
        had = had < 0 ? salvaged.newest - first + 1 : std::min(had, salvaged.newest - salvaged.confirmed);
    } else if (m_keeps) {
        had = -1;  // how many of them were kept only is not known
    }
    const auto lost = static_cast<uint64_t>(std::max<int64_t>(0, had - static_cast<int64_t>(salvaged.saved)));
    if (!NoteDrops(lost)) m_unsavedDrops += lost;
    {
        base::MutexLock lock(m_figuresLock);
        m_figures.dropped += lost;
    }
    Log(zel::kLogError, __LINE__, "the event spool %s is damaged (%s", m_path,
        m_damage->reason + "); put aside as " + m_damage->aside + ": " + std::to_string(salvaged.saved) +
            " messages saved, " +
            (had < 0 ? std::string("how many are lost is not known") : std::to_string(lost) + " lost"));
    m_damage.reset();
}

base::Status CEventSpool::SalvageFacts(const base::Database& old, Salvaged& salvaged) {
    bool ok = m_writer.Execute("BEGIN IMMEDIATE;").Ok();
    if (ok && old.IsOpen()) CopyFacts(old, salvaged);
    int64_t last = salvaged.newest;
    for (const auto& cursor : m_confirmed) last = std::max(last, cursor.second);
    // Neither is an id given twice: as many numbers may have been given as the file had room for.
    if (salvaged.sameName && !salvaged.numbered) last += static_cast<int64_t>(m_maxBytes / kRowBytes) + 1;
    ok = ok && GoOnCounting(last) && m_writer.Execute("COMMIT;");
    if (ok) return {};
    const base::Error error = m_writer.LastError("write");
    static_cast<void>(m_writer.Execute("ROLLBACK;"));  // ignoring: there may be no transaction any more
    return error;
}

base::Status CEventSpool::SalvageTexts(const base::Database& old, Salvaged& salvaged) {
    if (!old.IsOpen()) return {};
    base::Status status = m_writer.Execute("BEGIN IMMEDIATE;");
    if (status && !SalvageMessages(old, salvaged)) status = m_writer.LastError("write");
    if (status) status = m_writer.Execute("COMMIT;");
    if (!status) static_cast<void>(m_writer.Execute("ROLLBACK;"));  // ignoring: as above
    return status;
}

void CEventSpool::CopyFacts(const base::Database& old, Salvaged& salvaged) {
    // The ids stay those of the old file. What fails here costs a count or a cursor: a message comes a second time.
    base::Statement fact(m_writer, "INSERT OR REPLACE INTO facts VALUES(?1, ?2);");
    const auto keep = [&](const std::string& key, const auto& value) {
        fact.Reset();
        return fact.Bind(1, key) && fact.Bind(2, value) && fact.Done();
    };
    base::Statement facts(old, "SELECT name, value FROM facts;");
    bool& named = salvaged.sameName;
    while (facts.Row()) {
        const std::string key = facts.Text(0);
        if (key != "name") {
            static_cast<void>(keep(key, facts.Int(1)));
        } else if (facts.Text(1).size() == kNameDigits) {
            named = keep(key, facts.Text(1));
        }
    }
    if (!named && !m_damage->name.empty()) named = keep("name", m_damage->name);
    base::Statement sequence(old, "SELECT seq FROM sqlite_sequence WHERE name = 'messages';");
    if (sequence.Row() && sequence.Int(0) < kMostNumber) salvaged.newest = sequence.Int(0);
    salvaged.numbered = salvaged.newest > 0;
    const int64_t most = salvaged.numbered ? salvaged.newest : kMostNumber;
    base::Statement cursors(old, "SELECT sink, seq FROM cursors;");
    while (cursors.Row()) {
        int64_t& confirmed = m_confirmed[cursors.Text(0)];
        // A damaged page may say anything; what comes is numbered behind it, and what there is goes again rather.
        if (cursors.Int(1) <= most) confirmed = std::max(confirmed, cursors.Int(1));
    }
    if (!m_confirmed.empty()) {
        salvaged.confirmed = INT64_MAX;
        for (const auto& cursor : m_confirmed) salvaged.confirmed = std::min(salvaged.confirmed, cursor.second);
    }
}

bool CEventSpool::GoOnCounting(int64_t last) {
    // No new message is below what the sinks have confirmed.
    for (const auto& cursor : m_confirmed) last = std::max(last, cursor.second);
    base::Statement now(m_writer, "SELECT coalesce(max(seq), 0) FROM sqlite_sequence WHERE name = 'messages';");
    if (!now.Row()) return false;
    if (now.Int(0) >= last) return true;
    now.Finish();
    base::Statement begin(m_writer,
                          "INSERT INTO sqlite_sequence(name, seq) SELECT 'messages', 0 WHERE NOT EXISTS"
                          " (SELECT 1 FROM sqlite_sequence WHERE name = 'messages');");
    base::Statement count(m_writer, "UPDATE sqlite_sequence SET seq = max(seq, ?1) WHERE name = 'messages';");
    return begin.Done() && count.Bind(1, last) && count.Done();
}

bool CEventSpool::SalvageMessages(const base::Database& old, Salvaged& salvaged) {
    Run run;
    run.after = salvaged.confirmed;
    const auto end = std::chrono::steady_clock::now() + kSalvagePatience;
    for (int gaps = 0; gaps <= kMostGaps; ++gaps) {
        if (!SalvageRun(old, true, run, salvaged)) return false;
        if (run.whole) return true;
        // Behind the damage, as near to it as can be; then back to it from there.
        Run back;
        back.after = run.after;
        base::Statement next(old, "SELECT seq FROM messages WHERE seq >= ?1 ORDER BY seq LIMIT 1;");
        for (int64_t step = 1; step < kMostStep && back.before == INT64_MAX && gaps < kMostGaps; step *= 2) {
            if (std::chrono::steady_clock::now() > end) break;
            next.Reset();
            next.Bind(1, run.after + 1 + step);
            const base::Statement::Outcome found = next.Step();
            if (found == base::Statement::Outcome::kDone) break;
            if (found == base::Statement::Outcome::kRow && next.Int(0) > run.after) back.before = next.Int(0);
        }
        run.after = back.before - 1;
        const bool last = back.before == INT64_MAX;
        if (!SalvageRun(old, false, back, salvaged)) return false;
        if (last) return true;
    }
    return true;
}

bool CEventSpool::SalvageRun(const base::Database& old, bool forward, Run& run, Salvaged& salvaged) {
    // Not ">", for which the page of the number before is read as well.
    base::Statement query(old, std::string("SELECT seq, time, type, body, extra, arg1, arg2, bytes FROM messages"
                                           " WHERE seq >= ?1 AND seq < ?2 ORDER BY seq") +
                                   (forward ? ";" : " DESC;"));
    query.Bind(1, run.after + 1);
    query.Bind(2, std::min(run.before, kMostNumber));
    base::Statement::Outcome step = query.Step();
    for (; step == base::Statement::Outcome::kRow; step = query.Step()) {
        const SpoolMessage message = MessageOf(query);
        // A damaged page may say anything.
        if (message.seq <= run.after || message.seq >= run.before) return true;
        if (!SalvageOne(message, query.Int(7), salvaged)) return false;
        (forward ? run.after : run.before) = message.seq;
    }
    run.whole = step == base::Statement::Outcome::kDone;
    return true;
}

bool CEventSpool::SalvageOne(const SpoolMessage& message, int64_t weight, Salvaged& salvaged) {
    // What does not weigh what it weighed is no longer what was sent.
    if (static_cast<uint64_t>(weight) != CostOf(message)) return true;
    if (!Insert(message, message.seq)) return false;
    ++salvaged.saved;
    if (salvaged.lowest == 0 || message.seq < salvaged.lowest) salvaged.lowest = message.seq;
    salvaged.newest = std::max(salvaged.newest, message.seq);
    return true;
}

void CEventSpool::Repair(const base::Error& why, uint64_t generation) {
    TakeLead();
    {
        base::MutexLock lock(m_readLock);
        if (m_generation == generation) {
            const base::Status replaced = Replace(why);
            base::MutexLock figures(m_figuresLock);
            m_figures.broken = m_figures.broken || !replaced.Ok();
        }
    }
    GiveUpLead();
    Notify();
}

// --- the reserve ---

std::string CEventSpool::ReservePath() const {
    return m_path + ".reserve";
}

void CEventSpool::RemoveReserve() {
    static_cast<void>(base::RemoveFile(ReservePath()));  // ignoring: then that room stays taken
}

void CEventSpool::TouchReserve() {
    const base::Result<base::Fd> fd = base::OpenForUpdating(AT_FDCWD, ReservePath(), kReserveMode);
    m_reserve = fd && posix_fallocate(fd->Get(), 0, kReserveBytes) == 0;
    if (!m_reserve) RemoveReserve();
}

void CEventSpool::ReleaseReserve() {
    m_reserve = false;
    RemoveReserve();
}

// --- writing ---

bool CEventSpool::Insert(const SpoolMessage& message, int64_t seq) {
    const bool done = m_insert.Bind(1, message.time) && m_insert.BindBlob(2, message.type) &&
                      m_insert.BindBlob(3, message.body) && m_insert.BindBlob(4, message.extra) &&
                      m_insert.Bind(5, message.arg1) && m_insert.Bind(6, message.arg2) &&
                      m_insert.Bind(7, static_cast<int64_t>(CostOf(message))) && (seq == 0 || m_insert.Bind(8, seq)) &&
                      m_insert.Done();
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
        if (!confirmed || !m_sinksKept) ++change.dropped;
    }
    return true;
}

base::Status CEventSpool::WriteTransaction(const std::vector<Request*>& batch, Change& change) {
    change = Change();
    base::Status room = BoundLog();
    if (!room) return room;
    bool ok = m_writer.Execute(m_settled ? std::string("BEGIN IMMEDIATE;") + kUnsettle : "BEGIN IMMEDIATE;").Ok();
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
    }
    if (const uint64_t drops = change.dropped + m_unsavedDrops; ok && drops > 0) ok = NoteDrops(drops);
    ok = ok && m_writer.Execute("COMMIT;");
    if (ok) {
        m_settled = false;
        return {};
    }
    const base::Error error = m_writer.LastError("write");
    static_cast<void>(m_writer.Execute("ROLLBACK;"));  // ignoring: there may be no transaction any more
    return error;
}

bool CEventSpool::NoteDrops(uint64_t count) {
    base::Statement note(m_writer, "UPDATE facts SET value = value + ?1 WHERE name = 'dropped';");
    note.Bind(1, static_cast<int64_t>(count));
    // The next start has to open a file that has a count.
    return (!m_settled || m_writer.Execute(kUnsettle)) && note.Done();
}

bool CEventSpool::SaveDrops() {
    if (m_unsavedDrops == 0) return true;
    if (!NoteDrops(m_unsavedDrops)) return false;
    m_unsavedDrops = 0;
    return true;
}

void CEventSpool::KeepInMemory(const SpoolMessage& message) {
    base::MutexLock lock(m_figuresLock);
    const auto drop = [&]() ZEL_REQUIRES(m_figuresLock) {
        ++m_figures.dropped;
        ++m_unsavedDrops;
    };
    if (m_memoryMost == 0) return drop();
    while (!m_memory.empty() && (m_memory.size() >= m_memoryMost || m_memoryBytes >= MostLogBytes() / kLogParts)) {
        m_memoryBytes -= CostOf(m_memory.front());
        m_memory.pop_front();
        drop();
    }
    try {
        m_memory.push_back(message);
    } catch (const std::exception&) {
        return drop();
    }
    m_memoryBytes += CostOf(message);
    m_figures.inMemory = m_memory.size();
}

void CEventSpool::ForgetMemory() {
    m_memory.clear();
    m_memoryBytes = 0;
    m_unsavedDrops = 0;
}

uint64_t CEventSpool::MostLogBytes() const {
    return std::max(m_maxBytes, kLeastLogBytes);
}

base::Status CEventSpool::BoundLog() {
    const uint64_t most = MostLogBytes();
    if (m_nextLogBound == 0) m_nextLogBound = most / 4;
    if (m_writer.LogBytes() < kLogStep) m_nextLogMove = kLogStep;
    if (m_writer.LogBytes() >= m_nextLogMove) {
        m_nextLogMove = m_writer.LogBytes() + kLogStep;
        m_writer.Checkpoint();
    }
    if (m_writer.LogBytes() < m_nextLogBound) return {};
    base::MutexLock lock(m_readLock);  // no reader of ours is in its way
    const base::Status restarted = m_writer.RestartLog();
    m_nextLogBound = most / 4;
    if (restarted) return {};
    // Somebody else reads: the next attempt a step later, and nothing more is written from three quarters on, where
    // there is still room for the largest commit.
    if (m_writer.LogBytes() < most / 4 * 3) {
        m_nextLogBound = m_writer.LogBytes() + most / kLogParts;
        return {};
    }
    return base::MakeError(base::ErrorKind::kNoSpace, "write", m_path,
                           "its write-ahead log is full: " + restarted.GetError().Reason());
}

base::Status CEventSpool::ReplaceLocked(const base::Error& why) {
    base::MutexLock lock(m_readLock);
    return Replace(why);
}

base::Status CEventSpool::WriteSomehow(const std::vector<Request*>& batch, Change& change) {
    if (m_resting) {
        base::Status opened = EnsureOpen();
        if (!opened) return opened;
    }
    if (!m_writer.IsOpen()) return base::SentenceError("it is not open yet");
    if (m_holdsKept && !MayKeep()) ReleaseKept();
    base::Status written = WriteTransaction(batch, change);
    if (!written && written.GetError().kind == base::ErrorKind::kMalformed) {
        const base::Status replaced = ReplaceLocked(written.GetError());
        // Without the lock: a log that what was saved has made long takes it.
        written = replaced ? WriteTransaction(batch, change) : replaced;
    }
    if (!written && written.GetError().kind != base::ErrorKind::kBusy && ReleaseKept()) {
        written = WriteTransaction(batch, change);
    }
    if (!written && m_reserve) {
        ReleaseReserve();
        written = WriteTransaction(batch, change);
    }
    return written;
}

bool CEventSpool::ReleaseKept() {
    if (!m_holdsKept || !m_writer.IsOpen()) return false;
    m_writer.Checkpoint();  // or the log would have to grow for it
    base::MutexLock lock(m_readLock);
    return RemoveUpTo(INT64_MAX) > 0;
}

bool CEventSpool::CommitBatch(const std::vector<Request*>& batch) {
    Change change;
    const base::Status written = WriteSomehow(batch, change);
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
        ForgetMemory();
    } else {
        for (const Request* request : batch) KeepInMemory(request->message);
    }
    try {
        TellOf(written, wasBroken);
    } catch (const std::exception&) {
        // Ignoring: for want of memory, and what was sent is kept and counted already.
    }
    return ok;
}

void CEventSpool::TellOf(const base::Status& written, bool wasBroken) {
    Notify();  // also of a failure: somebody has to try again
    if (written && wasBroken) {
        Log(zel::kLogWarning, __LINE__, "the event spool %s can be written again%s", m_path, "");
    }
    if (!written && !wasBroken) {
        Log(zel::kLogError, __LINE__,
            "the event spool %s cannot be written (%s); messages wait in memory: make room, the oldest are dropped",
            m_path, written.GetError().Reason());
    }
}

bool CEventSpool::CommitOrDrop(const std::vector<Request*>& batch) {
    try {
        return CommitBatch(batch);
    } catch (const std::exception&) {
        // For want of memory. Whoever waits gets an answer, and the next transaction begins without a rest of this.
        m_insert.Reset();
        static_cast<void>(m_writer.Execute("ROLLBACK;"));  // ignoring: there may be no transaction
        base::MutexLock lock(m_figuresLock);
        m_figures.dropped += batch.size();
        m_unsavedDrops += batch.size();
        return false;
    }
}

void CEventSpool::TakeLead() {
    base::MutexLock lock(m_queueLock);
    ++m_others;
    while (m_leader) m_committed.wait(m_queueLock);
    --m_others;
    m_leader = true;
}

bool CEventSpool::TryTakeLead() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyMs);
    base::MutexLock lock(m_queueLock);
    ++m_others;
    while (m_leader && m_committed.wait_until(m_queueLock, end) != std::cv_status::timeout) {
    }
    --m_others;
    if (m_leader) return false;
    m_leader = true;
    return true;
}

base::Status CEventSpool::Lead::Refused() const {
    return base::MakeError(base::ErrorKind::kBusy, "write", m_spool.m_path, "a commit has not ended yet");
}

void CEventSpool::GiveUpLead() {
    base::MutexLock lock(m_queueLock);
    m_leader = false;
    m_committed.notify_all();
}

void CEventSpool::WaitForOthers() {
    const auto end =
        std::chrono::steady_clock::now() + std::min<std::chrono::nanoseconds>(m_commitTime / kLingerParts, kMostLinger);
    while (m_queue.size() < m_expected && m_arrived.wait_until(m_queueLock, end) != std::cv_status::timeout) {
    }
}

std::vector<CEventSpool::Request*> CEventSpool::TakeBatch() {
    size_t count = 0;
    for (uint64_t bytes = 0; count < m_queue.size() && bytes < MostLogBytes() / kLogParts; ++count) {
        bytes += CostOf(m_queue[count]->message);
    }
    const auto end = m_queue.begin() + static_cast<std::ptrdiff_t>(count);
    std::vector<Request*> batch(m_queue.begin(), end);
    m_queue.erase(m_queue.begin(), end);
    return batch;
}

bool CEventSpool::Append(SpoolMessage message) {
    Request request;
    request.message = std::move(message);
    base::MutexLock lock(m_queueLock);
    m_queue.push_back(&request);
    if (m_queue.size() >= m_expected) m_arrived.notify_one();
    while (!request.done) {
        if (m_leader || m_others > 0) {
            m_committed.wait(m_queueLock);
            continue;
        }
        m_leader = true;
        WaitForOthers();
        std::vector<Request*> batch;
        try {
            batch = TakeBatch();
        } catch (const std::exception&) {
            m_leader = false;
            m_queue.erase(std::find(m_queue.begin(), m_queue.end(), &request));
            m_committed.notify_all();  // another one leads
            throw;
        }
        lock.unlock();
        const auto begun = std::chrono::steady_clock::now();
        const bool durable = CommitOrDrop(batch);
        const auto took = std::chrono::steady_clock::now() - begun;
        lock.lock();
        m_leader = false;
        m_commitTime = took;
        m_expected = batch.size() + m_queue.size();
        for (Request* each : batch) {
            each->durable = durable;
            each->done = true;
        }
        m_committed.notify_all();
    }
    lock.unlock();
    base::MutexLock figures(m_figuresLock);
    if (request.durable) {
        ++m_figures.accepted;
    } else {
        ++m_figures.refused;
    }
    return request.durable;
}

void CEventSpool::NoteRefused() {
    TakeLead();  // whose the count is
    {
        base::MutexLock lock(m_figuresLock);
        ++m_figures.refused;
        ++m_figures.dropped;
        ++m_unsavedDrops;
    }
    GiveUpLead();
    Notify();
}

base::Status CEventSpool::EnsureOpen() {
    if (m_writer.IsOpen()) return {};
    base::MutexLock lock(m_readLock);
    const bool rested = m_resting.exchange(false);
    const base::Status opened = OpenFiles();
    if (!opened) return opened;
    static_cast<void>(KeepSinks());  // ignoring: Settle tries it again
    if (rested) return {};
    Log(zel::kLogWarning, __LINE__, "the event spool %s can be written again%s", m_path, "");
    base::MutexLock figures(m_figuresLock);
    m_figures.broken = false;
    return {};
}

bool CEventSpool::Settle() {
    // What waits for nobody waits for whoever comes.
    const bool wanted = m_restsOnSome && !m_sinksKept;
    if (m_resting && !wanted && m_memory.empty() && m_unsavedDrops == 0 && !m_unsaved) return true;
    if (!EnsureOpen()) return false;
    if (!m_memory.empty() && !CommitBatch({})) return false;
    if (!SaveDrops()) return false;
    if (!m_reserve) TouchReserve();
    base::MutexLock lock(m_readLock);
    if (!m_sinksKept && !KeepSinks()) return false;
    return !m_unsaved || KeepAndRemove();
}

bool CEventSpool::FlushMemory() {
    TakeLead();
    const bool news = !m_writer.IsOpen() || m_unsaved;
    bool settled = false;
    try {
        settled = Settle();
    } catch (const std::exception&) {
        static_cast<void>(m_writer.Execute("ROLLBACK;"));  // as above
    }
    GiveUpLead();
    if (settled && news && !m_resting) Notify();
    return settled;
}

// --- reading ---

base::Status CEventSpool::SetSinks(const std::vector<std::string>& sinks, const KeepFor& keep) {
    {
        base::MutexLock lock(m_readLock);
        m_sinks = sinks;
        m_keep = keep;
        m_keeps = !keep.sink.empty();
        m_marks.clear();
        m_expired = 0;
        m_sinksKept = false;
    }
    Lead lead(*this);
    if (!lead) return lead.Refused();
    base::MutexLock lock(m_readLock);
    if (!m_reader.IsOpen()) return {};  // as soon as it is
    return KeepSinks();
}

base::Status CEventSpool::KeepSinks() {
    const auto isSink = [&](const std::string& name) ZEL_REQUIRES(m_readLock) {
        return std::find(m_sinks.begin(), m_sinks.end(), name) != m_sinks.end();
    };
    for (auto next = m_confirmed.begin(); next != m_confirmed.end();) {
        next = isSink(next->first) ? std::next(next) : m_confirmed.erase(next);
    }
    for (auto next = m_goneBack.begin(); next != m_goneBack.end();) {
        next = isSink(*next) ? std::next(next) : m_goneBack.erase(next);
    }
    std::vector<std::string> known;
    bool ok = false;
    {
        base::Statement all(m_reader, "SELECT sink FROM cursors;");
        base::Statement::Outcome step = all.Step();
        for (; step == base::Statement::Outcome::kRow; step = all.Step()) known.push_back(all.Text(0));
        // Of a list that is not whole a sink that is gone would hold back what the others have.
        ok = step == base::Statement::Outcome::kDone;
    }
    for (const std::string& sink : known) {
        if (isSink(sink)) continue;
        base::Statement remove(m_reader, "DELETE FROM cursors WHERE sink = ?1;");
        remove.Bind(1, sink);
        ok = remove.Done() && ok;
    }
    base::Status kept = ok ? KeepConfirmed() : base::Status(m_reader.LastError("write"));
    m_sinksKept = kept.Ok();
    if (kept) MarkConfirmed();
    return kept;
}

base::Result<std::vector<SpoolMessage>> CEventSpool::Read(const std::string& sink, size_t most, size_t mostBytes) {
    base::Error why;
    uint64_t generation = 0;
    {
        base::MutexLock lock(m_readLock);
        base::Result<std::vector<SpoolMessage>> messages = ReadOnce(sink, most, mostBytes);
        m_readFailures = messages ? 0 : m_readFailures + 1;
        if (messages) return messages;
        why = messages.GetError();
        // A disk that cannot be read at this place fails each time; what only was busy does not.
        const bool unclear = why.kind == base::ErrorKind::kUnreadable || why.kind == base::ErrorKind::kOther;
        const bool hopeless = unclear && m_readFailures >= kMostReadFailures;
        if (why.kind != base::ErrorKind::kMalformed && !hopeless) return messages;
        generation = m_generation;
    }
    Repair(why, generation);
    base::MutexLock lock(m_readLock);
    return ReadOnce(sink, most, mostBytes);
}

SpoolMessage CEventSpool::MessageOf(const base::Statement& row) const {
    SpoolMessage m;
    m.seq = row.Int(0);
    m.id = m_name + "-" + std::to_string(m.seq);
    m.time = row.Int(1);
    m.type = row.Text(2);
    m.body = row.Text(3);
    m.extra = row.Text(4);
    m.arg1 = static_cast<int>(row.Int(5));
    m.arg2 = static_cast<int>(row.Int(6));
    return m;
}

base::Result<std::vector<SpoolMessage>> CEventSpool::ReadOnce(const std::string& sink, size_t most, size_t mostBytes) {
    std::vector<SpoolMessage> messages;
    if (!m_reader.IsOpen()) return messages;  // what there is comes when it can be opened
    base::Statement query(m_reader, "SELECT seq, time, type, body, extra, arg1, arg2, " + kCursor +
                                        " FROM messages WHERE seq > " + kCursor + " ORDER BY seq LIMIT ?4;");
    if (!query.IsOk()) return m_reader.LastError("read");
    BindCursor(query, sink);
    query.Bind(4, static_cast<int64_t>(most));
    for (size_t bytes = 0; bytes < mostBytes;) {
        const base::Statement::Outcome step = query.Step();
        // What was read before the damage is good; the next call begins at the damage.
        if (step == base::Statement::Outcome::kFailed && messages.empty()) return m_reader.LastError("read");
        if (step != base::Statement::Outcome::kRow) break;
        const int64_t after = messages.empty() ? query.Int(7) : messages.back().seq;
        messages.push_back(MessageOf(query));
        messages.back().after = after;
        bytes += CostOf(messages.back());
    }
    return messages;
}

base::Status CEventSpool::Confirm(const std::string& sink, int64_t seq, uint64_t givenUp) {
    {
        base::MutexLock lock(m_readLock);
        m_confirmed[sink] = std::max(m_confirmed[sink], seq);
        if (givenUp > 0) m_unsavedGivenUp[sink] += givenUp;
        m_unsaved = true;
    }
    Lead lead(*this);
    if (!lead) return lead.Refused();
    base::MutexLock lock(m_readLock);
    return KeepAndRemove();
}

base::Status CEventSpool::KeepAndRemove() {
    base::Status kept = KeepConfirmed();
    if (kept) {
        MarkConfirmed();
        RemoveConfirmed();
    }
    return kept;
}

// --- confirmed messages that are kept ---

void CEventSpool::MarkConfirmed() {
    if (!m_keeps) return;
    base::Statement cursor(m_reader,
                           "SELECT seq, EXISTS(SELECT 1 FROM messages WHERE messages.seq <= cursors.seq) FROM cursors"
                           " WHERE sink = ?1;");
    if (!cursor.Bind(1, m_keep.sink) || !cursor.Row()) return;
    const int64_t seq = cursor.Int(0);
    // What it has gone back from is confirmed no more, and is kept anew when it is.
    m_expired = std::min(m_expired, seq);
    for (Mark& mark : m_marks) mark.seq = std::min(mark.seq, seq);
    if (cursor.Int(1) == 0 || seq <= (m_marks.empty() ? m_expired : m_marks.back().seq)) return;
    m_holdsKept = true;
    const Clock::time_point now = m_now();
    if (!m_marks.empty() && now - m_marks.back().begin < m_keep.time / kKeepParts) {
        m_marks.back().seq = seq;
    } else {
        m_marks.push_back({now, seq});
    }
}

bool CEventSpool::MayKeep() const {
    struct statvfs disk {};
    if (!m_keeps || !m_reserve || statvfs(base::DirectoryOf(m_path).c_str(), &disk) != 0) return false;
    return uint64_t{disk.f_bavail} * disk.f_frsize >= MostLogBytes();
}

int64_t CEventSpool::Expired() {
    if (!MayKeep()) return INT64_MAX;
    const Clock::time_point now = m_now();
    while (!m_marks.empty() && m_marks.front().begin + m_keep.time + m_keep.time / kKeepParts <= now) {
        m_expired = m_marks.front().seq;
        m_marks.pop_front();
    }
    return m_expired;
}

CEventSpool::Clock::time_point CEventSpool::KeptUntil() {
    base::MutexLock lock(m_readLock);
    if (m_marks.empty() || !MayKeep()) return Clock::time_point::min();
    return m_marks.back().begin + m_keep.time + m_keep.time / kKeepParts;
}

bool CEventSpool::RemoveExpired() {
    if (!m_keeps) return false;
    Lead lead(*this);
    if (!lead) return false;
    base::MutexLock lock(m_readLock);
    return RemoveConfirmed() > 0;
}

base::Status CEventSpool::GoBack(const std::string& sink, int64_t seq) {
    {
        base::MutexLock lock(m_readLock);
        m_confirmed[sink] = seq;
        m_goneBack.insert(sink);
        m_unsaved = true;
    }
    Lead lead(*this);
    if (!lead) return lead.Refused();
    base::MutexLock lock(m_readLock);
    return KeepAndRemove();
}

int64_t CEventSpool::ConfirmedBy(const std::string& sink) const {
    const auto found = m_confirmed.find(sink);
    return found != m_confirmed.end() ? found->second : 0;
}

void CEventSpool::BindCursor(base::Statement& query, const std::string& sink) const {
    query.Bind(1, sink);
    query.Bind(2, ConfirmedBy(sink));
    query.Bind(3, static_cast<int64_t>(m_goneBack.count(sink)));
}

base::Status CEventSpool::KeepConfirmed() {
    m_unsaved = true;
    bool ok = m_reader.Execute("BEGIN IMMEDIATE;").Ok();
    for (auto next = m_sinks.begin(); ok && next != m_sinks.end(); ++next) {
        base::Statement move(m_reader,
                             "INSERT INTO cursors VALUES(?1, ?2) ON CONFLICT(sink) DO UPDATE"
                             " SET seq = CASE ?3 WHEN 0 THEN max(seq, ?2) ELSE ?2 END;");
        BindCursor(move, *next);
        ok = move.Done();
    }
    for (auto next = m_unsavedGivenUp.begin(); ok && next != m_unsavedGivenUp.end(); ++next) {
        base::Statement count(m_reader,
                              "INSERT INTO facts VALUES(?1, ?2) ON CONFLICT(name) DO UPDATE SET value = value + ?2;");
        ok = (!m_settled || m_reader.Execute(kUnsettle)) && count.Bind(1, kGivenUpBy + next->first) &&
             count.Bind(2, static_cast<int64_t>(next->second)) && count.Done();
    }
    ok = ok && m_reader.Execute("COMMIT;");
    if (ok) {
        for (const auto& count : m_unsavedGivenUp) m_givenUp[count.first] += count.second;
        m_unsavedGivenUp.clear();
        m_goneBack.clear();
        m_unsaved = false;
        return {};
    }
    const base::Error error = m_reader.LastError("write");
    static_cast<void>(m_reader.Execute("ROLLBACK;"));  // ignoring: there may be no transaction any more
    return error;
}

uint64_t CEventSpool::GivenUp(const std::string& sink) {
    base::MutexLock lock(m_readLock);
    uint64_t count = 0;
    for (const auto* counts : {&m_givenUp, &m_unsavedGivenUp}) {
        const auto found = counts->find(sink);
        if (found != counts->end()) count += found->second;
    }
    return count;
}

int64_t CEventSpool::RemoveUpTo(int64_t last) {
    // A sink that is not in the file has none of them.
    if (last == 0 || !m_sinksKept || !m_reader.Execute("BEGIN IMMEDIATE;")) return 0;
    const std::string gone = m_keeps ? " WHERE seq <= min(?1, (SELECT min(seq) FROM cursors),"
                                       " (SELECT min(seq) FROM messages) + ?2);"
                                     : " WHERE seq <= (SELECT min(seq) FROM cursors);";
    int64_t count = 0, bytes = 0;
    bool ok = false;
    const auto bind = [&](base::Statement& statement) {
        return !m_keeps || (statement.Bind(1, last) && statement.Bind(2, kMostRemoved - 1));
    };
    {
        base::Statement sum(m_reader, "SELECT count(*), coalesce(sum(bytes), 0) FROM messages" + gone);
        if (bind(sum) && sum.Row()) {
            count = sum.Int(0);
            bytes = sum.Int(1);
            ok = true;
        }
    }
    {
        base::Statement remove(m_reader, "DELETE FROM messages" + gone);
        ok = ok && bind(remove) && remove.Done();
    }
    // The figures move before the write lock is given up, so that a writer's sums never count a message twice.
    base::MutexLock lock(m_figuresLock);
    if (!ok || !m_reader.Execute("COMMIT;")) {
        static_cast<void>(m_reader.Execute("ROLLBACK;"));  // ignoring: there may be no transaction any more
        return 0;
    }
    if (last == INT64_MAX && count < kMostRemoved) m_holdsKept = false;
    m_messages -= count;
    m_bytes -= bytes;
    return count;
}

void CEventSpool::Checkpoint() {
    base::MutexLock lock(m_readLock);
    m_reader.Checkpoint();
}

void CEventSpool::Notify() {
    if (m_listener) m_listener();
}

CEventSpool::Figures CEventSpool::GetFigures() {
    const int64_t kept = m_keeps ? CountKept() : 0;
    base::MutexLock lock(m_figuresLock);
    Figures figures = m_figures;
    const int64_t all = std::max<int64_t>(0, m_messages);
    figures.kept = static_cast<uint64_t>(std::min(kept, all));
    figures.messages = static_cast<uint64_t>(all) - figures.kept;
    figures.bytes = static_cast<uint64_t>(std::max<int64_t>(0, m_bytes));
    return figures;
}

int64_t CEventSpool::CountKept() {
    base::MutexLock lock(m_readLock);
    // From the other end, as those that wait are few.
    base::Statement waiting(m_reader,
                            "SELECT count(*) FROM messages WHERE seq > coalesce((SELECT min(seq) FROM cursors), 0);");
    const bool known = waiting.Row();
    base::MutexLock figures(m_figuresLock);
    return known ? std::max<int64_t>(0, m_messages - waiting.Int(0)) : 0;
}

uint64_t CEventSpool::Waiting(const std::string& sink) {
    base::MutexLock lock(m_readLock);
    if (m_resting && !m_restsOnSome) return 0;
    base::Statement query(m_reader, "SELECT count(*) FROM messages WHERE seq > " + kCursor + ";");
    BindCursor(query, sink);
    if (query.Row()) return static_cast<uint64_t>(query.Int(0));
    base::MutexLock figures(m_figuresLock);
    return static_cast<uint64_t>(std::max<int64_t>(0, m_messages));
}

}  // namespace zelhost
