// The host's statistics registry.
#include "StatisticsRegistry.h"

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <new>
#include <system_error>

#include "base/Database.h"
#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/MakeDirectories.h"
#include "base/ProcFiles.h"
#include "sampling/ThreadFacts.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ProcessLoop.h"
#include "platform/zel/ThreadUtil.h"

void CMtIntf::RegMtInfoCallback(IMtInfo* info) {
    zelhost::CStatisticsRegistry::Instance().Register(info);
}
void CMtIntf::UnRegMtInfoCallback(IMtInfo* info) {
    zelhost::CStatisticsRegistry::Instance().Unregister(info);
}

namespace zelhost {
namespace {

/// A turn has threads of its own, in every process of the agent: not while the main process looks at who is there.
constexpr std::chrono::seconds kAhead(2);
/// So many are asked on the loop.
constexpr uint64_t kFewThreads = 64;
/// The next turn is far away.
constexpr std::chrono::milliseconds kNoLinger(0);

void Log(int level, int line, const std::string& text) {
    zel::CLogMessage::GetInstance()->log(level, "StatisticsRegistry", line, "%s", text.c_str());
}

}  // namespace

// --- history ---

base::Status CStatisticsHistory::Begin(const std::string& path) {
    m_path = path;
    m_rows.clear();
    m_failed = false;
    if (path.empty()) return {};
    const base::Status made = base::MakeDirectories(base::DirectoryOf(path));
    m_failed = !made;
    return made ? made : base::SentenceError(made.GetError().Text(), made.GetError().kind);
}

void CStatisticsHistory::Add(int64_t wallTime, const std::map<std::string, std::string>& values) {
    if (m_path.empty()) return;
    Row row;
    row.wallTime = wallTime;
    Names names;
    for (const auto& item : values) {
        names.push_back(item.first);
        row.values.append(item.second.c_str()).push_back('\0');
    }
    const bool same = !m_rows.empty() && *m_rows.back().names == names;
    row.names = same ? m_rows.back().names : std::make_shared<const Names>(std::move(names));
    row.values.shrink_to_fit();
    m_rows.push_back(std::move(row));
    if (m_rows.size() > 2 * kRowsPerWrite) m_rows.pop_front();
}

base::Status CStatisticsHistory::Write() {
    if (m_path.empty() || m_rows.empty()) return {};
    base::Status status = base::MakeDirectories(base::DirectoryOf(m_path));
    if (status) {
        status = WriteRows();
    } else {
        status = base::SentenceError(status.GetError().Text(), status.GetError().kind);
    }
    if (!status && status.GetError().kind == base::ErrorKind::kMalformed) {
        status = Replace(status.GetError());
        if (status) status = WriteRows();
    }
    m_failed = !status;
    if (status) m_rows.clear();
    return status;
}

base::Status CStatisticsHistory::Replace(const base::Error& why) {
    const std::string aside = m_path + ".corrupt";
    const base::Status moved = base::PutDatabaseAside(m_path, aside);
    if (!moved) return moved;
    Log(zel::kLogWarning, __LINE__,
        "the history of the statistics " + m_path + " is damaged (" + why.Reason() + "); put aside as " + aside);
    return {};
}

std::string CStatisticsHistory::FiguresOf(const Row& row) {
    Json::Value root(Json::objectValue);
    const char* value = row.values.c_str();
    for (const std::string& name : *row.names) {
        root[name] = value;
        value += root[name].asString().size() + 1;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, root);
}

std::vector<StatisticsRow> CStatisticsHistory::Waiting() const {
    std::vector<StatisticsRow> rows;
    for (const Row& row : m_rows) rows.push_back({row.wallTime, FiguresOf(row)});
    return rows;
}

base::Status CStatisticsHistory::WriteRows() {
    base::Database database;
    base::DatabaseOptions options;
    options.busyMs = 1000;
    // The last rows may be lost with the power; the file itself may not.
    options.setUp =
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
        "CREATE TABLE IF NOT EXISTS history(id INTEGER PRIMARY KEY AUTOINCREMENT,"
        " time INTEGER NOT NULL, figures TEXT NOT NULL);"
        "BEGIN IMMEDIATE;";
    base::Status opened = database.Open(m_path, options);
    if (!opened) return opened;
    base::Statement insert(database, "INSERT INTO history(time, figures) VALUES(?1, ?2);");
    base::Statement remove(database,
                           "DELETE FROM history WHERE time < ?1 OR id <= (SELECT max(id) FROM history) - ?2;");
    bool kept = insert.IsOk();
    for (auto row = m_rows.begin(); kept && row != m_rows.end(); ++row) {
        kept = insert.Bind(1, row->wallTime) && insert.Bind(2, FiguresOf(*row)) && insert.Done();
        insert.Reset();
    }
    kept = kept && remove.Bind(1, m_rows.back().wallTime - kKeptSeconds) && remove.Bind(2, kKeptRows) &&
           remove.Done() && database.Execute("COMMIT;");
    // Closing without a commit takes back what there is of it.
    return kept ? base::Status() : base::Status(database.LastError("write"));
}

// --- registry ---

struct CStatisticsRegistry::Worker {
    std::shared_ptr<Call> call;  // what to do next
    bool leftBehind = false;
    bool quit = false;
};

CStatisticsRegistry& CStatisticsRegistry::Instance() {
    static CStatisticsRegistry* registry = new CStatisticsRegistry;  // outlives a provider that never returns
    return *registry;
}

void CStatisticsRegistry::Register(IMtInfo* info) {
    if (info == nullptr) return;
    base::MutexLock lock(m_lock);
    for (const auto& provider : m_providers) {
        if (provider->info == info && !provider->removed) return;
    }
    auto provider = std::make_shared<Provider>();
    provider->info = info;
    m_providers.push_back(provider);
}

void CStatisticsRegistry::Unregister(IMtInfo* info) {
    base::MutexLock lock(m_lock);
    const auto found = std::find_if(m_providers.begin(), m_providers.end(),
                                    [&](const std::shared_ptr<Provider>& p) { return p->info == info; });
    if (found == m_providers.end()) return;
    const std::shared_ptr<Provider> provider = *found;
    m_providers.erase(found);
    provider->removed = true;
    if (provider->inside && provider->insideThread == std::this_thread::get_id()) return;
    while (provider->inside) m_changed.wait(m_lock);
}

base::Status CStatisticsRegistry::Start(unsigned int periodMs, unsigned int providerMs, const std::string& dbPath) {
    {
        base::MutexLock collecting(m_collectLock);
        m_historyProblem.clear();
        m_historyPath = dbPath == "-" ? std::string() : dbPath;
        NoteHistory(m_history.Begin(m_historyPath), "no history of the statistics, it is tried again");
        base::MutexLock lock(m_lock);
        m_providerMs = std::max(1u, providerMs);
        m_last = StatisticsSnapshot();
    }
    std::string problem;
    m_loop = zel::JoinProcessLoop(problem);
    if (m_loop == nullptr) {
        Stop();
        return base::SentenceError("statistics: " + problem);
    }
    m_period = std::chrono::milliseconds(std::max(1u, periodMs));
    m_jobs = std::make_unique<base::WorkQueue>(*m_loop, "Statistics", 1, kNoLinger);
    m_loop->Run([this] {
        m_timer = std::make_unique<base::IoTimer>(*m_loop);
        Schedule();
    });
    return {};
}

void CStatisticsRegistry::NoteHistory(const base::Status& outcome, const char* failed) {
    const std::string problem = outcome ? std::string() : outcome.GetError().Reason();
    if (problem == m_historyProblem) return;
    m_historyProblem = problem;
    const std::string line = problem.empty() ? "the history of the statistics " + m_historyPath + " is written again"
                                             : std::string(failed) + ": " + m_historyPath + ": " + problem;
    Log(zel::kLogWarning, __LINE__, line);
}

void CStatisticsRegistry::Stop() {
    if (m_loop != nullptr) m_loop->Run([this] { m_timer.reset(); });
    m_jobs.reset();
    m_loop.reset();
    base::MutexLock collecting(m_collectLock);
    WriteHistory();
}

void CStatisticsRegistry::Schedule() {
    m_timer->StartOnGrid(
        m_period,
        [this] {
            Schedule();
            // One that takes longer than the period goes on; its next turn is the one after it.
            if (m_collecting.exchange(true)) return;
            // Before the turn's own threads are there, so that those of before are all there are.
            bool sampled = false;
            try {
                if (base::CountOwnThreads() <= kFewThreads) {
                    CThreadFacts::Instance().SampleAtRest();
                    sampled = true;
                }
                if (!m_jobs->Add([this, sampled] { CollectInTurn(!sampled); })) m_collecting = false;
            } catch (const std::bad_alloc&) {
                m_collecting = false;  // the next turn may have the memory
            }
        },
        kAhead);
}

void CStatisticsRegistry::CollectInTurn(bool sampleThreads) {
    try {
        if (sampleThreads) CThreadFacts::Instance().SampleAtRest();  // the slow rhythm of the thread facts
        Collect();
    } catch (const std::bad_alloc&) {
        Log(zel::kLogWarning, __LINE__,
            "there is no memory for the statistics of this turn, the next turn tries again");
    }
    m_collecting = false;
}

std::shared_ptr<CStatisticsRegistry::Worker> CStatisticsRegistry::MakeWorker() {
    auto worker = std::make_shared<Worker>();
    try {
        // Detached on purpose: one that is inside a provider that never returns can be neither joined nor ended.
        std::thread([this, worker] { RunWorker(worker); }).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    return worker;
}

void CStatisticsRegistry::CallProvider(Call& call) {
    Provider& provider = *call.provider;
    if (provider.removed) {
        provider.inside = false;
        return;
    }
    provider.insideThread = std::this_thread::get_id();
    m_lock.unlock();
    std::map<std::string, std::string> values;
    bool ok = false;
    try {
        ok = provider.info->GetExceptionInfo(values);
    } catch (const std::exception& e) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "StatisticsRegistry", __LINE__,
                                             "a provider of statistics threw: %s", e.what());
    } catch (...) {
        zel::CLogMessage::GetInstance()->WriteLogMessage("a provider of statistics threw", zel::kLogWarning);
    }
    m_lock.lock();
    provider.inside = false;
    provider.insideThread = std::thread::id();
    call.values = std::move(values);
    call.ok = ok;
}

