// The broker's text protocol. Source: docs.nats.io, "NATS Protocol".
#include "Wire.h"

#include <cstdlib>

namespace fleet {
namespace {

constexpr std::string_view kEnd = "\r\n";
constexpr std::string_view kHead = "NATS/1.0";

/// Returns: what is in front of the next blank, which is taken away with it.
std::string_view NextWord(std::string_view& line) {
    const size_t blank = line.find(' ');
    const std::string_view word = line.substr(0, blank);
    line = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
    return word;
}

size_t NumberOf(std::string_view text) {
    return static_cast<size_t>(std::strtoull(std::string(text).c_str(), nullptr, 10));
}

/// The line "MSG <subject> <sid> [reply] <bytes>" or "HMSG <subject> <sid> [reply] <head> <all>".
struct Sizes {
    std::string_view subject;
    size_t head = 0;
    size_t all = 0;
};
Sizes SizesOf(std::string_view rest, bool hasHead) {
    Sizes sizes;
    sizes.subject = NextWord(rest);
    std::string_view last, before;
    while (!rest.empty()) {
        before = last;
        last = NextWord(rest);
    }
    sizes.all = NumberOf(last);
    sizes.head = hasHead ? NumberOf(before) : 0;
    return sizes;
}

}  // namespace

std::string_view HeaderOf(std::string_view headers, std::string_view name) {
    const std::string wanted = std::string(kEnd) + std::string(name) + ": ";
    const size_t at = headers.find(wanted);
    if (at == std::string_view::npos) return {};
    const std::string_view rest = headers.substr(at + wanted.size());
    return rest.substr(0, rest.find(kEnd));
}

int StatusOf(std::string_view headers) {
    if (headers.size() <= kHead.size() || headers[kHead.size()] != ' ') return 0;
    return static_cast<int>(NumberOf(headers.substr(kHead.size() + 1, 3)));
}

bool TakeMessages(std::string& bytes, const std::function<void(const WireMessage&)>& take) {
    const std::string_view all = bytes;
    size_t at = 0;
    bool good = true;
    while (good) {
        const size_t end = all.find(kEnd, at);
        if (end == std::string_view::npos) break;
        std::string_view line = all.substr(at, end - at);
        WireMessage message;
        message.word = NextWord(line);
        size_t next = end + kEnd.size();
        if (message.word == "MSG" || message.word == "HMSG") {
            const Sizes sizes = SizesOf(line, message.word == "HMSG");
            if (all.size() < next + sizes.all + kEnd.size()) break;
            message.word = "MSG";
            message.subject = sizes.subject;
            message.headers = all.substr(next, sizes.head);
            message.body = all.substr(next + sizes.head, sizes.all - sizes.head);
            next += sizes.all + kEnd.size();
        } else {
            message.body = line;
            good = message.word == "INFO" || message.word == "PING" || message.word == "PONG" ||
                   message.word == "+OK" || message.word == "-ERR";
        }
        if (good) take(message);
        at = next;
    }
    bytes.erase(0, at);
    return good;
}

std::string ConnectLine(const std::string& name) {
    return "CONNECT {\"verbose\":false,\"pedantic\":false,\"headers\":true,\"no_responders\":true,\"protocol\":1,"
           "\"lang\":\"cpp\",\"version\":\"1\",\"user\":\"fleet\",\"pass\":\"fleet\",\"name\":\"" +
           name + "\"}\r\n";
}

std::string Subscribe(const std::string& subject, int id) {
    return "SUB " + subject + " " + std::to_string(id) + "\r\n";
}

std::string Publish(const std::string& subject, const std::string& reply, std::string_view body,
                    const std::string& headers) {
    std::string head;
    if (!headers.empty()) head = std::string(kHead) + "\r\n" + headers + "\r\n";
    std::string line = (head.empty() ? "PUB " : "HPUB ") + subject + " ";
    if (!reply.empty()) line += reply + " ";
    if (!head.empty()) line += std::to_string(head.size()) + " ";
    line += std::to_string(head.size() + body.size()) + "\r\n" + head;
    line.append(body);
    return line + "\r\n";
}

}  // namespace fleet
