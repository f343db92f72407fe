// What a scraper is answered. Pure.
#pragma once

#include <functional>
#include <string>

namespace zelhost {

/// When the metrics cannot be made.
constexpr char kNoMetricsAnswer[] =
    "HTTP/1.1 500 Internal Server Error\r\nContent-Type: text/plain\r\nContent-Length: 11\r\n"
    "Connection: close\r\n\r\nno metrics\n";

/// The answer to one request's head; `body` is asked only when it is wanted.
std::string AnswerMetricsRequest(const std::string& head, const std::function<std::string()>& body);

}  // namespace zelhost