void CStatisticsRegistry::RunWorker(const std::shared_ptr<Worker>& worker) {
    zel::CThreadUtil::SetThreadName("StatisticsWork");
    base::MutexLock lock(m_lock);
    for (;;) {
        while (!worker->quit && worker->call == nullptr) m_changed.wait(m_lock);
        if (worker->call == nullptr) return;
        const std::shared_ptr<Call> call = worker->call;
        CallProvider(*call);
        call->done = true;
        worker->call.reset();
        m_changed.notify_all();
        if (worker->leftBehind) {
            --m_stuck;
            return;
        }
    }
}

void CStatisticsRegistry::Merge(const Call& call, StatisticsSnapshot& snapshot) {
    for (const auto& item : call.values) {
        if (snapshot.values.size() >= kMostEntries) return;
        if (item.first.size() > kMostKeyBytes) continue;
        snapshot.values.emplace(item.first, item.second.substr(0, kMostValueBytes));  // the first value wins
    }
}

void CStatisticsRegistry::Collect() {
    base::MutexLock collecting(m_collectLock);
    StatisticsSnapshot snapshot;
    {
        base::MutexLock lock(m_lock);
        const std::list<std::shared_ptr<Provider>> providers = m_providers;
        snapshot.providers = providers.size();
        for (const auto& provider : providers) {
            if (!provider->removed) Ask(provider, snapshot);
        }
        snapshot.wallTime = time(nullptr);
        snapshot.collections = m_last.collections + 1;
        m_last = snapshot;
        DismissWorker();
    }
    Keep(snapshot);
}

