// Sends events 1 to COUNT of one process of a host to a cluster of brokers as the relay does, at the pace of the rule,
// and prints how far it is: "AT <last stored>" now and then, "BACK <number>" where it was sent back, "DONE" at the end.
//   FleetSender SERVER[,SERVER] CA CREDENTIALS HOST PROCESS COUNT
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "broker/Lane.h"
#include "broker/NatsBroker.h"

namespace {

constexpr char kSpool[] = "00000000000000aa";
constexpr int64_t kMostEventsOfBatch = 9;
constexpr int64_t kMostWaitMs = 200;  // a new connection ends a pause
constexpr size_t kEventBytes = 200;

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

fleet::BrokerOptions OptionsOf(char** words) {
    fleet::BrokerOptions options;
    std::stringstream servers(words[1]);
    for (std::string server; std::getline(servers, server, ',');) options.servers.push_back(server);
    options.caFile = words[2];
    options.credsFile = words[3];
    options.host = words[4];
    options.requestMs = 2000;
    options.reconnectMs = 100;
    return options;
}

class Sender {
public:
    Sender(fleet::NatsBroker& broker, const std::string& process, int64_t count)
        : m_random(static_cast<uint32_t>(std::hash<std::string>()(process))),
          m_process(process),
          m_count(count),
          m_lane(broker, process, [this] {
              return fleet::Moment{NowMs(), static_cast<uint32_t>(m_random())};
          }) {}

    void Run() {
        while (m_stored < m_count) {
            if (m_asked <= m_stored) Ask();
            Take(m_lane.Deliver(m_frame));
        }
    }

private:
    /// The next batch: what was asked stays the same until it is answered.
    void Ask() {
        const int64_t first = m_stored + 1;
        m_asked = std::min(m_count, m_stored + 1 + static_cast<int64_t>(m_random() % kMostEventsOfBatch));
        m_frame.process = m_process;
        m_frame.batch = {kSpool, m_stored, first, m_asked};
        m_frame.events = static_cast<uint32_t>(m_asked - m_stored);
        m_frame.payload.clear();
        for (int64_t n = first; n <= m_asked; ++n) {
            if (n > first) m_frame.payload += '\n';
            m_frame.payload += "{\"n\":" + std::to_string(n) + ",\"text\":\"" + std::string(kEventBytes, 'x') + "\"}";
        }
    }

    void Take(const fleet::AnswerFrame& answer) {
        if (answer.step.kind == fleet::Step::Kind::kPause) {
            if (answer.reason != m_reason) std::fprintf(stderr, "%s: %s\n", m_process.c_str(), answer.reason.c_str());
            m_reason = answer.reason;
            std::this_thread::sleep_for(
                std::chrono::milliseconds(std::clamp<int64_t>(answer.step.pauseMs, 1, kMostWaitMs)));
            return;
        }
        if (answer.step.number < m_stored) std::printf("BACK %" PRId64 "\n", answer.step.number);
        m_stored = answer.step.number;
        if (answer.step.kind == fleet::Step::Kind::kGoBack) m_asked = m_stored;
        std::printf("AT %" PRId64 "\n", m_stored);
        std::fflush(stdout);
    }

    std::minstd_rand m_random;
    const std::string m_process;
    const int64_t m_count;
    int64_t m_stored = 0;
    int64_t m_asked = 0;
    fleet::BatchFrame m_frame;
    std::string m_reason;
    fleet::Lane m_lane;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: FleetSender SERVER[,SERVER] CA CREDENTIALS HOST PROCESS COUNT\n");
        return 2;
    }
    auto broker = fleet::NatsBroker::Open(OptionsOf(argv));
    if (!broker) {
        std::fprintf(stderr, "FleetSender: %s\n", broker.GetError().Text().c_str());
        return 1;
    }
    Sender(**broker, argv[5], std::atoll(argv[6])).Run();
    std::printf("DONE\n");
    return 0;
}
