// SQLite behind the seam: one connection, used by one thread at a time, that never waits long for another writer.
#include "platform/zel/SqliteDB.h"

#include <memory>
#include <vector>

#include "base/Database.h"

namespace zel {
namespace {

constexpr int kBusyTimeoutMs = 200;  // a caller has a round to keep: two seconds at most between its ticks

class SeamStatement final : public ISqliteStatement {
public:
    SeamStatement(base::Statement statement, int& lastError)
        : m_statement(std::move(statement)), m_lastError(lastError) {}

    bool Step() override {
        const base::Statement::Outcome outcome = m_statement.Step();
        if (outcome == base::Statement::Outcome::kFailed) m_lastError = m_statement.Code();
        return outcome == base::Statement::Outcome::kDone;
    }

    bool BindString(const std::string& name, const std::string& value) override {
        const int parameter = m_statement.Find(name);
        return Check(parameter != 0 && m_statement.Bind(parameter, value));
    }

    bool BindInt(const std::string& name, int value) override {
        const int parameter = m_statement.Find(name);
        return Check(parameter != 0 && m_statement.Bind(parameter, value));
    }

private:
    bool Check(bool done) {
        if (!done) m_lastError = m_statement.Code();
        return done;
    }

    base::Statement m_statement;
    int& m_lastError;
};

class SeamDatabase final : public ISqliteDB {
public:
    bool Open(const std::string& path, int& error) {
        base::DatabaseOptions options;
        options.busyMs = kBusyTimeoutMs;
        const bool opened = m_database.Open(path, options).Ok();
        error = m_database.Code();
        return opened;
    }

    ISqliteStatement* Compile(const std::string& sql) override {
        base::Statement statement(m_database, sql);
        if (!statement.IsOk()) {
            m_lastError = statement.Code();
            return nullptr;
        }
        m_statements.push_back(std::make_unique<SeamStatement>(std::move(statement), m_lastError));
        return m_statements.back().get();
    }

    void ReleaseStatement(ISqliteStatement* statement) override {
        for (auto at = m_statements.begin(); at != m_statements.end(); ++at) {
            if (at->get() != statement) continue;
            m_statements.erase(at);
            return;
        }
    }

    bool Execute(const std::string& sql) override {
        if (m_database.Execute(sql)) return true;
        m_lastError = m_database.Code();
        return false;
    }

    int GetLastError() override { return m_lastError; }

private:
    base::Database m_database;
    int m_lastError = 0;
    std::vector<std::unique_ptr<SeamStatement>> m_statements;  // gone before the database is closed
};

}  // namespace

ISqliteDB* GetSqliteDB(const std::string& path, int& error) {
    auto database = std::make_unique<SeamDatabase>();
    return database->Open(path, error) ? database.release() : nullptr;
}

void RemoveSqliteDB(ISqliteDB* db) {
    delete static_cast<SeamDatabase*>(db);
}

}  // namespace zel
