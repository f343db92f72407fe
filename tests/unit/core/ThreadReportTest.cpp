// The thread CPU report, compared to the byte.
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <thread>

#include "CoreFixture.h"
#include "Monitor.h"

namespace {

const std::string kHeader = "\nName                Pid       StatCnt     SysLoad     AvgLoad     Hit         \n";

CSysThreadsCpuUsage Thread(long tid, uint32_t statCnt, uint32_t sysLoad, uint32_t avgLoad, uint32_t hit) {
    CSysThreadsCpuUsage thread;
    thread.tid = tid;
    thread.statCnt = statCnt;
    thread.sysLoad = sysLoad;
    thread.avgLoad = avgLoad;
    thread.hit = hit;
    return thread;
}

class SysIntfDouble final : public CSysIntf {
public:
    void GetHighCpuUsageThread(long& tid, unsigned int& usage) override {
        doubles::P().Record("CSysIntf::GetHighCpuUsageThread()");
        seenTid = tid;
        seenUsage = usage;
        if (onFill) onFill();
        tid = busiestTid;
        usage = busiestUsage;
    }
    void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) override {
        doubles::P().Record("CSysIntf::GetThreadsCpuUsage()");
        list.insert(list.end(), threads.begin(), threads.end());
        if (onFill) onFill();
    }
    unsigned long GetCurrThreadId() override {
        doubles::P().Record("CSysIntf::GetCurrThreadId()");
        if (onCurrent) onCurrent();
        return currentId;
    }

    std::list<CSysThreadsCpuUsage> threads;
    long busiestTid = 0;
    unsigned int busiestUsage = 0;
    long seenTid = -1;
    unsigned int seenUsage = 99;
    unsigned long currentId = 321;
    std::function<void()> onFill, onCurrent;
};

class MonitorProbe : public CMonitor {
public:
    using CMonitor::m_monitorPoints;
};

/// Another thread that does one thing, once.
class Contender {
public:
    ~Contender() {
        if (m_thread.joinable()) m_thread.join();
    }
    /// Starts it. Returns: whether it is still held up when it has had plenty of time.
    bool IsHeldUpBy(std::function<void()> action) {
        Start(std::move(action));
        return m_ended.wait_for(kPlenty) == std::future_status::timeout;
    }
    /// Starts it. Returns: whether nothing holds it up.
    bool IsFreeTo(std::function<void()> action) {
        Start(std::move(action));
        return GetsThrough();
    }
    bool GetsThrough() { return m_thread.joinable() && m_ended.wait_for(kPatience) == std::future_status::ready; }

private:
    void Start(std::function<void()> action) {
        m_thread = std::thread([this, action] {
            m_started.set_value();
            action();
            m_done.set_value();
        });
        EXPECT_EQ(std::future_status::ready, m_started.get_future().wait_for(kPatience));
    }

    static constexpr std::chrono::milliseconds kPlenty{100};
    static constexpr std::chrono::seconds kPatience{20};
    std::promise<void> m_started, m_done;
    std::future<void> m_ended = m_done.get_future();
    std::thread m_thread;
};

class Point final : public IMonitorInfo {
public:
    explicit Point(std::string message) : m_message(std::move(message)) {}
    std::string GetMonitorMessage() override {
        doubles::P().Record("IMonitorInfo::GetMonitorMessage()");
        if (onAsked) onAsked();
        return m_message;
    }
    std::function<void()> onAsked;

private:
    std::string m_message;
};

}  // namespace

class ThreadReportTest : public CoreFixture {
protected:
    void SetUp() override {
        CoreFixture::SetUp();
        m_pri.reset();
        m_monitor = std::make_unique<MonitorProbe>();
        m_monitor->SetSysIntf(&m_sysIntf);
        journal();
    }
    void TearDown() override {
        m_monitor.reset();
        CoreFixture::TearDown();
    }

    SysIntfDouble m_sysIntf;
    std::unique_ptr<MonitorProbe> m_monitor;
};

