// Many simulated hosts of a fleet at one broker, in one thread: their connections, a steady minute's worth of events
// and states, a restart of the broker, a configuration for all. Prints "FIGURE name value"; at "RESTART" whoever
// started it restarts the broker and answers with a line. Whether each event is in the stream once is its verdict.
//   FleetScale PORT HOSTS SECONDS
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "SimHost.h"

namespace fleet {
namespace {

constexpr int kSkipped = 77;
constexpr int64_t kReconnectMs = 1000;  // and as much again by chance, as the relay's client does
constexpr int64_t kTickMs = 20;
constexpr int64_t kSettleMs = 5000;
constexpr int64_t kPhaseMs = 300000;  // none takes so long where all is well
constexpr rlim_t kSpareDescriptors = 64;
const char kConfigSubject[] = "$KV.config.all";

double NowUs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

void Print(const char* name, double value) {
    std::printf("FIGURE %s %.1f\n", name, value);
    std::fflush(stdout);
}

/// An administrator's console: makes the streams, puts the configuration and reads the states of all.
class Console : public Peer {
public:
    explicit Console(size_t hosts) : m_hosts(hosts) {}
    void OnOpen() override {
        out = ConnectLine("console") + Subscribe("_INBOX.console.*", 1) + Subscribe("$KV.state.>", 2) + "PING\r\n";
    }
    void OnClosed() override { m_ready = false; }
    bool OnBytes(std::string& bytes) override {
        return TakeMessages(bytes, [this](const WireMessage& message) {
            if (message.word == "PING") out += "PONG\r\n";
            if (message.word == "PONG") m_ready = true;
            if (message.word == "MSG") OnMessage(message);
        });
    }
    void OnTime() override {}
    bool IsReady() const override { return m_ready; }

    void Ask(const std::string& subject, const std::string& body) {
        m_answer = Json::Value();
        out += Publish(subject, "_INBOX.console.r", body);
    }
    /// The broker's answer to the last request; null until it is there.
    const Json::Value& Get() const { return m_answer; }
    void AwaitRevision(uint64_t revision) {
        m_revision = revision;
        m_have.clear();
    }
    bool HaveAll() const { return m_have.size() == m_hosts; }
    size_t Have() const { return m_have.size(); }

private:
    void OnMessage(const WireMessage& message) {
        if (message.subject == "_INBOX.console.r") {
            const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
            reader->parse(message.body.data(), message.body.data() + message.body.size(), &m_answer, nullptr);
            return;
        }
        const auto state = agent::ParseHostState(std::string(message.body));
        if (state && m_revision != 0 && state->config.applied == m_revision && state->config.error.empty()) {
            m_have.insert(state->host);
        }
    }

    const size_t m_hosts;
    bool m_ready = false;
    Json::Value m_answer;
    uint64_t m_revision = 0;
    std::set<std::string> m_have;
};

/// A connection that is made again and again.
struct Link {
    Peer* peer = nullptr;
    int fd = -1;
    int64_t dueMs = 0;
    bool connecting = false;
    bool wantsRoom = false;  // for what could not be sent
    std::string in;
};

class Loop {
public:
    Loop(SimShared& shared, int port) : m_shared(shared), m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
        m_address.sin_family = AF_INET;
        m_address.sin_port = htons(static_cast<uint16_t>(port));
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        SetTime();
    }
    ~Loop() {
        for (Link& link : m_links) {
            if (link.fd >= 0) close(link.fd);
        }
        close(m_epoll);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void Add(Peer& peer, int64_t dueMs) {
        m_links.emplace_back();
        m_links.back().peer = &peer;
        m_links.back().dueMs = dueMs;
    }
    /// Returns: false when it is not so in time.
    bool Until(const std::function<bool()>& done, int64_t mostMs = kPhaseMs) {
        const int64_t end = m_shared.nowMs + mostMs;
        while (!done()) {
            if (m_shared.nowMs > end) return false;
            Turn();
        }
        return true;
    }
    bool AllReady() const {
        return std::all_of(m_links.begin(), m_links.end(), [](const Link& link) { return link.peer->IsReady(); });
    }
    /// Returns: how many connections have ended.
    uint64_t Closed() const { return m_closed; }

private:
    void SetTime() {
        m_shared.nowUs = NowUs(CLOCK_MONOTONIC);
        m_shared.nowMs = static_cast<int64_t>(m_shared.nowUs / 1000);
    }

    void Turn() {
        std::array<epoll_event, 512> events{};
        const int count =
            epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), static_cast<int>(kTickMs));
        SetTime();
        for (int i = 0; i < count; ++i) {
            Link& link = m_links[events[static_cast<size_t>(i)].data.u64];
            if (link.fd >= 0) Serve(link, events[static_cast<size_t>(i)].events);
        }
        if (m_shared.nowMs < m_tickMs) return;
        m_tickMs = m_shared.nowMs + kTickMs;
        for (Link& link : m_links) {
            if (link.fd < 0 && m_shared.nowMs >= link.dueMs) Connect(link);
            link.peer->OnTime();
            if (link.fd >= 0 && !link.connecting) Flush(link);
        }
    }

