// What a service manager hears, on a socket like its own.
#include "ServiceManager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "LogTail.h"
#include "base/Fd.h"
#include "platform/zel/LogControl.h"
#include "support/Files.h"

using namespace agent;

namespace {

constexpr uint64_t kRounds = 10;

/// The manager's end: an abstract name, as it is given to services that have a file tree of their own.
class ServiceManagerTest : public testing::Test {
protected:
    void SetUp() override {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string name = "zel-manager-" + std::to_string(getpid());
        memcpy(address.sun_path + 1, name.data(), name.size());
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        m_socket.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        ASSERT_EQ(0, bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), length));
        setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
    }

    std::vector<std::string> Heard() const {
        std::vector<std::string> words;
        char word[256];
        ssize_t got = 0;
        while ((got = recv(m_socket.Get(), word, sizeof word, 0)) > 0) words.emplace_back(word, got);
        return words;
    }

    base::Fd m_socket;
};

using Words = std::vector<std::string>;

TEST_F(ServiceManagerTest, HearsReadyOnceAndTheStop) {
    ServiceManager manager;
    EXPECT_TRUE(manager.AwaitsReady());
    manager.TellReady();
    EXPECT_FALSE(manager.AwaitsReady());
    manager.TellStopping();
    EXPECT_EQ((Words{"READY=1", "STOPPING=1"}), Heard());
}

TEST_F(ServiceManagerTest, ComponentsInheritNothingOfIt) {
    setenv("WATCHDOG_USEC", "60000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    const ServiceManager manager;
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        EXPECT_EQ(nullptr, getenv(name)) << name;
}

TEST_F(ServiceManagerTest, WithoutOneNothingIsAwaitedOrSaid) {
    for (const char* address : {"", "relative", "/", "@"}) {
        setenv("NOTIFY_SOCKET", address, 1);
        ServiceManager manager;
        EXPECT_FALSE(manager.AwaitsReady()) << address;
        manager.TellReady();
        manager.Beat(100, kRounds, true);
    }
    setenv("NOTIFY_SOCKET", std::string(sizeof sockaddr_un::sun_path, '/').c_str(), 1);
    EXPECT_FALSE(ServiceManager().AwaitsReady());
    EXPECT_EQ(Words(), Heard());
}

TEST_F(ServiceManagerTest, WatchdogIsFedTwiceInItsPeriodByNewRounds) {
    setenv("WATCHDOG_USEC", "20000000", 1);
    ServiceManager manager;
    manager.Beat(100, kRounds, true);
    EXPECT_EQ(Words{"WATCHDOG=1"}, Heard());
    manager.Beat(109, kRounds + 9, true);
    EXPECT_EQ(Words(), Heard()) << "half of the period is not over";
    manager.Beat(110, kRounds + 10, true);
    EXPECT_EQ(Words{"WATCHDOG=1"}, Heard());
    manager.Beat(120, kRounds + 10, true);
    EXPECT_EQ(Words(), Heard()) << "the sampling made no round";
    manager.Beat(125, kRounds + 11, true);
    EXPECT_EQ(Words{"WATCHDOG=1"}, Heard()) << "it goes on at the first look that finds one";
    manager.Beat(135, kRounds + 21, false);
    EXPECT_EQ(Words(), Heard()) << "a thread hangs";
}

TEST_F(ServiceManagerTest, ShortPeriodIsKeptToo) {
    setenv("WATCHDOG_USEC", "4000000", 1);
    EXPECT_EQ(102, ServiceManager().NextBeat(100));
    EXPECT_EQ(INT64_MAX, ServiceManager().NextBeat(100)) << "without a manager nothing has to be done";
}

TEST_F(ServiceManagerTest, SaysOnceWhyWatchdogHearsNothing) {
    setenv("WATCHDOG_USEC", "20000000", 1);
    zel::LogOptions quiet;
    quiet.file = false;
    zel::ConfigureLog(quiet);
    ASSERT_TRUE(zel::FlushLog());  // what the tests before this one said
    const LogTail log;
    ServiceManager manager;
    manager.Beat(100, kRounds, true);
    manager.Beat(110, kRounds, true);
    manager.Beat(115, kRounds, true);
    manager.Beat(120, kRounds + 1, true);
    manager.Beat(130, kRounds + 2, false);
    ASSERT_TRUE(zel::FlushLog());
    StatusReport report;
    log.AddTo(report);
    std::string text;
    for (const std::string& line : report.logLines) text += line + "\n";
    const std::string told = "the service manager's watchdog is told nothing: ";
    EXPECT_EQ(1U, support::CountOf(text, told + "the sampling makes no rounds")) << text;
    EXPECT_EQ(1U, support::CountOf(text, told + "a thread of this process hangs")) << text;
}

TEST_F(ServiceManagerTest, WatchdogOfAnotherProcessIsNotFed) {
    setenv("WATCHDOG_USEC", "20000000", 1);
    setenv("WATCHDOG_PID", "1", 1);
    ServiceManager manager;
    manager.Beat(100, kRounds, true);
    EXPECT_EQ(Words(), Heard());
}

}  // namespace
