// Peers on the agent's sockets that say anything: a console to the console's server, a main process to a component's
// end of the broadcast, an endpoint of events to the HTTP service. The first byte chooses. Nobody hangs, nothing is
// taken for what it is not, and the next well-behaved peer is served.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleProtocol.h"
#include "ControlServer.h"
#include "FleetTrouble.h"
#include "FuzzSupport.h"
#include "base/Fd.h"
#include "events/HttpService.h"
#include "platform/zel/IpcBroadcast.h"
#include "support/Files.h"
#include "support/RecordedLog.h"

namespace {

using base::RetryOnSignal;  // the fuzzer's own alarm interrupts calls
using fuzzing::Draw;
using fuzzing::Require;

constexpr int kPatienceMs = 20000;

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Require(path.size() < sizeof address.sun_path, "the path is short");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

base::Fd ConnectTo(const std::string& path) {
    base::Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = AddressOf(path);
    const auto* const where = reinterpret_cast<const sockaddr*>(&address);
    Require(RetryOnSignal([&] { return connect(fd.Get(), where, sizeof address); }) == 0, "somebody serves");
    return fd;
}

std::string ReadToEnd(int fd) {
    std::string text;
    char piece[4096];
    for (;;) {
        pollfd wait{fd, POLLIN, 0};
        Require(RetryOnSignal([&] { return poll(&wait, 1, kPatienceMs); }) == 1, "an answer or an end comes");
        const ssize_t got = RetryOnSignal([&] { return read(fd, piece, sizeof piece); });
        if (got <= 0) return text;
        text.append(piece, static_cast<size_t>(got));
    }
}

// --- the console's server ---

struct Console {
    support::TempDir directory;
    std::atomic<int> stops{0};
    agent::FleetTrouble fleet;
    agent::ControlServer server{agent::ConsoleActions{
        [] { return std::string("{}"); }, [] { return std::string("m 1\n"); }, [] { return std::string("t\n"); },
        [] { return std::string("{\"c\":1}"); },
        [] {
            return std::map<std::string, std::string>{{"k", "v"}};
        },
        [] { return std::string("1700000000 {}\n"); }, [](std::string&) { return true; }, [this] { ++stops; },
        [this](const std::string& words) {
            fleet.Note(words, 1);
            Require(fleet.Get(1).find_first_of("\n\x1b") == std::string::npos, "what is shown moves no cursor");
        }}};
    const std::string path = directory / "c";