    void Connect(Link& link) {
        link.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (link.fd < 0) return Close(link);
        const int on = 1;
        setsockopt(link.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        const int status = connect(link.fd, reinterpret_cast<sockaddr*>(&m_address), sizeof(m_address));
        if (status != 0 && errno != EINPROGRESS) return Close(link);
        link.connecting = true;
        Want(link, EPOLL_CTL_ADD, EPOLLOUT);
    }

    void Want(Link& link, int change, uint32_t what) {
        epoll_event event{};
        event.events = what;
        event.data.u64 = static_cast<uint64_t>(&link - m_links.data());
        epoll_ctl(m_epoll, change, link.fd, &event);
    }

    void Serve(Link& link, uint32_t events) {
        if (link.connecting) {
            int error = 0;
            socklen_t length = sizeof(error);
            getsockopt(link.fd, SOL_SOCKET, SO_ERROR, &error, &length);
            if (error != 0) return Close(link);
            link.connecting = false;
            Want(link, EPOLL_CTL_MOD, EPOLLIN);
            link.peer->OnOpen();
            return Flush(link);
        }
        if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !Read(link)) return Close(link);
        Flush(link);
    }

    bool Read(Link& link) {
        std::array<char, 65536> bytes;
        for (;;) {
            const ssize_t got = recv(link.fd, bytes.data(), bytes.size(), 0);
            if (got == 0 || (got < 0 && errno != EAGAIN)) return false;
            if (got < 0) break;
            link.in.append(bytes.data(), static_cast<size_t>(got));
            if (static_cast<size_t>(got) < bytes.size()) break;
        }
        if (!link.peer->OnBytes(link.in)) return false;
        if (link.in.empty()) std::string().swap(link.in);
        return true;
    }

    void Flush(Link& link) {
        std::string& out = link.peer->out;
        while (!out.empty()) {
            const ssize_t sent = send(link.fd, out.data(), out.size(), MSG_NOSIGNAL);
            if (sent < 0) {
                if (errno != EAGAIN) return Close(link);
                break;
            }
            out.erase(0, static_cast<size_t>(sent));
        }
        const bool wantsRoom = !out.empty();
        if (!wantsRoom) std::string().swap(out);
        if (wantsRoom != link.wantsRoom) Want(link, EPOLL_CTL_MOD, wantsRoom ? EPOLLIN | EPOLLOUT : EPOLLIN);
        link.wantsRoom = wantsRoom;
    }

    void Close(Link& link) {
        if (link.fd >= 0) close(link.fd);
        link.fd = -1;
        link.connecting = link.wantsRoom = false;
        link.in.clear();
        link.dueMs = m_shared.nowMs + kReconnectMs + m_shared.Chance(kReconnectMs);
        if (link.peer->IsReady()) ++m_closed;
        link.peer->OnClosed();
    }

    SimShared& m_shared;
    const int m_epoll;
    sockaddr_in m_address{};
    std::vector<Link> m_links;
    int64_t m_tickMs = 0;
    uint64_t m_closed = 0;
};

