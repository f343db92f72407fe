// The statistics registry with providers that behave, and some that do not.
#include "StatisticsRegistry.h"

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <random>
#include <thread>

#include "HostSupport.h"
#include "base/IoLoop.h"
#include "platform/zel/ProcessLoop.h"

using support::Eventually;
using zelhost::CStatisticsRegistry;

namespace {

using Figures = std::map<std::string, std::string>;

class Provider : public IMtInfo {
public:
    explicit Provider(Figures values) : m_values(std::move(values)) { CMtIntf::RegMtInfoCallback(this); }
    ~Provider() override { CMtIntf::UnRegMtInfoCallback(this); }
    bool GetExceptionInfo(std::map<std::string, std::string>& info) override {
        ++m_calls;
        if (m_act) m_act();
        for (const auto& item : m_values) info.insert(item);
        return m_ok;
    }
    std::map<std::string, std::string> m_values;
    std::function<void()> m_act;
    std::atomic<int> m_calls{0};
    bool m_ok = true;
};

class StatisticsRegistryTest : public ::testing::Test {
protected:
    void Start(unsigned int periodMs = 3600000, unsigned int providerMs = 5000) {
        ASSERT_TRUE(support::IsOk(registry().Start(periodMs, providerMs, m_dir / "data/s.db")));
    }
    ~StatisticsRegistryTest() override { registry().Stop(); }
    CStatisticsRegistry& registry() { return CStatisticsRegistry::Instance(); }
    std::vector<std::pair<int64_t, std::string>> Rows() {
        std::vector<std::pair<int64_t, std::string>> rows;
        sqlite3* db = nullptr;
        EXPECT_EQ(sqlite3_open(("" + (m_dir / "data/s.db")).c_str(), &db), SQLITE_OK);
        sqlite3_exec(
            db, "SELECT time, figures FROM history ORDER BY id;",
            [](void* user, int, char** columns, char**) {
                static_cast<std::vector<std::pair<int64_t, std::string>>*>(user)->emplace_back(std::atoll(columns[0]),
                                                                                               columns[1]);
                return 0;
            },
            &rows, nullptr);
        sqlite3_close(db);
        return rows;
    }
    support::TempDir m_dir;
};

}  // namespace

TEST_F(StatisticsRegistryTest, CollectsEveryProviderFirstValueWins) {
    Start();
    Provider first(Figures{{"a", "1"}, {"both", "first"}}), second(Figures{{"b", "2"}, {"both", "second"}});
    registry().Collect();
    const auto snapshot = registry().Snapshot();
    EXPECT_EQ(snapshot.values, (std::map<std::string, std::string>{{"a", "1"}, {"b", "2"}, {"both", "first"}}));
    EXPECT_EQ(snapshot.providers, 2u);
    EXPECT_EQ(snapshot.failedProviders, 0u);
    registry().Stop();
    EXPECT_EQ(Rows().size(), 1u);
    EXPECT_EQ(Rows()[0].second, "{\"a\":\"1\",\"b\":\"2\",\"both\":\"first\"}");
}

TEST_F(StatisticsRegistryTest, CollectsInItsOwnRhythm) {
    Provider provider(Figures{{"a", "1"}});
    Start(10);
    EXPECT_TRUE(Eventually([&] { return provider.m_calls >= 5; }));
}

TEST_F(StatisticsRegistryTest, HasNoThreadBetweenItsCollections) {
    Provider provider(Figures{{"a", "1"}});
    Start(500);
    for (int calls = 1; calls <= 2; ++calls) {
        EXPECT_TRUE(Eventually([&] { return provider.m_calls >= calls; }));
        EXPECT_TRUE(Eventually([&] {
            // By name; the one that was left behind in another test is not counted.
            return support::ThreadsNamed("Statistics") + support::ThreadsNamed("StatisticsWork") == 0;
        }));
    }
}

