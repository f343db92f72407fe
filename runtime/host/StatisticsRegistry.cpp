// The host's statistics registry.
#include "StatisticsRegistry.h"

#include <json/json.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "SecureFile.h"
#include "sampling/ThreadFacts.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ThreadUtil.h"

void CMtIntf::RegMtInfoCallback(IMtInfo* info) {
    zelhost::CStatisticsRegistry::Instance().Register(info);
}
void CMtIntf::UnRegMtInfoCallback(IMtInfo* info) {
    zelhost::CStatisticsRegistry::Instance().Unregister(info);
}

namespace zelhost {

// --- history ---

CStatisticsHistory::~CStatisticsHistory() {
    Close();
}

void CStatisticsHistory::Close() {
    if (m_db != nullptr) sqlite3_close(m_db);
    m_db = nullptr;
}

bool CStatisticsHistory::Open(const std::string& path, std::string& reason) {
    if (!MakeDirectories(DirectoryOf(path), reason)) return false;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const mode_t mask = umask(0027);
        int rc = sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr);
        umask(mask);
        if (rc == SQLITE_OK) {
            sqlite3_busy_timeout(m_db, 1000);
            // Figures of the last minutes may be lost with the power; the file itself may not.
            rc = sqlite3_exec(m_db,
                              "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                              "CREATE TABLE IF NOT EXISTS history(id INTEGER PRIMARY KEY AUTOINCREMENT,"
                              " time INTEGER NOT NULL, figures TEXT NOT NULL);",
                              nullptr, nullptr, nullptr);
        }
        if (rc == SQLITE_OK) return true;
        reason = m_db != nullptr ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc);
        Close();
        if (rc != SQLITE_NOTADB && rc != SQLITE_CORRUPT) return false;
        std::rename(path.c_str(), (path + ".corrupt").c_str());
    }
    return false;
}

bool CStatisticsHistory::Append(int64_t wallTime, const std::map<std::string, std::string>& values,
                                std::string& reason) {
    Json::Value root(Json::objectValue);
    for (const auto& item : values) root[item.first] = item.second;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::string text = Json::writeString(builder, root);
    sqlite3_stmt* insert = nullptr;
    int rc = sqlite3_prepare_v2(m_db, "INSERT INTO history(time, figures) VALUES(?1, ?2);", -1, &insert, nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_bind_int64(insert, 1, wallTime);
        sqlite3_bind_text(insert, 2, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
        rc = sqlite3_step(insert);
    }
    sqlite3_finalize(insert);
    if (rc != SQLITE_DONE) {
        reason = sqlite3_errmsg(m_db);
        return false;
    }
    char sql[256];
    std::snprintf(sql, sizeof(sql),
                  "DELETE FROM history WHERE time < %lld OR id <= (SELECT max(id) FROM history) - %d;",
                  static_cast<long long>(wallTime - kKeptSeconds), kKeptRows);
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        reason = sqlite3_errmsg(m_db);
        return false;
    }
    return true;
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
    std::lock_guard<std::mutex> lock(m_lock);
    for (const auto& provider : m_providers) {
        if (provider->info == info && !provider->removed) return;
    }
    auto provider = std::make_shared<Provider>();
    provider->info = info;
    m_providers.push_back(provider);
}

void CStatisticsRegistry::Unregister(IMtInfo* info) {
    std::unique_lock<std::mutex> lock(m_lock);
    const auto found = std::find_if(m_providers.begin(), m_providers.end(),
                                    [&](const std::shared_ptr<Provider>& p) { return p->info == info; });
    if (found == m_providers.end()) return;
    const std::shared_ptr<Provider> provider = *found;
    m_providers.erase(found);
    provider->removed = true;
    if (provider->inside && provider->insideThread == std::this_thread::get_id()) return;
    m_changed.wait(lock, [&] { return !provider->inside; });
}

bool CStatisticsRegistry::Start(unsigned int periodMs, unsigned int providerMs, const std::string& dbPath,
                                std::string& error) {
    std::string reason;
    {
        std::lock_guard<std::mutex> collecting(m_collectLock);
        m_historyFailed = false;
        if (dbPath != "-" && !m_history.Open(dbPath, reason)) {
            // Figures without a history are better than none.
            zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "StatisticsRegistry", __LINE__,
                                                 "no history of the statistics: %s: %s", dbPath.c_str(),
                                                 reason.c_str());
        }
        std::lock_guard<std::mutex> lock(m_lock);
        m_periodMs = std::max(1u, periodMs);
        m_providerMs = std::max(1u, providerMs);
        m_stop = false;
        m_last = StatisticsSnapshot();
    }
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error& e) {
        error = std::string("statistics: no thread: ") + e.what();
        return false;
    }
    return true;
}

