// A console's process over three pipes.
#include "fleet/ConsoleProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "support/Files.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

constexpr int kPatienceMs = 60000;

}  // namespace

Json::Value JsonOf(const std::string& text) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    return root;
}

ConsoleProcess::ConsoleProcess(const BrokerOptions& options, const std::vector<std::string>& more) {
    std::vector<std::string> words{"--servers", options.servers.at(0)};
    if (!options.caFile.empty()) words.insert(words.end(), {"--ca", options.caFile});
    if (!options.credsFile.empty()) words.insert(words.end(), {"--creds", options.credsFile});
    words.insert(words.end(), more.begin(), more.end());
    Start(words);
}

ConsoleProcess::ConsoleProcess(const std::vector<std::string>& words) {
    Start(words);
}

void ConsoleProcess::Start(const std::vector<std::string>& words) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    std::vector<char*> arguments{const_cast<char*>("console")};
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(ZEL_CONSOLE_PROGRAM, arguments.data());
        _exit(127);
    }
    for (const int fd : {in[0], out[1], err[1]}) close(fd);
    m_in = in[1];
    m_out = out[0];
    m_err = err[0];
    signal(SIGPIPE, SIG_IGN);
}

ConsoleProcess::~ConsoleProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    for (const int fd : {m_in, m_out, m_err}) {
        if (fd >= 0) close(fd);
    }
}

bool ConsoleProcess::SendText(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        // It may wait until its answers are taken.
        pollfd ready[2] = {{m_in, POLLOUT, 0}, {m_out, POLLIN, 0}};
        if (poll(ready, 2, kPatienceMs) <= 0) return false;
        if (ready[1].revents != 0 && !Fill()) return false;
        if ((ready[0].revents & POLLERR) != 0) return false;
        if ((ready[0].revents & POLLOUT) == 0) continue;
        const ssize_t done = write(m_in, text.data() + at, std::min<size_t>(text.size() - at, 4096));
        if (done <= 0) return false;
        at += static_cast<size_t>(done);
    }
    return true;
}

int64_t ConsoleProcess::Send(Json::Value request) {
    if (!request.isMember("id")) request["id"] = Json::Int64(++m_lastId);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    SendText(Json::writeString(builder, request) + "\n");
    return request["id"].asInt64();
}

bool ConsoleProcess::Fill() {
    pollfd ready{m_out, POLLIN, 0};
    if (poll(&ready, 1, kPatienceMs) <= 0) return false;
    char piece[65536];
    const ssize_t got = read(m_out, piece, sizeof(piece));
    if (got > 0) m_buffer.append(piece, static_cast<size_t>(got));
    return got > 0;
}

Json::Value ConsoleProcess::NextLine() {
    size_t end;
    for (size_t from = 0; (end = m_buffer.find('\n', from)) == std::string::npos;) {
        from = m_buffer.size();
        if (!Fill()) return {};
    }
    Json::Value line = JsonOf(m_buffer.substr(0, end));
    m_buffer.erase(0, end + 1);
    return line;
}

Json::Value ConsoleProcess::Next(int64_t id) {
    while (m_kept[id].empty()) {
        const Json::Value line = NextLine();
        if (!line.isObject()) return {};
        m_kept[line["id"].asInt64()].push_back(line);
    }
    Json::Value line = m_kept[id].front();
    m_kept[id].pop_front();
    return line;
}

Json::Value ConsoleProcess::Ask(const Json::Value& request, std::vector<Json::Value>* items) {
    const int64_t id = Send(request);
    for (;;) {
        const Json::Value line = Next(id);
        if (!line.isMember("item")) return line;
        if (items != nullptr) items->push_back(line["item"]);
    }
}

void ConsoleProcess::CloseOutput() {
    close(m_out);
    m_out = -1;
}

int ConsoleProcess::WaitForEnd() {
    int status = 0;
    const bool isOver = support::Poll(60, [&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; });
    if (!isOver) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int ConsoleProcess::End() {
    close(m_in);
    m_in = -1;
    return WaitForEnd();
}

int64_t ConsoleProcess::ReadPrivateKb() const {
    int64_t sum = 0;
    for (const std::string& line : support::ReadLines("/proc/" + std::to_string(m_pid) + "/smaps_rollup")) {
        if (line.compare(0, 8, "Private_") == 0) sum += std::atoll(line.c_str() + line.find(':') + 1);
    }
    return sum;
}

std::string ConsoleProcess::Errors() {
    std::string text;
    char piece[4096];
    for (ssize_t got; (got = read(m_err, piece, sizeof(piece))) > 0;) text.append(piece, static_cast<size_t>(got));
    return text;
}

}  // namespace fleet