TEST_F(StatisticsRegistryTest, AProviderThatHangsDoesNotEndTheRhythm) {
    std::atomic<bool> go{false};
    Provider blocking(Figures{{"late", "1"}}), good(Figures{{"good", "1"}});
    blocking.m_act = [&] {
        while (!go.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    Start(20, 50);
    EXPECT_TRUE(Eventually([&] { return good.m_calls >= 3; }));
    EXPECT_EQ(blocking.m_calls, 1);
    std::string problem;
    bool ran = false;
    zel::JoinProcessLoop(problem)->Run([&] { ran = true; });
    EXPECT_TRUE(ran) << "the loop goes on";
    go = true;
}

TEST_F(StatisticsRegistryTest, AProviderThatFailsOrThrowsHarmsNobody) {
    support::TakeLog();
    Start();
    Provider failing(Figures{{"kept", "1"}}), throwing(Figures{{"lost", "1"}}), good(Figures{{"good", "1"}});
    failing.m_ok = false;
    throwing.m_act = [] { throw std::runtime_error("broken provider"); };
    registry().Collect();
    const auto snapshot = registry().Snapshot();
    EXPECT_EQ(snapshot.values, (std::map<std::string, std::string>{{"kept", "1"}, {"good", "1"}}));
    EXPECT_EQ(snapshot.failedProviders, 2u);
    EXPECT_TRUE(support::LogHolds("3 a provider of statistics threw: broken provider"));
}

TEST_F(StatisticsRegistryTest, BlockedProviderIsOutUntilItReturns) {
    Start(3600000, 300);
    std::atomic<bool> go{false};
    Provider blocking(Figures{{"late", "1"}}), good(Figures{{"good", "1"}});
    blocking.m_act = [&] {
        while (!go.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    registry().Collect();
    registry().Collect();
    EXPECT_EQ(registry().Snapshot().values, (std::map<std::string, std::string>{{"good", "1"}}));
    EXPECT_EQ(registry().Snapshot().slowProviders, 1u);
    EXPECT_EQ(blocking.m_calls.load(), 1) << "not entered a second time";
    EXPECT_EQ(good.m_calls.load(), 2);
    go = true;
    EXPECT_TRUE(Eventually([&] {
        registry().Collect();
        return registry().Snapshot().values.size() == 2;
    }));
}

TEST_F(StatisticsRegistryTest, ABoundedNumberOfWorkersIsLeftBehind) {
    Start(3600000, 50);
    std::atomic<bool> go{false};
    std::vector<std::unique_ptr<Provider>> blocking;
    for (size_t i = 0; i < CStatisticsRegistry::kStuckWorkers + 3; ++i) {
        blocking.push_back(std::make_unique<Provider>(Figures{}));
        blocking.back()->m_act = [&] {
            while (!go.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        };
    }
    registry().Collect();
    const auto calls = [&] {
        size_t sum = 0;
        for (const auto& provider : blocking) sum += static_cast<size_t>(provider->m_calls.load());
        return sum;
    };
    EXPECT_TRUE(Eventually([&] { return calls() == CStatisticsRegistry::kStuckWorkers; }));
    registry().Collect();
    EXPECT_EQ(calls(), CStatisticsRegistry::kStuckWorkers) << "nobody is entered a second time";
    EXPECT_EQ(registry().Snapshot().slowProviders, blocking.size());
    go = true;
    blocking.clear();
}

TEST_F(StatisticsRegistryTest, UnregisteringWaitsForCallThatIsInside) {
    Start();
    std::atomic<bool> inside{false}, left{false};
    auto provider = std::make_unique<Provider>(Figures{});
    provider->m_act = [&] {
        inside = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        left = true;
    };
    std::thread collector([&] { registry().Collect(); });
    ASSERT_TRUE(Eventually([&] { return inside.load(); }));
    CMtIntf::UnRegMtInfoCallback(provider.get());
    EXPECT_TRUE(left.load());
    collector.join();
    registry().Collect();
    EXPECT_EQ(provider->m_calls.load(), 1) << "never called again";
}

TEST_F(StatisticsRegistryTest, AProviderMayUnregisterFromWithin) {
    Start();
    Provider provider(Figures{{"a", "1"}});
    provider.m_act = [&] { CMtIntf::UnRegMtInfoCallback(&provider); };
    registry().Collect();
    registry().Collect();
    EXPECT_EQ(provider.m_calls.load(), 1);
}

TEST_F(StatisticsRegistryTest, ProvidersAreNeverCalledAfterTheyWent) {
    Start(1);
    for (int round = 0; round < 200; ++round) {
        Provider provider(Figures{{"k", std::to_string(round)}});
        if (round % 10 == 0) Eventually([&] { return provider.m_calls > 0; });
    }
}

TEST_F(StatisticsRegistryTest, HugeFiguresAreBounded) {
    Start();
    std::map<std::string, std::string> many;
    for (int i = 0; i < 6000; ++i) many["key" + std::to_string(i)] = "1";
    Provider flooding(many), longValue(Figures{{std::string(300, 'k'), "1"}, {"long", std::string(100000, 'v')}});
    CMtIntf::UnRegMtInfoCallback(&flooding);
    registry().Collect();
    EXPECT_EQ(registry().Snapshot().values.size(), 1u) << "a key that is too long is left out";
    EXPECT_EQ(registry().Snapshot().values.at("long").size(), CStatisticsRegistry::kMostValueBytes);
    CMtIntf::RegMtInfoCallback(&flooding);
    registry().Collect();
    EXPECT_EQ(registry().Snapshot().values.size(), CStatisticsRegistry::kMostEntries);
}

TEST_F(StatisticsRegistryTest, TheHistoryKeepsADay) {
    zelhost::CStatisticsHistory history;
    ASSERT_TRUE(support::IsOk(history.Begin(m_dir / "data/s.db")));
    constexpr int64_t kStart = 1700000000;
    for (int minute = 0; minute < 1600; ++minute) {
        history.Add(kStart + minute * 60, {{"m", std::to_string(minute)}});
        if (!history.IsDue()) continue;
        ASSERT_TRUE(support::IsOk(history.Write()));
    }
    ASSERT_TRUE(support::IsOk(history.Write()));
    const auto rows = Rows();
    ASSERT_EQ(rows.size(), 1441u);
    EXPECT_EQ(rows.front().first, kStart + 159 * 60);
    EXPECT_EQ(rows.back().second, "{\"m\":\"1599\"}");
}

TEST_F(StatisticsRegistryTest, StandingClockDoesNotGrowTheHistory) {
    zelhost::CStatisticsHistory history;
    ASSERT_TRUE(support::IsOk(history.Begin(m_dir / "data/s.db")));
    for (int i = 0; i < 1700; ++i) {
        history.Add(1700000000, {});
        if (i % 50 != 49) continue;
        ASSERT_TRUE(support::IsOk(history.Write()));
    }
    EXPECT_EQ(Rows().size(), 1500u);
}

TEST_F(StatisticsRegistryTest, ADamagedHistoryIsPutAside) {
    support::WriteText(m_dir / "data/s.db",
                       "this is no database, and long enough to be read as a header of one....."
                       "........................................................................");
    Start();
    Provider provider(Figures{{"a", "1"}});
    registry().Collect();
    registry().Stop();
    EXPECT_EQ(Rows().size(), 1u);
    EXPECT_THAT(support::NamesIn(m_dir / "data"), testing::Contains("s.db.corrupt"));
}

TEST_F(StatisticsRegistryTest, CollectsFiguresWithoutAHistory) {
    support::TakeLog();
    support::WriteText(m_dir / "data", "a file where the directory should be");
    Start();
    Provider provider(Figures{{"a", "1"}});
    registry().Collect();
    EXPECT_EQ(registry().Snapshot().values.size(), 1u);
    registry().Collect();
    EXPECT_EQ(support::LogCount("3 no history of the statistics"), 1u);
    EXPECT_EQ(support::LogCount("cannot be written, it is tried again"), 0u) << "the same reason is told once";
    unlink((m_dir / "data").c_str());
    registry().Collect();
    EXPECT_EQ(Rows().size(), 3u) << "it begins when it can";
    EXPECT_EQ(support::LogCount("is written again"), 1u);
}

TEST_F(StatisticsRegistryTest, DamageBelowTheHeaderCostsOldRowsOnly) {
    constexpr size_t kPage = 4096;
    support::TakeLog();
    zelhost::CStatisticsHistory history;
    ASSERT_TRUE(support::IsOk(history.Begin(m_dir / "data/s.db")));
    for (int i = 0; i < 20; ++i) history.Add(1700000000, {{"a", "old"}});
    ASSERT_TRUE(support::IsOk(history.Write()));
    const std::string sound = support::ReadText(m_dir / "data/s.db");
    ASSERT_GT(sound.size(), kPage);
    support::WriteText(m_dir / "data/s.db", sound.substr(0, kPage) + std::string(sound.size() - kPage, '\x7f'));
    history.Add(1700000060, {{"a", "new"}});
    EXPECT_TRUE(support::IsOk(history.Write()));
    ASSERT_EQ(Rows().size(), 1u);
    EXPECT_EQ(Rows()[0].second, "{\"a\":\"new\"}");
    EXPECT_TRUE(support::LogHolds("3 the history of the statistics " + (m_dir / "data/s.db") + " is damaged"));
    EXPECT_TRUE(support::Exists(m_dir / "data/s.db.corrupt"));
}

TEST_F(StatisticsRegistryTest, RowsThatAreNotWrittenYetCanBeAskedFor) {
    Start();
    Provider provider(Figures{{"a", "one"}});
    registry().Collect();
    provider.m_values["a"] = "two";
    registry().Collect();
    const auto waiting = registry().WaitingRows();
    ASSERT_EQ(waiting.size(), 2u);
    EXPECT_EQ(waiting[0].figures, "{\"a\":\"one\"}");
    EXPECT_EQ(waiting[1].figures, "{\"a\":\"two\"}");
    EXPECT_TRUE(support::NamesIn(m_dir / "data").empty()) << "asking writes nothing";
    registry().Stop();
    EXPECT_TRUE(registry().WaitingRows().empty());
    EXPECT_EQ(Rows().size(), 2u);
}

TEST_F(StatisticsRegistryTest, AnHourOfFiguresIsWrittenAtOnce) {
    Start();
    Provider provider(Figures{{"a", "one"}, {"b", std::string("x\0y", 3)}, {"c", ""}});
    for (size_t i = 1; i < zelhost::CStatisticsHistory::kRowsPerWrite; ++i) registry().Collect();
    EXPECT_TRUE(support::NamesIn(m_dir / "data").empty()) << "nothing is written, nothing is opened";
    registry().Collect();
    EXPECT_EQ(support::NamesIn(m_dir / "data"), Lines{"s.db"}) << "and it is closed again";
    ASSERT_EQ(Rows().size(), 60u);
    EXPECT_EQ(Rows().back().second, "{\"a\":\"one\",\"b\":\"x\",\"c\":\"\"}");
    registry().Collect();
    EXPECT_EQ(Rows().size(), 60u);
    registry().Stop();
    EXPECT_EQ(Rows().size(), 61u) << "the stop writes the rest";
}

TEST_F(StatisticsRegistryTest, RowsThatCannotBeWrittenAreBounded) {
    zelhost::CStatisticsHistory history;
    ASSERT_TRUE(support::IsOk(history.Begin(m_dir / "data/s.db")));
    support::WriteText(m_dir / "data/s.db/in the way", "");
    for (int i = 0; i < 500; ++i) {
        history.Add(1700000000 + i, {{"i", std::to_string(i)}});
        EXPECT_FALSE(history.IsDue() && history.Write());
    }
    std::filesystem::remove_all(m_dir / "data/s.db");
    ASSERT_TRUE(support::IsOk(history.Write()));
    ASSERT_EQ(Rows().size(), 2 * zelhost::CStatisticsHistory::kRowsPerWrite);
    EXPECT_EQ(Rows().back().second, "{\"i\":\"499\"}");
}

TEST_F(StatisticsRegistryTest, AKilledWriterLeavesASoundHistory) {
    std::mt19937 random(4711);
    for (int round = 0; round < 40; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            zelhost::CStatisticsHistory history;
            if (!history.Begin(m_dir / "data/s.db")) _exit(1);
            for (int64_t i = 0;; ++i) {
                history.Add(1700000000 + i, {{"i", std::to_string(i)}});
                if (history.IsDue() && !history.Write()) _exit(2);
            }
        }
        usleep(static_cast<useconds_t>(random() % 20000));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "exit " << WEXITSTATUS(status) << " in round " << round;
    }
    support::TakeLog();
    zelhost::CStatisticsHistory history;
    ASSERT_TRUE(support::IsOk(history.Begin(m_dir / "data/s.db")));
    history.Add(1700000000, {{"a", "last"}});
    ASSERT_TRUE(support::IsOk(history.Write()));
    EXPECT_EQ(support::LogCount("is damaged"), 0u);
    const auto rows = Rows();
    ASSERT_GT(rows.size(), 60u);
    EXPECT_EQ((rows[rows.size() - 2].first + 1 - 1700000000) % 60, 0) << "what is written is written whole";
    EXPECT_EQ(rows.back().second, "{\"a\":\"last\"}");
}