    Console() { Require(server.Start(path).Ok(), "the server starts"); }
};

void AskAsAnybody(Draw& draw) {
    static Console& console = *new Console;
    const int before = console.stops;
    std::string sent;
    const base::Fd fd = ConnectTo(console.path);
    const size_t pieces = 1 + draw.Below(4);
    for (size_t i = 0; i < pieces; ++i) {
        std::string piece = draw.Text(200);  // before the byte, by whatever compiler
        if (draw.Byte() % 2 == 0) piece += "\n";
        sent += piece;
        if (send(fd.Get(), piece.data(), piece.size(), MSG_NOSIGNAL) < 0) break;
    }
    shutdown(fd.Get(), SHUT_WR);
    const std::string text = ReadToEnd(fd.Get());
    const std::string line = sent.substr(0, sent.find('\n'));
    if (const auto answer = agent::ParseAnswer(text)) {
        static const std::set<std::string> kRequests = {"status",     "metrics", "threads", "config",
                                                        "statistics", "history", "reload",  "stop"};
        const bool known = kRequests.count(line) != 0 || line.compare(0, 6, "fleet ") == 0;
        Require(answer->ok == (known && sent.find('\n') != std::string::npos), "what is known is answered");
    } else {
        Require(text.empty(), "an answer is whole, or there is none");
    }
    Require(console.stops - before == (line == "stop" && sent.size() > 4 ? 1 : 0), "only a stop stops");
}

// --- a component's end of the broadcast ---

struct Heard {
    std::mutex lock;
    std::condition_variable more;
    std::vector<std::string> messages;
};

void SpeakAsMainProcess(Draw& draw) {
    static const support::TempDir& directory = *new support::TempDir;
    const std::string path = directory / "b";
    base::Fd server(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const sockaddr_un address = AddressOf(path);
    Require(bind(server.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "it can be bound");
    Require(chmod(path.c_str(), 0600) == 0 && listen(server.Get(), 4) == 0, "it listens");
    Heard heard;
    {
        zel::CIpcBroadcastSubscriber subscriber;
        Require(subscriber.Start(path,
                                 [&](const std::string& type, const std::string& body) {
                                     const std::lock_guard<std::mutex> guard(heard.lock);
                                     heard.messages.push_back(type + "|" + body);
                                     heard.more.notify_all();
                                 }),
                "it starts");
        const base::Fd peer(RetryOnSignal([&] { return accept(server.Get(), nullptr, nullptr); }));
        std::vector<std::string> expected;
        const size_t count = draw.Below(6);
        for (size_t i = 0; i < count; ++i) {
            std::string type = draw.Text(150);
            const uint8_t kind = draw.Byte();
            std::string packet = type;
            if (kind % 4 != 0) packet += std::string(1, '\0') + draw.Text(150);
            if (kind == 255) packet.resize(zel::kIpcMaxTypeBytes + zel::kIpcMaxBodyBytes + 2, 'x');
            if (packet.empty()) continue;
            if (send(peer.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) break;
            const size_t end = packet.find('\0');
            const bool fits = packet.size() <= zel::kIpcMaxTypeBytes + 1 + zel::kIpcMaxBodyBytes;
            if (fits && end != std::string::npos) {
                expected.push_back(packet.substr(0, end) + "|" + packet.substr(end + 1));
            }
        }
        const std::string last("last\0one", 8);
        Require(send(peer.Get(), last.data(), last.size(), MSG_NOSIGNAL) == 8, "it goes on to listen");
        expected.push_back("last|one");
        std::unique_lock<std::mutex> guard(heard.lock);
        Require(heard.more.wait_for(guard, std::chrono::milliseconds(kPatienceMs),
                                    [&] { return heard.messages.size() >= expected.size(); }),
                "what was said is heard");
        Require(heard.messages == expected, "it is heard as it was said");
    }
    unlink(path.c_str());
}

// --- the endpoint of events ---

void AnswerAsEndpoint(Draw& draw) {
    base::Fd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    Require(bind(server.Get(), reinterpret_cast<const sockaddr*>(&address), length) == 0, "it can be bound");
    Require(getsockname(server.Get(), reinterpret_cast<sockaddr*>(&address), &length) == 0, "it has a port");
    Require(listen(server.Get(), 4) == 0, "it listens");
    const bool good = draw.Byte() % 2 == 0;
    const std::string answer = (good ? "HTTP/1.1 " : "") + draw.Rest();
    std::thread endpoint([&] {
        const base::Fd peer(RetryOnSignal([&] { return accept(server.Get(), nullptr, nullptr); }));
        char request[4096];
        if (RetryOnSignal([&] { return recv(peer.Get(), request, sizeof request, 0); }) <= 0) return;
        (void)send(peer.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        shutdown(peer.Get(), SHUT_WR);
        while (RetryOnSignal([&] { return recv(peer.Get(), request, sizeof request, 0); }) > 0) {
        }
    });
    zelhost::HttpRequest request;
    request.url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/e";
    request.body = "{}";
    request.timeoutMs = kPatienceMs / 4;
    const zelhost::HttpResult result = zelhost::CHttpService::Instance().Post(request);
    endpoint.join();
    Require(result.attempts == 1, "it is asked once");
    Require(!result.outcome || (result.status >= 200 && result.status <= 299), "only a yes is a yes");
    Require(!result.outcome || answer.find('2') != std::string::npos, "a yes has said so");
    Require(result.outcome || !result.outcome.GetError().Text().empty(), "a failure says why");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr void (*kChecks[])(Draw&) = {AskAsAnybody, SpeakAsMainProcess, AnswerAsEndpoint};
    Draw draw(data, size);
    if (size > 0) kChecks[draw.Below(std::size(kChecks))](draw);
    support::TakeLogLines();
    return 0;
}
