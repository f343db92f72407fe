// The power fails at every place of a spool's life, with every change that was not synced there, gone or torn: what was
// acknowledged and not delivered is there, in order, under its own id, and nothing counts as damaged.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>

#include "events/EventSpool.h"
#include "events/SpoolMessages.h"
#include "support/Files.h"
#include "support/RecordedLog.h"
#include "sweep/LoggedDisk.h"

using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

constexpr size_t kSector = 512;
constexpr uint64_t kMaxBytes = 1 << 20;
constexpr size_t kRing = 8;
constexpr int kStates = 6;              // of each place: nothing stays, everything, four between
constexpr size_t kDefaultStates = 500;  // in every run

/// What the caller of the spool knew, and from which place of the log on.
struct Promise {
    size_t place;
    int number;
};

class PowerCutTest : public ::testing::Test {
protected:
    static const char* Sink() { return "one"; }

    bool Append(CEventSpool& spool, const sweep::LoggedDisk& disk) {
        ++m_number;
        // Of many lengths, so that some fill pages of their own.
        const std::string body =
            std::to_string(m_number) + " " + std::string(static_cast<size_t>(m_number * 977 % 9000), '.');
        if (!spool.Append(Message(body))) return false;
        m_accepted.push_back({disk.Length(), m_number});
        return true;
    }
    void Deliver(CEventSpool& spool, const sweep::LoggedDisk& disk, size_t most) {
        const auto messages = spool.Read(Sink(), most, 1 << 20);
        ASSERT_TRUE(messages.Ok());
        for (const SpoolMessage& message : *messages) {
            // From here on it may be gone.
            m_delivered.push_back({disk.Length(), std::atoi(message.body.c_str())});
            ASSERT_TRUE(spool.Confirm(Sink(), message.seq).Ok());
        }
    }

    /// A life with messages in bursts, deliveries, the log moved, the file closed and opened again, two processes.
    void Live(const sweep::LoggedDisk& disk, const std::string& path) {
        for (int process = 0; process < 2; ++process) {
            CEventSpool spool;
            ASSERT_TRUE(spool.Open(path, kMaxBytes, kRing).Ok());
            ASSERT_TRUE(spool.SetSinks({Sink()}).Ok());
            for (int burst = 0; burst < 4; ++burst) {
                for (int i = 0; i < 6; ++i) ASSERT_TRUE(Append(spool, disk));
                Deliver(spool, disk, burst % 2 == 0 ? 4 : 100);
                if (burst % 2 == 0) spool.Checkpoint();
                if (burst % 2 == 1) {
                    ASSERT_TRUE(spool.Rest());
                }
            }
            for (int i = 0; i < 3; ++i) ASSERT_TRUE(Append(spool, disk));
        }
    }

    /// The state of the disk, as another process finds it.
    static void Put(const std::map<std::string, std::string>& files, const std::string& from, const std::string& to) {
        for (const auto& [path, text] : files) {
            ASSERT_EQ(0u, path.find(from)) << path;
            std::ofstream(to + path.substr(from.size()), std::ios::binary) << text;
        }
    }

    void Check(const std::map<std::string, std::string>& files, const std::string& path, size_t place) {
        const support::TempDir directory(support::Exists("/dev/shm") ? "/dev/shm" : "");
        const std::string copy = directory / "e.db";
        ASSERT_NO_FATAL_FAILURE(Put(files, path, copy));
        support::TakeLogLines();
        std::vector<SpoolMessage> found;
        {
            CEventSpool spool;
            ASSERT_TRUE(spool.Open(copy, kMaxBytes, kRing).Ok());
            ASSERT_TRUE(spool.SetSinks({Sink()}).Ok());
            const auto messages = spool.Read(Sink(), 1000, 1 << 30);
            ASSERT_TRUE(messages.Ok());
            found = *messages;
            ASSERT_TRUE(spool.Append(Message("0 after it")));
        }
        for (const support::LogLine& line : support::TakeLogLines()) EXPECT_GT(line.level, 3) << line.text;
        for (const std::string& name : support::NamesIn(directory.Path())) {
            EXPECT_EQ(std::string::npos, name.find("corrupt")) << name;
        }
        ExpectKept(found, place);
    }

    void ExpectKept(const std::vector<SpoolMessage>& found, size_t place) {
        std::set<int> numbers;
        std::set<std::string> ids;
        int last = 0;
        for (const SpoolMessage& message : found) {
            const int number = std::atoi(message.body.c_str());
            EXPECT_GT(number, last) << "out of order";
            last = number;
            numbers.insert(number);
            EXPECT_TRUE(ids.insert(message.id).second) << message.id;
        }
        std::set<int> delivered;
        for (const Promise& promise : m_delivered) {
            if (promise.place <= place) delivered.insert(promise.number);
        }
        for (const Promise& promise : m_accepted) {
            if (promise.place > place || delivered.count(promise.number) > 0) continue;
            EXPECT_EQ(1u, numbers.count(promise.number)) << "message " << promise.number << " is lost";
        }
    }

    int m_number = 0;
    std::vector<Promise> m_accepted, m_delivered;
};

size_t StatesWanted() {
    const char* given = std::getenv("ZEL_SWEEP_STATES");
    if (given == nullptr) return kDefaultStates;
    return std::string(given) == "all" ? SIZE_MAX : static_cast<size_t>(std::atoi(given));
}

}  // namespace

TEST_F(PowerCutTest, WhatWasAcknowledgedIsThereWhenPowerReturns) {
    const char* given = std::getenv("ZEL_SWEEP_SEED");
    const auto seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::mt19937 random(seed);
    const support::TempDir directory(support::Exists("/dev/shm") ? "/dev/shm" : "");
    const std::string path = directory / "e.db";
    size_t places = 0;
    sweep::LoggedDisk disk;
    ASSERT_NO_FATAL_FAILURE(Live(disk, path));
    disk.Stop();
    places = disk.Length();
    const auto nothing = [](size_t) { return size_t{0}; };
    const auto everything = [](size_t bytes) { return bytes; };
    const auto some = [&random](size_t bytes) {
        const unsigned choice = random() % 4;
        if (choice < 2) return choice == 0 ? size_t{0} : bytes;
        return random() % (bytes / kSector + 1) * kSector;
    };
    std::vector<std::pair<size_t, int>> all;
    for (size_t place = 0; place <= places; ++place) {
        for (int state = 0; state < kStates; ++state) all.emplace_back(place, state);
    }
    std::shuffle(all.begin(), all.end(), random);
    all.resize(std::min(all.size(), StatesWanted()));
    for (const auto& [place, state] : all) {
        SCOPED_TRACE("place " + std::to_string(place) + ", state " + std::to_string(state) + ", seed " +
                     std::to_string(seed));
        Check(state == 0   ? disk.After(place, nothing)
              : state == 1 ? disk.After(place, everything)
                           : disk.After(place, some),
              path, place);
        if (HasFailure()) break;
    }
    printf("%zu places, %zu states of the disk, %zu messages, seed %u (ZEL_SWEEP_SEED repeats it)\n", places,
           all.size(), m_accepted.size(), seed);
}