void CStatisticsRegistry::Ask(const std::shared_ptr<Provider>& provider, StatisticsSnapshot& snapshot) {
    if (provider->inside) {  // still in there from an earlier collection
        ++snapshot.slowProviders;
        return;
    }
    if (m_worker == nullptr && m_stuck < kStuckWorkers) m_worker = MakeWorker();
    if (m_worker == nullptr) {
        zel::CLogMessage::GetInstance()->log(
            zel::kLogWarning, "StatisticsRegistry", __LINE__,
            "%zu providers of statistics do not return and the others wait; restart the process, and mend them",
            m_stuck);
        ++snapshot.slowProviders;
        return;
    }
    auto call = std::make_shared<Call>();
    call->provider = provider;
    provider->inside = true;  // from the handing over on: a worker that is slow to begin counts as inside
    m_worker->call = call;
    m_changed.notify_all();
    if (!WaitForCall(*call)) {
        ++snapshot.slowProviders;
        return LeaveWorkerBehind();
    }
    if (!call->ok && !provider->removed) ++snapshot.failedProviders;
    Merge(*call, snapshot);
}

bool CStatisticsRegistry::WaitForCall(const Call& call) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_providerMs);
    while (!call.done && m_changed.wait_until(m_lock, end) != std::cv_status::timeout) {
    }
    return call.done;
}

void CStatisticsRegistry::LeaveWorkerBehind() {
    ++m_stuck;
    m_worker->leftBehind = true;
    m_worker.reset();
    zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "StatisticsRegistry", __LINE__,
                                         "a provider of statistics did not return within %u ms; left out",
                                         m_providerMs);
}

void CStatisticsRegistry::DismissWorker() {
    if (m_worker == nullptr) return;
    m_worker->quit = true;
    m_worker.reset();
    m_changed.notify_all();
}

void CStatisticsRegistry::Keep(const StatisticsSnapshot& snapshot) {
    m_history.Add(snapshot.wallTime, snapshot.values);
    if (m_history.IsDue()) WriteHistory();
}

void CStatisticsRegistry::WriteHistory() {
    NoteHistory(m_history.Write(), "the history of the statistics cannot be written, it is tried again");
}

StatisticsSnapshot CStatisticsRegistry::Snapshot() {
    base::MutexLock lock(m_lock);
    return m_last;
}

std::vector<StatisticsRow> CStatisticsRegistry::WaitingRows() {
    base::MutexLock collecting(m_collectLock);
    return m_history.Waiting();
}

}  // namespace zelhost