TEST_F(ThreadReportTest, TabulatesNamesBusiestStackAndMessages) {
    m_sysIntf.threads = {Thread(101, 60, 5, 10, 3), Thread(102, 61, 6, 950, 4), Thread(103, 62, 7, 20, 5)};
    platform().threadNames = {{101, "collector"}, {102, "scanner"}, {103, ""}};
    platform().files.content["/proc/4242/task/102/stack"] = "[<0>] futex_wait\n[<0>] do_syscall_64\n";
    Point first("queue length 3");
    Point silent("");
    Point last("100%s of %d");
    for (IMonitorInfo* point : {&first, &silent, &last}) m_monitor->AddMonitorPoint(point);

    std::string report;
    unsigned int highTid = 7;
    m_monitor->GetThreadsInfo(report, &highTid);

    const std::string logged = kHeader +
                               "collector           101       60          5           10          3           \n"
                               "scanner             102       61          6           950         4           \n"
                               "                    103       62          7           20          5           \n"
                               "[<0>] futex_wait\n[<0>] do_syscall_64\n"
                               "curr pid 321\n";
    EXPECT_EQ(logged + "queue length 3\n100%s of %d\n", report);
    EXPECT_EQ(102u, highTid);
    EXPECT_EQ(
        Lines({"CSysIntf::GetThreadsCpuUsage()", "CThreadUtil::GetThreadName(101)", "CThreadUtil::GetThreadName(102)",
               "CThreadUtil::GetThreadName(103)", "F4 [Monitor] cpu high thread id:102",
               "CFileUtil::ReadFileLineToList(/proc/4242/task/102/stack,104857600)", "CSysIntf::GetCurrThreadId()",
               "W4 " + logged, "IMonitorInfo::GetMonitorMessage()", "F4 [Monitor] Msg:queue length 3",
               "IMonitorInfo::GetMonitorMessage()", "IMonitorInfo::GetMonitorMessage()",
               "F4 [Monitor] Msg:100%s of %d"}),
        journal());
}

TEST_F(ThreadReportTest, PrintsOnlyTheHeaderWithoutASystemInterface) {
    m_monitor->SetSysIntf(nullptr);
    std::string report;
    unsigned int highTid = 7;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(kHeader + "curr pid 0\n", report);
    EXPECT_EQ(0u, highTid);
    EXPECT_EQ(Lines({"W4 " + report}), journal());
}

TEST_F(ThreadReportTest, AppendsToTheCallersTextAndLogsAllOfIt) {
    m_monitor->SetSysIntf(nullptr);
    std::string report = "before 100%\n";
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ("before 100%\n" + kHeader + "curr pid 0\n", report);
    EXPECT_EQ(Lines({"W4 before 100%\n" + kHeader + "curr pid 0\n"}), journal());
}

TEST_F(ThreadReportTest, ChoosesNobodyWhenEveryThreadIsIdle) {
    m_sysIntf.threads = {Thread(101, 60, 5, 0, 3), Thread(102, 61, 6, 0, 4)};
    std::string report;
    unsigned int highTid = 7;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(0u, highTid);
    EXPECT_EQ(Lines({"CSysIntf::GetThreadsCpuUsage()", "CThreadUtil::GetThreadName(101)",
                     "CThreadUtil::GetThreadName(102)", "CSysIntf::GetCurrThreadId()", "W4 " + report}),
              journal());
}

TEST_F(ThreadReportTest, ChoosesByAverageLoadAndTheEarlierOfTwo) {
    m_sysIntf.threads = {Thread(101, 9999, 9999, 10, 9999), Thread(102, 0, 0, 50, 0), Thread(103, 0, 0, 50, 0),
                         Thread(104, 0, 0, 49, 0)};
    std::string report;
    unsigned int highTid = 0;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(102u, highTid);
}

TEST_F(ThreadReportTest, ComparesLoadsAsUnsignedNumbers) {
    m_sysIntf.threads = {Thread(101, 0, 0, 2147483648u, 0), Thread(102, 0, 0, 4294967295u, 0), Thread(103, 0, 0, 1, 0)};
    std::string report;
    unsigned int highTid = 0;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(102u, highTid);
    EXPECT_NE(std::string::npos, report.find("4294967295  "));
}

TEST_F(ThreadReportTest, KeepsBusiestThreadToItselfWithoutAnOutput) {
    m_sysIntf.threads = {Thread(101, 1, 2, 30, 4)};
    platform().files.content["/proc/4242/task/101/stack"] = "secret\n";
    Point point("still here");
    m_monitor->AddMonitorPoint(&point);
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    const std::string logged = kHeader +
                               "                    101       1           2           30          4           \n"
                               "curr pid 321\n";
    EXPECT_EQ(logged + "still here\n", report);
    EXPECT_EQ(Lines({"CSysIntf::GetThreadsCpuUsage()", "CThreadUtil::GetThreadName(101)", "CSysIntf::GetCurrThreadId()",
                     "W4 " + logged, "IMonitorInfo::GetMonitorMessage()", "F4 [Monitor] Msg:still here"}),
              journal());
}