/// The phases, one after the other; each says what it cannot do.
class Fleet {
public:
    Fleet(int port, size_t hosts, int64_t seconds) : m_seconds(seconds), m_loop(m_shared, port), m_console(hosts) {
        m_loop.Add(m_console, 0);
        for (size_t i = 0; i < hosts; ++i) m_hosts.push_back(std::make_unique<SimHost>(m_shared, static_cast<int>(i)));
    }
    bool Run() {
        return Say("the streams are made", Prepare()) && Say("all are connected", Connect()) &&
               Say("a steady load is answered", Steady()) && Say("all are back after a restart", Restart()) &&
               Say("all report a configuration", Configure()) && Say("each event is stored once", Count());
    }

private:
    static bool Say(const char* what, bool isSo) {
        if (!isSo) std::printf("FAILED not so: %s\n", what);
        return isSo;
    }
    bool Ask(const std::string& subject, const std::string& body) {
        m_console.Ask(subject, body);
        return m_loop.Until([this] { return !m_console.Get().isNull(); }, 30000) && !m_console.Get().isMember("error");
    }
    bool Make(const std::string& name, const std::string& subject, const std::string& more) {
        return Ask("$JS.API.STREAM.CREATE." + name,
                   "{\"name\":\"" + name + "\",\"subjects\":[\"" + subject +
                       "\"],\"storage\":\"file\",\"retention\":\"limits\",\"discard\":\"old\",\"num_replicas\":1,"
                       "\"allow_direct\":true" +
                       more + "}");
    }
    void Wait(int64_t ms) {
        const int64_t end = m_shared.nowMs + ms;
        m_loop.Until([&] { return m_shared.nowMs >= end; }, ms + kPhaseMs);
    }
    bool Prepare() {
        return m_loop.Until([this] { return m_loop.AllReady(); }) &&
               Make("EVENTS", "zel.events.>", ",\"duplicate_window\":2000000000,\"max_bytes\":1000000000") &&
               Make("KV_state", "$KV.state.>", ",\"max_msgs_per_subject\":1") &&
               Make("KV_config", "$KV.config.>", ",\"max_msgs_per_subject\":10");
    }
    bool Connect() {
        m_shared.produces = false;
        const int64_t from = m_shared.nowMs;
        for (const auto& host : m_hosts) m_loop.Add(*host, from + m_shared.Chance(kReconnectMs));
        if (!m_loop.Until([this] { return m_loop.AllReady(); })) return false;
        Print("connect_ms", static_cast<double>(m_shared.nowMs - from));
        Wait(kSettleMs);
        m_shared.produces = true;
        Wait(kSettleMs);  // the first event of a host is more than the others
        return true;
    }
    bool Steady() {
        m_shared.publishUs.clear();
        m_shared.stateUs.clear();
        m_shared.events = m_shared.states = 0;
        std::printf("STEADY\n");
        std::fflush(stdout);
        const double from = m_shared.nowUs, cpu = NowUs(CLOCK_PROCESS_CPUTIME_ID);
        Wait(m_seconds * 1000);
        std::printf("STEADY-END\n");
        std::fflush(stdout);
        const double took = (m_shared.nowUs - from) / 1e6;
        const size_t due = m_shared.events;
        Print("events_s", static_cast<double>(m_shared.publishUs.size()) / took);
        Print("states_s", static_cast<double>(m_shared.stateUs.size()) / took);
        Print("own_cpu_us_s", (NowUs(CLOCK_PROCESS_CPUTIME_ID) - cpu) / took);
        // What is under way at the end counts too: it is the slowest.
        const bool all = m_loop.Until([&] { return m_shared.publishUs.size() >= due; }, kPhaseMs);
        PrintShares("publish", m_shared.publishUs);
        PrintShares("state", m_shared.stateUs);
        Print("unanswered", static_cast<double>(m_shared.unanswered));
        Print("refused", static_cast<double>(m_shared.refused));
        return all && m_shared.refused == 0;
    }
    static void PrintShares(const std::string& what, std::vector<float> us) {
        if (us.empty()) return;
        std::sort(us.begin(), us.end());
        Print((what + "_p50_us").c_str(), us[us.size() / 2]);
        Print((what + "_p99_us").c_str(), us[us.size() * 99 / 100]);
    }
    bool Restart() {
        const uint64_t closed = m_loop.Closed();
        std::printf("RESTART\n");
        std::fflush(stdout);
        pollfd answer{0, POLLIN, 0};
        if (!m_loop.Until([&] { return poll(&answer, 1, 0) > 0; })) return false;
        const int64_t from = m_shared.nowMs;
        if (!m_loop.Until([&] { return m_loop.Closed() - closed > m_hosts.size(); }, 30000)) return false;
        if (!m_loop.Until([this] { return m_loop.AllReady(); })) return false;
        Print("reconnect_ms", static_cast<double>(m_shared.nowMs - from));
        return true;
    }
    bool Configure() {
        if (!Ask(kConfigSubject, "{\"maxCpu\": 20}")) return false;
        const int64_t from = m_shared.nowMs;
        m_console.AwaitRevision(m_console.Get()["seq"].asUInt64());
        if (!m_loop.Until([this] { return m_console.HaveAll(); })) {
            std::printf("%zu of %zu hosts report it\n", m_console.Have(), m_hosts.size());
            return false;
        }
        Print("configure_ms", static_cast<double>(m_shared.nowMs - from));
        return true;
    }
    bool Count() {
        m_shared.produces = false;
        const auto idle = [](const auto& host) { return host->IsIdle(); };
        if (!m_loop.Until([&] { return std::all_of(m_hosts.begin(), m_hosts.end(), idle); })) return false;
        int64_t stored = 0;
        for (const auto& host : m_hosts) stored += host->Stored();
        if (!Ask("$JS.API.STREAM.INFO.EVENTS", "")) return false;
        const int64_t there = m_console.Get()["state"]["messages"].asInt64();
        Print("stored", static_cast<double>(there));
        Print("sent_back_or_paused", static_cast<double>(m_shared.later));
        if (there != stored)
            std::printf("%lld messages of %lld\n", static_cast<long long>(there), static_cast<long long>(stored));
        return there == stored;
    }

    const int64_t m_seconds;
    SimShared m_shared;
    Loop m_loop;
    Console m_console;
    std::vector<std::unique_ptr<SimHost>> m_hosts;
};

/// Returns: false where this process may not have so many connections.
bool RaiseDescriptors(size_t hosts) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max >= hosts + kSpareDescriptors) return true;
    std::printf("SKIP fleet-scale: %llu descriptors are allowed, %zu hosts need as many and %llu more\n",
                static_cast<unsigned long long>(limit.rlim_max), hosts,
                static_cast<unsigned long long>(kSpareDescriptors));
    return false;
}

}  // namespace
}  // namespace fleet

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: FleetScale PORT HOSTS SECONDS\n");
        return 2;
    }
    const auto hosts = static_cast<size_t>(std::atoll(argv[2]));
    if (!fleet::RaiseDescriptors(hosts)) return fleet::kSkipped;
    fleet::Fleet all(std::atoi(argv[1]), hosts, std::atoll(argv[3]));
    return all.Run() ? 0 : 1;
}