void CStatisticsRegistry::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stop = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable()) m_thread.join();
    std::lock_guard<std::mutex> collecting(m_collectLock);
    m_history.Close();
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_worker) {
        m_worker->quit = true;
        m_worker.reset();
        m_changed.notify_all();
    }
}

void CStatisticsRegistry::Run() {
    zel::CThreadUtil::SetThreadName("Statistics");
    auto due = std::chrono::steady_clock::now();
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_lock);
            due = std::max(due + std::chrono::milliseconds(m_periodMs), std::chrono::steady_clock::now());
            if (m_changed.wait_until(lock, due, [this] { return m_stop; })) return;
        }
        CThreadFacts::Instance().Sample();  // the slow rhythm of the thread facts
        Collect();
    }
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

void CStatisticsRegistry::CallProvider(std::unique_lock<std::mutex>& lock, Call& call) {
    Provider& provider = *call.provider;
    if (provider.removed) {
        provider.inside = false;
        return;
    }
    provider.insideThread = std::this_thread::get_id();
    lock.unlock();
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
    lock.lock();
    provider.inside = false;
    provider.insideThread = std::thread::id();
    call.values = std::move(values);
    call.ok = ok;
}

void CStatisticsRegistry::RunWorker(const std::shared_ptr<Worker>& worker) {
    zel::CThreadUtil::SetThreadName("StatisticsWork");
    std::unique_lock<std::mutex> lock(m_lock);
    for (;;) {
        m_changed.wait(lock, [&] { return worker->quit || worker->call != nullptr; });
        if (worker->call == nullptr) return;
        const std::shared_ptr<Call> call = worker->call;
        CallProvider(lock, *call);
        call->done = true;
        worker->call.reset();
        m_changed.notify_all();
        if (worker->leftBehind) {
            --m_stuck;
            return;
        }
    }
}

void CStatisticsRegistry::Merge(const Call& call, StatisticsSnapshot& snapshot) const {
    for (const auto& item : call.values) {
        if (snapshot.values.size() >= kMostEntries) return;
        if (item.first.size() > kMostKeyBytes) continue;
        snapshot.values.emplace(item.first, item.second.substr(0, kMostValueBytes));  // the first value wins
    }
}

void CStatisticsRegistry::Collect() {
    std::lock_guard<std::mutex> collecting(m_collectLock);
    StatisticsSnapshot snapshot;
    std::unique_lock<std::mutex> lock(m_lock);
    const std::list<std::shared_ptr<Provider>> providers = m_providers;
    snapshot.providers = providers.size();
    for (const auto& provider : providers) {
        if (provider->removed) continue;
        if (provider->inside) {  // still in there from an earlier collection
            ++snapshot.slowProviders;
            continue;
        }
        if (m_worker == nullptr && m_stuck < kStuckWorkers) m_worker = MakeWorker();
        if (m_worker == nullptr) {
            zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "StatisticsRegistry", __LINE__,
                                                 "%zu providers of statistics do not return; the others wait", m_stuck);
            ++snapshot.slowProviders;
            continue;
        }
        auto call = std::make_shared<Call>();
        call->provider = provider;
        provider->inside = true;  // from the handing over on: a worker that is slow to begin counts as inside
        m_worker->call = call;
        m_changed.notify_all();
        if (m_changed.wait_for(lock, std::chrono::milliseconds(m_providerMs), [&] { return call->done; })) {
            if (!call->ok && !provider->removed) ++snapshot.failedProviders;
            Merge(*call, snapshot);
            continue;
        }
        ++snapshot.slowProviders;
        ++m_stuck;
        m_worker->leftBehind = true;
        m_worker.reset();
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "StatisticsRegistry", __LINE__,
                                             "a provider of statistics did not return within %u ms; left out",
                                             m_providerMs);
    }
    snapshot.wallTime = time(nullptr);
    snapshot.collections = m_last.collections + 1;
    m_last = snapshot;
    lock.unlock();
    Keep(snapshot);
}

void CStatisticsRegistry::Keep(const StatisticsSnapshot& snapshot) {
    if (!m_history.IsOpen()) return;
    std::string reason;
    const bool kept = m_history.Append(snapshot.wallTime, snapshot.values, reason);
    if (!kept && !m_historyFailed) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "StatisticsRegistry", __LINE__,
                                             "the history of the statistics cannot be written: %s", reason.c_str());
    }
    m_historyFailed = !kept;
}

StatisticsSnapshot CStatisticsRegistry::Snapshot() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_last;
}

}  // namespace zelhost