TEST_F(ThreadReportTest, SaysNothingAboutAStackThatCannotBeRead) {
    m_sysIntf.threads = {Thread(101, 1, 2, 30, 4)};
    std::string report;
    unsigned int highTid = 0;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(101u, highTid);
    EXPECT_EQ(Lines({"CSysIntf::GetThreadsCpuUsage()", "CThreadUtil::GetThreadName(101)",
                     "F4 [Monitor] cpu high thread id:101",
                     "CFileUtil::ReadFileLineToList(/proc/4242/task/101/stack,104857600)",
                     "CSysIntf::GetCurrThreadId()", "W4 " + report}),
              journal());
    EXPECT_EQ(
        kHeader + "                    101       1           2           30          4           \n" + "curr pid 321\n",
        report);
}

TEST_F(ThreadReportTest, AttachesNothingOfStackThatFailsHalfWay) {
    m_sysIntf.threads = {Thread(101, 1, 2, 30, 4)};
    platform().files.content["/proc/4242/task/101/stack"] = "[<0>] futex_wait\n";
    platform().files.failRead.insert("/proc/4242/task/101/stack");
    platform().files.failedReadLeavesLines = true;
    std::string report;
    unsigned int highTid = 0;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(101u, highTid);
    EXPECT_EQ(
        kHeader + "                    101       1           2           30          4           \n" + "curr pid 321\n",
        report);
}

TEST_F(ThreadReportTest, ShiftsTheRowOfALongNameInsteadOfCuttingIt) {
    m_sysIntf.threads = {Thread(101, 1, 2, 0, 4), Thread(102, 1, 2, 0, 4)};
    platform().threadNames = {{101, "exactly-twenty-chars"}, {102, "more-than-twenty-characters"}};
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(kHeader +
                  "exactly-twenty-chars101       1           2           0           4           \n"
                  "more-than-twenty-characters102       1           2           0           4           \n"
                  "curr pid 321\n",
              report);
}

TEST_F(ThreadReportTest, CutsARowAtTheLineBufferLineEndIncluded) {
    m_sysIntf.threads = {Thread(101, 1, 2, 0, 4)};
    platform().threadNames = {{101, std::string(2000, 'n')}};
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(kHeader + std::string(1023, 'n') + "curr pid 321\n", report);
}

TEST_F(ThreadReportTest, PrintsTheLow32BitsOfIds) {
    m_sysIntf.currentId = 4294967296UL + 5;
    m_sysIntf.threads = {Thread(4294967296L + 6, 1, 2, 3, 4)};
    std::string report;
    unsigned int highTid = 0;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(6u, highTid);
    EXPECT_EQ(
        kHeader + "                    6         1           2           3           4           \n" + "curr pid 5\n",
        report);
}

TEST_F(ThreadReportTest, NamesThreadsByTheWholeId) {
    constexpr long kId = (1L << 32) + 7;
    m_sysIntf.threads = {Thread(kId, 0, 0, 0, 0)};
    m_sysIntf.busiestTid = kId;
    platform().threadNames = {{7, "another"}, {kId, "mine"}};
    std::list<CSysThreadsCpuUsage> list;
    m_monitor->GetThreadsCpuUsage(list);
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ("mine", list.front().name);
    std::string name;
    long tid = 0;
    unsigned int usage = 0;
    m_monitor->GetHighCpuUsageThreadName(name, tid, usage);
    EXPECT_EQ("mine", name);
}

TEST_F(ThreadReportTest, TakesALoadOfOneForTheBusiest) {
    m_sysIntf.threads = {Thread(101, 0, 0, 1, 0)};
    std::string report;
    unsigned int highTid = 0;
    m_monitor->GetThreadsInfo(report, &highTid);
    EXPECT_EQ(101u, highTid);
}

