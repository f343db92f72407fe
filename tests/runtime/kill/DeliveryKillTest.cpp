// Events of a process that is killed a thousand times at random moments: whatever SendMsg said yes to arrives, each
// event under one id, and the files can be read after any kill.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/HostServices.h"
#include "platform/host/MsgTransmit.h"
#include "platform/zel/LogControl.h"
#include "support/Files.h"
#include "support/SqliteCheck.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kKills = 1000;
constexpr int kSenders = 2;  // threads of the child: a commit carries the messages of both
constexpr unsigned int kLongestLifeUs = 30000;
constexpr int kRoundsPerLook = 25;  // the stores are looked at after every so many kills
constexpr unsigned int kRotatedFiles = 400;
constexpr uint64_t kBytesPerFile = 512 * 1024;  // small, so that the kills also meet rotations

/// Numbers do not repeat: the child's round, the sender, the count of the sender.
uint64_t NumberOf(int round, int sender, uint64_t count) {
    return (static_cast<uint64_t>(round * kSenders + sender) << 32) | count;
}

class DeliveryKillTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("ZEL_APP_DIR", m_directory.c_str(), 1); }

    zelhost::HostOptions Options() const {
        zelhost::HostOptions options;
        options.processName = "tervane";
        options.isMain = true;
        options.appDir = m_directory;
        options.statisticsDbPath = "-";
        options.metrics.enabled = zelhost::Switch::kOff;
        options.delivery.spoolPath = Spool();
        options.delivery.jsonLinesPath = Lines();
        options.delivery.jsonLinesMaxBytes = kBytesPerFile;
        options.delivery.jsonLinesKeep = kRotatedFiles;
        return options;
    }
    std::string Spool() const { return m_directory + "/e.db"; }
    std::string Lines() const { return m_directory + "/e.jsonl"; }

    /// The child's life: sends until it is killed, and tells each number that was accepted.
    [[noreturn]] void Send(int round, int tell) const {
        zel::LogOptions log;
        log.file = false;
        zel::ConfigureLog(log);
        zelhost::CHostServices services;
        std::string error;
        if (!services.Start(Options(), error)) {
            fprintf(stderr, "round %d: %s\n", round, error.c_str());
            _exit(1);
        }
        std::vector<std::thread> senders;
        for (int sender = 0; sender < kSenders; ++sender) {
            senders.emplace_back([round, sender, tell] {
                for (uint64_t count = 0;; ++count) {
                    const uint64_t number = NumberOf(round, sender, count);
                    const std::string body = "{\n\t\"number\" : " + std::to_string(number) + "\n}\n";
                    if (!GetMsgTransmitInstance()->SendMsg("T_MSG_OS_ABNORMAL", body, "", 1, 0)) _exit(2);
                    if (write(tell, &number, sizeof number) != sizeof number) _exit(3);
                }
            });
        }
        for (std::thread& sender : senders) sender.join();
        _exit(4);
    }

    /// Kills a child after a random time: of its start in every other round, of its first accepted event in the rest.
    void KillOne(int round, std::mt19937& random) {
        int pipes[2];
        ASSERT_EQ(0, pipe(pipes));
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(pipes[0]);
            Send(round, pipes[1]);
        }
        close(pipes[1]);
        const std::chrono::microseconds life(random() % (kLongestLifeUs + 1));
        bool begun = round % 2 == 0;
        Clock::time_point end = begun ? Clock::now() + life : Clock::now() + std::chrono::seconds(60);
        std::string told;
        for (bool open = true; open && Clock::now() < end;) {
            const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - Clock::now()).count();
            struct timespec wait {};
            wait.tv_sec = left > 0 ? left / 1000000000 : 0;
            wait.tv_nsec = left > 0 ? left % 1000000000 : 0;
            struct pollfd ready {
                pipes[0], POLLIN, 0
            };
            if (ppoll(&ready, 1, &wait, nullptr) <= 0) continue;
            open = ReadSome(pipes[0], told);
            if (!begun) {
                begun = true;
                end = Clock::now() + life;
            }
        }
        kill(child, SIGKILL);
        while (ReadSome(pipes[0], told)) continue;
        close(pipes[0]);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself: " << WEXITSTATUS(status);
        ASSERT_EQ(0u, told.size() % sizeof(uint64_t));
        if (!told.empty()) ++m_roundsThatSent;
        for (size_t at = 0; at < told.size(); at += sizeof(uint64_t)) {
            uint64_t number = 0;
            told.copy(reinterpret_cast<char*>(&number), sizeof number, at);
            ASSERT_TRUE(m_accepted.insert(number).second);
        }
    }

    static bool ReadSome(int fd, std::string& told) {
        char buffer[8192];
        ssize_t got = 0;
        do {
            got = read(fd, buffer, sizeof buffer);
        } while (got < 0 && errno == EINTR);
        if (got > 0) told.append(buffer, static_cast<size_t>(got));
        return got > 0;
    }

    /// What SQLite says of a database as a kill left it. Looks at a copy, so that the next child finds it untouched.
    std::string LookAt(const std::string& path) const {
        const std::string copy = m_directory + "/copy.db";
        return support::CheckCopyOfDatabase(path, copy);
    }

    /// A last run that is not killed and delivers what is left. In a process of its own like the others.
    void DeliverTheRest() const {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            zel::LogOptions log;
            log.file = false;
            zel::ConfigureLog(log);
            std::string error;
            bool flushed = false;
            {
                zelhost::CHostServices services;
                if (!services.Start(Options(), error)) _exit(1);
                flushed = services.FlushDelivery(120000);
                services.Stop();
            }
            _exit(flushed ? 0 : 2);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    /// Reads the files from the oldest to the current one.
    void ReadDelivered() {
        std::vector<std::string> files;
        for (unsigned int i = kRotatedFiles; i > 0; --i) files.push_back(Lines() + "." + std::to_string(i));
        ASSERT_NE(0, access(files.front().c_str(), F_OK)) << "the oldest file may have gone: keep more";
        files.push_back(Lines());
        for (const std::string& file : files) {
            std::ifstream in(file);
            for (std::string line; std::getline(in, line);) {
                ASSERT_FALSE(in.eof()) << "a line without an end in " << file;
                Json::Value root, body;
                ASSERT_TRUE(Json::Reader().parse(line, root)) << file << ": " << line;
                ASSERT_TRUE(Json::Reader().parse(root["body"].asString(), body)) << line;
                const std::string id = root["id"].asString();
                const uint64_t number = body["number"].asUInt64();
                ++m_lines;
                if (m_idsOf[number].insert(id).second) m_firstIds.push_back(id);
                m_numbersOf[id].insert(number);
            }
        }
    }

    // In memory, where there is such a place: a kill does not lose what was written, only a power cut would.
    const support::TempDir m_temp{support::Exists("/dev/shm") ? "/dev/shm" : ""};
    const std::string m_directory = m_temp.Path();
    std::set<uint64_t> m_accepted;
    int m_roundsThatSent = 0;
    size_t m_lines = 0;
    std::map<uint64_t, std::set<std::string>> m_idsOf;
    std::map<std::string, std::set<uint64_t>> m_numbersOf;
    std::vector<std::string> m_firstIds;  // in the order of the first delivery
};

}  // namespace

