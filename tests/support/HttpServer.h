// A small HTTP server on a loopback port that takes POSTs and answers as told.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace support {

class HttpServer {
public:
    struct Request {
        std::string head, body;
    };
    HttpServer();
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::string Url() const;
    int Port() const { return m_port; }
    void AnswerWith(int status) { m_status = status; }
    /// Takes the connection and says nothing.
    void Hang(bool on) { m_hang = on; }
    /// Takes so long for each answer.
    void AnswerAfter(int milliseconds) { m_delayMs = milliseconds; }
    /// Answers a body that holds this text with this status.
    void Refuse(const std::string& text, int status);
    /// Each answer has so many bytes of content.
    void AnswerContent(size_t bytes) { m_content = bytes; }
    /// Each answer names this address as the one to ask instead. To be set before the first request.
    void PointTo(const std::string& url) { m_location = "Location: " + url + "\r\n"; }
    /// Requests that were answered with the 200 family.
    std::vector<Request> Accepted();
    int Connections() const { return m_connections; }

private:
    void Run();
    void Serve(int client);
    int m_listener = -1;
    int m_port = 0;
    std::atomic<int> m_status{200};
    std::atomic<bool> m_hang{false};
    std::atomic<int> m_delayMs{0};
    std::atomic<size_t> m_content{0};
    std::string m_location;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_connections{0};
    std::mutex m_lock;
    std::string m_refused;
    int m_refusedStatus = 0;
    std::vector<Request> m_accepted;
    std::thread m_thread;
};

}  // namespace support
