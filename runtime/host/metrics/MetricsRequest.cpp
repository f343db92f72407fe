// The one line of HTTP that is understood: GET or HEAD of /metrics.
#include "metrics/MetricsRequest.h"

#include <algorithm>

namespace zelhost {
namespace {

std::string Answer(const char* status, const char* type, const std::string& body, bool withBody) {
    return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
           (withBody ? body : "");
}

}  // namespace

std::string AnswerMetricsRequest(const std::string& head, const std::function<std::string()>& body) {
    const size_t lineEnd = head.find("\r\n");
    const std::string line = head.substr(0, lineEnd);
    const size_t first = line.find(' ');
    const size_t second = line.find(' ', first == std::string::npos ? 0 : first + 1);
    const bool request = lineEnd != std::string::npos && first != std::string::npos && second != std::string::npos &&
                         line.compare(second + 1, 7, "HTTP/1.") == 0;
    if (!request) return Answer("400 Bad Request", "text/plain", "bad request\n", true);
    const std::string method = line.substr(0, first);
    std::string target = line.substr(first + 1, second - first - 1);
    target.resize(std::min(target.find('?'), target.size()));
    if (method != "GET" && method != "HEAD") {
        return Answer("405 Method Not Allowed", "text/plain", "only GET\n", true);
    }
    if (target == "/") return Answer("200 OK", "text/plain", "see /metrics\n", method == "GET");
    if (target != "/metrics") return Answer("404 Not Found", "text/plain", "see /metrics\n", method == "GET");
    return Answer("200 OK", "text/plain; version=0.0.4; charset=utf-8", body(), method == "GET");
}

}  // namespace zelhost