TEST_F(DeliveryKillTest, EveryEventArrivesUnderOneIdThroughKills) {
    const char* given = std::getenv("ZEL_KILL_SEED");
    const auto seed =
        given != nullptr ? static_cast<unsigned int>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    printf("seed %u (ZEL_KILL_SEED repeats it)\n", seed);
    std::mt19937 random(seed);
    for (int round = 0; round < kKills; ++round) {
        ASSERT_NO_FATAL_FAILURE(KillOne(round, random)) << "round " << round;
        if (round % kRoundsPerLook != 0) continue;
        ASSERT_EQ("ok", LookAt(Spool())) << "round " << round;
    }
    ASSERT_NO_FATAL_FAILURE(DeliverTheRest());
    EXPECT_EQ("ok", support::CheckDatabase(Spool()));
    ASSERT_NO_FATAL_FAILURE(ReadDelivered());
    printf("%zu accepted in %d rounds, %zu delivered in %zu lines\n", m_accepted.size(), m_roundsThatSent,
           m_idsOf.size(), m_lines);

    // Every other round waited for its first event, so half of them sent some.
    EXPECT_GE(m_roundsThatSent, kKills / 2);
    size_t lost = 0;
    for (const uint64_t number : m_accepted) lost += m_idsOf.count(number) == 0 ? 1 : 0;
    EXPECT_EQ(0u, lost);
    // At most one event of each sender was committed when its process was killed, and could not be told any more.
    EXPECT_LE(m_idsOf.size(), m_accepted.size() + static_cast<size_t>(kKills * kSenders));
    size_t severalIds = 0, severalEvents = 0;
    for (const auto& number : m_idsOf) severalIds += number.second.size() != 1 ? 1 : 0;
    for (const auto& id : m_numbersOf) severalEvents += id.second.size() != 1 ? 1 : 0;
    EXPECT_EQ(0u, severalIds) << "events came under several ids";
    EXPECT_EQ(0u, severalEvents) << "ids stand for several events";

    // In the order of the ids, all of one spool.
    ASSERT_FALSE(m_firstIds.empty());
    const std::string spool = m_firstIds[0].substr(0, m_firstIds[0].find('-') + 1);
    long long last = 0;
    size_t outOfOrder = 0;
    for (const std::string& id : m_firstIds) {
        ASSERT_EQ(spool, id.substr(0, spool.size())) << "the spool was replaced";
        const long long at = std::atoll(id.c_str() + spool.size());
        outOfOrder += at <= last ? 1 : 0;
        last = at;
    }
    EXPECT_EQ(0u, outOfOrder);
}