// A message may come from code that looks after the points itself: what is no point needs no lock.
TEST_F(ThreadReportTest, IgnoresNoPointWhileThePointsAreAsked) {
    Point asking("asked");
    asking.onAsked = [this] {
        std::future<void> done = std::async(std::launch::async, [this] {
            m_monitor->AddMonitorPoint(nullptr);
            m_monitor->RemoveMonitorPoint(nullptr);
        });
        const bool ended = done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        EXPECT_TRUE(ended);
        if (!ended) _exit(1);  // the other thread waits for this one
    };
    m_monitor->AddMonitorPoint(&asking);
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(1u, m_monitor->m_monitorPoints.size());
}

TEST_F(ThreadReportTest, AsksTheSingletonForTheCurrentThread) {
    CMonitor other;  // takes the singleton's pointer and has no system interface
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(kHeader + "curr pid 0\n", report);
}

TEST_F(ThreadReportTest, LetsAMonitorPointAskForTheCurrentThread) {
    Point point("asked");
    point.onAsked = [this] { EXPECT_EQ(321u, m_monitor->GetCurrThreadId()); };
    m_monitor->AddMonitorPoint(&point);
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(kHeader + "curr pid 321\nasked\n", report);
}

TEST_F(ThreadReportTest, LetsTheSystemInterfaceAddAMonitorPoint) {
    Point point("added");
    m_sysIntf.onFill = [this, &point] { m_monitor->AddMonitorPoint(&point); };
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(kHeader + "curr pid 321\nadded\n", report);
}

TEST_F(ThreadReportTest, HoldsNoLockWhileThreadsAreNamedAndLogged) {
    m_sysIntf.threads = {Thread(101, 1, 2, 3, 4)};
    int entered = 0;
    Point stranger("");
    std::list<Contender> contenders;
    platform().keepInJournal = [&](const std::string& line) {
        if (line.rfind("CThreadUtil::GetThreadName", 0) == 0 || line.rfind("W4 ", 0) == 0) {
            ++entered;
            EXPECT_TRUE(contenders.emplace_back().IsFreeTo([&] {
                m_monitor->SetSysIntf(&m_sysIntf);
                m_monitor->RemoveMonitorPoint(&stranger);
            })) << line;
        }
        return true;
    };
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(2, entered);
    platform().keepInJournal = nullptr;
}

TEST_F(ThreadReportTest, AsksADuplicateMonitorPointTwice) {
    Point point("twice");
    m_monitor->AddMonitorPoint(&point);
    m_monitor->AddMonitorPoint(&point);
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(kHeader + "curr pid 321\ntwice\ntwice\n", report);
}

TEST_F(ThreadReportTest, SkipsAnEntryThatIsNull) {
    Point first("first"), last("last");
    m_monitor->AddMonitorPoint(&first);
    m_monitor->m_monitorPoints.push_back(nullptr);
    m_monitor->AddMonitorPoint(&last);
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_EQ(kHeader + "curr pid 321\nfirst\nlast\n", report);
}

// --- locks ---

TEST_F(ThreadReportTest, HoldsSystemInterfaceWhileItFillsAndNames) {
    const auto replace = [this] { m_monitor->SetSysIntf(&m_sysIntf); };
    Contender whileFilled, whileNamed;
    m_sysIntf.onFill = [&] { EXPECT_TRUE(whileFilled.IsHeldUpBy(replace)); };
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "CThreadUtil::GetThreadName(102)") {
            EXPECT_TRUE(whileNamed.IsHeldUpBy(replace));
        }
        return true;
    };
    m_sysIntf.busiestTid = 102;
    std::string name;
    long tid = 0;
    unsigned int usage = 0;
    m_monitor->GetHighCpuUsageThreadName(name, tid, usage);
    EXPECT_EQ(102, tid);
    EXPECT_TRUE(whileFilled.GetsThrough());
    EXPECT_TRUE(whileNamed.GetsThrough());
    platform().keepInJournal = nullptr;
}

TEST_F(ThreadReportTest, NamesUnderSameLockWithoutASystemInterface) {
    m_monitor->SetSysIntf(nullptr);
    Contender whileNamed;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == "CThreadUtil::GetThreadName(0)") {
            EXPECT_TRUE(whileNamed.IsHeldUpBy([this] { m_monitor->SetSysIntf(&m_sysIntf); }));
        }
        return true;
    };
    std::string name;
    long tid = 0;
    unsigned int usage = 0;
    m_monitor->GetHighCpuUsageThreadName(name, tid, usage);
    EXPECT_TRUE(whileNamed.GetsThrough());
    platform().keepInJournal = nullptr;
}

