// Which broker is at the other end.
#include "broker/ServerInfo.h"

#include <json/json.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "base/Fd.h"

namespace fleet {
namespace {

constexpr char kGreeting[] = "INFO ";
constexpr size_t kMostGreetingBytes = 64 << 10;  // a large cluster names all its nodes
using Version = std::array<unsigned int, 3>;
constexpr Version kLeastAlone{2, 9, 0};
constexpr Version kLeastWithReplicas{2, 10, 27};
using SteadyClock = std::chrono::steady_clock;

/// Returns: 0.0.0 where the text is no version.
Version VersionOf(const std::string& text) {
    Version version{};
    size_t at = 0;
    for (size_t part = 0; part < version.size(); ++part) {
        const size_t begin = at;
        for (; at < text.size() && at < begin + 6 && text[at] >= '0' && text[at] <= '9'; ++at) {
            version[part] = version[part] * 10 + static_cast<unsigned int>(text[at] - '0');
        }
        if (at == begin) return {};
        if (part + 1 < version.size() && (at >= text.size() || text[at++] != '.')) return {};
    }
    // "2.11.0-RC.1" comes before 2.11.0: counted as that, since what mattered was mended long before.
    return at == text.size() || text[at] == '-' || text[at] == '+' ? version : Version{};
}

base::Error NoGreeting(const ServerPlace& place, const std::string& why) {
    return base::SentenceError("the broker at " + place.host + ":" + place.port + " does not say what it is: " + why);
}

/// Waits for one event of the socket. Returns: whether it came before `due`.
bool WaitFor(int socket, short event, SteadyClock::time_point due) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - SteadyClock::now()).count();
        if (left <= 0) return false;
        pollfd ready{socket, event, 0};
        const int got = poll(&ready, 1, static_cast<int>(left));
        if (got > 0) return true;
        if (got < 0 && errno != EINTR) return false;
    }
}

base::Fd ConnectTo(const addrinfo& address, SteadyClock::time_point due) {
    base::Fd fd(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) return fd;
    if (connect(fd.Get(), address.ai_addr, address.ai_addrlen) == 0) return fd;
    int error = errno;
    socklen_t size = sizeof(error);
    if (error == EINPROGRESS && WaitFor(fd.Get(), POLLOUT, due) &&
        getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0) {
        return fd;
    }
    return base::Fd();
}

}  // namespace

base::Result<ServerInfo> ParseServerInfo(std::string_view line) {
    const auto malformed = [] { return base::SentenceError("no greeting of a broker", base::ErrorKind::kMalformed); };
    if (line.substr(0, sizeof(kGreeting) - 1) != kGreeting) return malformed();
    line.remove_prefix(sizeof(kGreeting) - 1);
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = 16;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(line.data(), line.data() + line.size(), &root, nullptr)) return malformed();
    } catch (const Json::Exception&) {
        return malformed();
    }
    if (!root.isObject() || !root["version"].isString()) return malformed();
    ServerInfo info;
    info.version = root["version"].asString();
    if (root["cluster"].isString()) info.cluster = root["cluster"].asString();
    return info;
}

base::Status JudgeServer(const ServerInfo& info) {
    const Version version = VersionOf(info.version);
    if (version < kLeastAlone) {
        return base::SentenceError("the broker is version " + info.version + "; 2.9 is the oldest that is used",
                                   base::ErrorKind::kRefused);
    }
    if (!info.cluster.empty() && version < kLeastWithReplicas) {
        return base::SentenceError(
            "the broker is version " + info.version + " in the cluster '" + info.cluster +
                "': replicas may differ silently before 2.10.27; update it, or use a single node",
            base::ErrorKind::kRefused);
    }
    return {};
}

ServerPlace PlaceOf(const std::string& url) {
    const size_t scheme = url.find("://");
    std::string rest = scheme == std::string::npos ? url : url.substr(scheme + 3);
    rest.resize(std::min(rest.size(), rest.find('/')));
    const size_t user = rest.rfind('@');
    if (user != std::string::npos) rest = rest.substr(user + 1);
    ServerPlace place{rest, "4222"};
    if (!rest.empty() && rest[0] == '[') {
        const size_t end = rest.find(']');
        if (end == std::string::npos) return {};
        place.host = rest.substr(1, end - 1);
        rest = rest.substr(end + 1);
    }
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos) return place;
    if (rest[0] != ':') place.host = rest.substr(0, colon);
    place.port = rest.substr(colon + 1);
    return place;
}

base::Result<ServerInfo> ReadServerInfo(const ServerPlace& place, std::chrono::milliseconds patience) {
    const auto due = SteadyClock::now() + patience;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int failed = getaddrinfo(place.host.c_str(), place.port.c_str(), &hints, &found);
    if (failed != 0) return NoGreeting(place, gai_strerror(failed));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
    base::Fd fd;
    for (const addrinfo* one = found; one != nullptr && !fd; one = one->ai_next) fd = ConnectTo(*one, due);
    if (!fd) return NoGreeting(place, "nobody answers");
    std::string line;
    char buffer[4096];
    while (line.find('\n') == std::string::npos) {
        if (line.size() > kMostGreetingBytes) return NoGreeting(place, "its greeting has no end");
        if (!WaitFor(fd.Get(), POLLIN, due)) return NoGreeting(place, "no greeting in time");
        const ssize_t got = recv(fd.Get(), buffer, sizeof(buffer), 0);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) return NoGreeting(place, "the connection was cut");
        line.append(buffer, static_cast<size_t>(got));
    }
    const auto info = ParseServerInfo(std::string_view(line).substr(0, line.find('\n')));
    if (!info) return NoGreeting(place, info.GetError().Text());
    return info;
}

}  // namespace fleet
