// A request's head from anybody who reaches the port: every one gets an answer that is whole, and the metrics go to GET
// of /metrics alone.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "metrics/MetricsRequest.h"

namespace {

void Require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string head(reinterpret_cast<const char*>(data), size);
    const std::string metrics = "zel_secret 1\n";
    int asked = 0;
    const std::string answer = zelhost::AnswerMetricsRequest(head, [&] {
        ++asked;
        return metrics;
    });
    Require(asked <= 1);
    Require(answer.compare(0, 9, "HTTP/1.1 ") == 0);
    const size_t end = answer.find("\r\n\r\n");
    Require(end != std::string::npos);
    const std::string field = "\r\nContent-Length: ";
    const size_t at = answer.find(field);
    Require(at < end && answer.find("\r\nConnection: close", at) <= end);
    const std::string body = answer.substr(end + 4);
    const std::string length = answer.substr(at + field.size(), answer.find("\r\n", at + 2) - at - field.size());
    // A HEAD says how long the answer to a GET would be and gives none of it.
    Require(body.empty() || length == std::to_string(body.size()));
    Require((body == metrics) == (asked == 1 && head.compare(0, 4, "GET ") == 0));
    // Nothing of the request comes back.
    Require(answer.size() < 256);
    return 0;
}