TEST_F(ThreadReportTest, HoldsTheSystemInterfaceWhileItFillsTheList) {
    Contender contender;
    m_sysIntf.onFill = [&] { EXPECT_TRUE(contender.IsHeldUpBy([this] { m_monitor->SetSysIntf(nullptr); })); };
    std::list<CSysThreadsCpuUsage> list;
    m_monitor->GetThreadsCpuUsage(list);
    EXPECT_TRUE(contender.GetsThrough());
}

TEST_F(ThreadReportTest, HoldsSystemInterfaceWhileTellingCurrent) {
    Contender contender;
    m_sysIntf.onCurrent = [&] { EXPECT_TRUE(contender.IsHeldUpBy([this] { m_monitor->SetSysIntf(nullptr); })); };
    EXPECT_EQ(321u, m_monitor->GetCurrThreadId());
    EXPECT_TRUE(contender.GetsThrough());
}

TEST_F(ThreadReportTest, HoldsTheMonitorPointsWhileTheyAreAsked) {
    Point point("asked"), late("late");
    Contender contender;
    point.onAsked = [&] { EXPECT_TRUE(contender.IsHeldUpBy([&] { m_monitor->AddMonitorPoint(&late); })); };
    m_monitor->AddMonitorPoint(&point);
    std::string report;
    m_monitor->GetThreadsInfo(report, nullptr);
    EXPECT_TRUE(contender.GetsThrough());
    EXPECT_EQ(kHeader + "curr pid 321\nasked\n", report);
}

// --- the list ---

TEST_F(ThreadReportTest, NamesEveryEntryOfTheListAlsoTheOldOnes) {
    m_sysIntf.threads = {Thread(102, 1, 2, 3, 4)};
    platform().threadNames = {{101, "old"}, {102, "new"}};
    std::list<CSysThreadsCpuUsage> list = {Thread(101, 0, 0, 0, 0)};
    list.front().name = "stale";
    m_monitor->GetThreadsCpuUsage(list);
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ("old", list.front().name);
    EXPECT_EQ("new", list.back().name);
    EXPECT_EQ(3u, list.back().avgLoad);
    EXPECT_EQ(
        Lines({"CSysIntf::GetThreadsCpuUsage()", "CThreadUtil::GetThreadName(101)", "CThreadUtil::GetThreadName(102)"}),
        journal());
}

TEST_F(ThreadReportTest, NamesTheListAlsoWithoutASystemInterface) {
    m_monitor->SetSysIntf(nullptr);
    platform().threadNames = {{101, "old"}};
    std::list<CSysThreadsCpuUsage> list = {Thread(101, 9, 8, 7, 6)};
    m_monitor->GetThreadsCpuUsage(list);
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ("old", list.front().name);
    EXPECT_EQ(7u, list.front().avgLoad);
    EXPECT_EQ(Lines({"CThreadUtil::GetThreadName(101)"}), journal());
}

// --- the busiest thread by name ---

TEST_F(ThreadReportTest, NamesTheBusiestThread) {
    m_sysIntf.busiestTid = 102;
    m_sysIntf.busiestUsage = 97;
    platform().threadNames = {{102, "scanner"}};
    std::string name = "stale";
    long tid = 55;
    unsigned int usage = 66;
    m_monitor->GetHighCpuUsageThreadName(name, tid, usage);
    EXPECT_EQ(0, m_sysIntf.seenTid) << "the outputs are zeroed first";
    EXPECT_EQ(0u, m_sysIntf.seenUsage);
    EXPECT_EQ("scanner", name);
    EXPECT_EQ(102, tid);
    EXPECT_EQ(97u, usage);
    EXPECT_EQ(Lines({"CSysIntf::GetHighCpuUsageThread()", "CThreadUtil::GetThreadName(102)"}), journal());
}

TEST_F(ThreadReportTest, NamesThreadZeroWithoutASystemInterface) {
    m_monitor->SetSysIntf(nullptr);
    platform().threadNames = {{0, "swapper"}};
    std::string name = "stale";
    long tid = 55;
    unsigned int usage = 66;
    m_monitor->GetHighCpuUsageThreadName(name, tid, usage);
    EXPECT_EQ("swapper", name);
    EXPECT_EQ(0, tid);
    EXPECT_EQ(0u, usage);
    EXPECT_EQ(Lines({"CThreadUtil::GetThreadName(0)"}), journal());
}
