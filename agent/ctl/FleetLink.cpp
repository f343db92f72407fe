// The child, its pipes, and lines with a bound and a patience.
#include "FleetLink.h"

#include <fcntl.h>
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

#include "JsonText.h"
#include "Printable.h"
#include "View.h"
#include "base/TrustedRead.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMostComplaintBytes = 4096;
constexpr size_t kPieceBytes = 256UL << 10;
constexpr int kEndTries = 100;
constexpr unsigned int kEndPauseMs = 10;
constexpr int kCannotRun = 127;

struct Ends {
    int requests;
    int answers;
    int complaints;
    int failure;
};

/// Of the child: only system calls. Its environment is empty: nothing of the caller's turns a library there.
[[noreturn]] void Become(const base::TrustedProgram& program, char* const* arguments, pid_t parent, const Ends& ends) {
    char* const none[] = {nullptr};
    // Ctrl-C at the terminal is the console's: whoever is at a rollout has to put things back through this child.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int error = getppid() == parent ? 0 : ESRCH;
    if (error == 0 && (dup2(ends.requests, STDIN_FILENO) < 0 || dup2(ends.answers, STDOUT_FILENO) < 0 ||
                       dup2(ends.complaints, STDERR_FILENO) < 0)) {
        error = errno;
    }
    if (error == 0) error = base::RunTrustedProgram(program, arguments, none);
    if (write(ends.failure, &error, sizeof error) < 0) _exit(kCannotRun);
    _exit(kCannotRun);
}

base::Error NotStarted(const std::string& program, const std::string& reason) {
    return base::SentenceError("the program that speaks to the broker cannot be started, " + program + ": " + reason,
                               base::ErrorKind::kRefused);
}

bool HasWord(const std::string& text, const char* word) {
    return text.find(word) != std::string::npos;
}

/// What to do about a broker's words; empty where they say it.
std::string RemedyOf(const std::string& error) {
    if (HasWord(error, "(chown)")) return "";
    if (HasWord(error, "the authorities of ")) return "; name the file of the fleet's authorities with --ca";
    const bool unusable = HasWord(error, "the credentials of ");
    if (unusable || HasWord(error, "ermission") || HasWord(error, "uthorization")) {
        return "; name the credentials of a console with --creds (fleet-enrol user DIR NAME --role console), to change "
               "the configuration an administrator's (--role admin)";
    }
    return "";
}

}  // namespace

std::string ShortText(const std::string& text, size_t most) {
    const std::string shown = Printable(text.substr(0, most));
    if (shown.size() <= most) return shown;
    size_t end = most;
    while (end > 0 && (static_cast<unsigned char>(shown[end]) & 0xC0U) == 0x80U) --end;
    return shown.substr(0, end);
}

base::Result<std::unique_ptr<FleetLink>> FleetLink::Open(const FleetAccess& access) {
    std::unique_ptr<FleetLink> link(new FleetLink(access));
    const base::Status started = link->Start(access);
    if (!started) return started.GetError();
    const base::Status greeted = link->Greet();
    if (!greeted) return greeted.GetError();
    return link;
}

base::Status FleetLink::Start(const FleetAccess& access) {
    const auto program = base::OpenTrustedProgram(access.program);
    if (!program) return NotStarted(access.program, base::ReasonOf(program.GetError(), access.program));
    std::vector<std::string> words{access.program, "console", "--servers", access.servers};
    if (!access.credentials.empty()) words.insert(words.end(), {"--creds", access.credentials});
    if (!access.caFile.empty()) words.insert(words.end(), {"--ca", access.caFile});
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int requests[2], answers[2], complaints[2], failure[2];
    // A socket for the requests: writing to a child that is gone raises no signal.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, requests) != 0)
        return base::ErrnoError(errno, "make", "a socket");
    m_requests.Reset(requests[0]);
    const base::Fd requestsEnd(requests[1]);
    if (pipe2(answers, O_CLOEXEC) != 0) return base::ErrnoError(errno, "make", "a pipe");
    m_answers.Reset(answers[0]);
    const base::Fd answersEnd(answers[1]);
    if (pipe2(complaints, O_CLOEXEC) != 0) return base::ErrnoError(errno, "make", "a pipe");
    m_complaints.Reset(complaints[0]);
    const base::Fd complaintsEnd(complaints[1]);
    if (pipe2(failure, O_CLOEXEC) != 0) return base::ErrnoError(errno, "make", "a pipe");
    const base::Fd report(failure[0]);
    base::Fd failureEnd(failure[1]);
    const pid_t self = getpid();
    m_child = fork();
    if (m_child == 0)
        Become(*program, arguments.data(), self,
               {requestsEnd.Get(), answersEnd.Get(), complaintsEnd.Get(), failureEnd.Get()});
    if (m_child < 0) return base::ErrnoError(errno, "fork for", access.program);
    failureEnd.Reset();
    int error = 0;
    // The pipe closes when the program runs, and carries the reason when it does not.
    const ssize_t got = base::RetryOnSignal([&] { return read(report.Get(), &error, sizeof error); });
    return got == static_cast<ssize_t>(sizeof error) ? NotStarted(access.program, base::ErrnoText(error))
                                                     : base::Status();
}

base::Status FleetLink::Greet() {
    Json::Value request(Json::objectValue);
    request["op"] = "info";
    const base::Result<FleetAnswer> answer = Ask(std::move(request));
    if (!answer) return answer.GetError();
    if (!answer->ok) {
        return base::SentenceError("no broker is reached at " + ShortText(m_servers) + ": " + answer->error,
                                   base::ErrorKind::kNoServer);
    }
    const Json::Value& said = answer->body;
    if (!said["connected"].isBool() || !said["connected"].asBool()) {
        const std::string reason = said["reason"].isString() ? ShortText(said["reason"].asString()) : "";
        return base::SentenceError("no broker is reached at " + ShortText(m_servers) +
                                       (reason.empty() ? "" : ": " + reason + RemedyOf(reason)) +
                                       "; see whether it runs there, and whether this host may connect to it",
                                   base::ErrorKind::kNoServer);
    }
    if (said["server"].isObject()) m_server = said["server"];
    return {};
}

// It ends when nothing more is asked; what hangs is ended.
FleetLink::~FleetLink() {
    m_requests.Reset();
    m_answers.Reset();
    m_complaints.Reset();
    for (int tries = 0; m_child > 0 && waitpid(m_child, nullptr, WNOHANG) == 0; ++tries) {
        if (tries >= kEndTries) kill(m_child, SIGKILL);
        zel::CToolUtil::msleep(kEndPauseMs);
    }
}

base::Status FleetLink::Send(const std::string& line) {
    for (size_t at = 0; at < line.size();) {
        const ssize_t sent = send(m_requests.Get(), line.data() + at, line.size() - at, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) return Ended();
        at += static_cast<size_t>(sent);
    }
    return {};
}

/// Takes what the child complains of, as far as it is to be shown.
void FleetLink::Hear() {
    char piece[1024];
    const ssize_t got = read(m_complaints.Get(), piece, sizeof piece);
    if (got < 0 && errno == EINTR) return;
    if (got <= 0) return m_complaints.Reset();
    if (m_said.size() < kMostComplaintBytes) m_said.append(piece, static_cast<size_t>(got));
}

base::Error FleetLink::Ended() {
    while (m_complaints) {  // it has gone: what it said last is there
        pollfd wait{m_complaints.Get(), POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(std::chrono::milliseconds(m_patience).count())) <= 0) break;
        Hear();
    }
    const size_t end = m_said.find('\n');
    const std::string first = ShortText(m_said.substr(0, end));
    return base::SentenceError(first.empty() ? "the program that speaks to the broker has ended without a word"
                                             : "the fleet is not reached: " + first + RemedyOf(first),
                               base::ErrorKind::kNoServer);
}

/// Returns: how many bytes came.
base::Result<size_t> FleetLink::ReadMore(bool patient) {
    const Clock::time_point end = Clock::now() + m_patience;
    while (patient || Clock::now() < end) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        pollfd waits[] = {{m_answers.Get(), POLLIN, 0}, {m_complaints.Get(), POLLIN, 0}};
        const int ready = poll(waits, m_complaints ? 2 : 1, patient ? -1 : std::max(0, static_cast<int>(left.count())));
        if (ready <= 0) continue;
        if (m_complaints && waits[1].revents != 0) Hear();
        if (waits[0].revents == 0) continue;
        const size_t before = m_text.size();
        m_text.resize(before + kPieceBytes);
        const ssize_t got = read(m_answers.Get(), &m_text[before], kPieceBytes);
        m_text.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
        if (got > 0) return static_cast<size_t>(got);
        if (got == 0 || errno != EINTR) return Ended();
    }
    return base::SentenceError("the broker at " + ShortText(m_servers) +
                                   " does not answer: see whether it runs, and "
                                   "whether more than half of its cluster does",
                               base::ErrorKind::kNoServer);
}

base::Result<std::string> FleetLink::ReadLine(bool patient) {
    for (size_t from = m_at;;) {
        const size_t end = m_text.find('\n', from);
        if (end != std::string::npos) {
            std::string line = m_text.substr(m_at, end - m_at);
            m_at = end + 1;
            return line;
        }
        m_text.erase(0, m_at);
        m_at = 0;
        from = m_text.size();
        if (m_text.size() > kMostFleetLineBytes) {
            return base::SentenceError("the program that speaks to the broker says more than a line can hold",
                                       base::ErrorKind::kTooLarge);
        }
        const base::Result<size_t> more = ReadMore(patient);
        if (!more) return more.GetError();
    }
}

FleetAnswer FleetLink::Judge(Json::Value body) const {
    FleetAnswer answer;
    answer.ok = body["ok"].isBool() && body["ok"].asBool();
    if (!answer.ok) {
        const std::string error =
            body["error"].isString() ? ShortText(body["error"].asString()) : "no reason was given";
        answer.error = error + RemedyOf(error);
        answer.outcome = body["outcome"].isString() ? body["outcome"].asString() : "unknown";
    }
    answer.body = std::move(body);
    return answer;
}

base::Result<FleetAnswer> FleetLink::Ask(Json::Value request, const OnItem& onItem) {
    const int number = ++m_number;
    request["id"] = number;
    const Json::Value& asked = request;  // looked at as a constant: a member that is not there stays so
    const bool follows = asked["follow"].isBool() && asked["follow"].asBool();
    const base::Status sent = Send(ViewText(request, true));
    if (!sent) return sent.GetError();
    for (int cancelled = 0;;) {
        const base::Result<std::string> line = ReadLine(follows && cancelled == 0);
        if (!line) return line.GetError();
        base::Result<Json::Value> said = ParseJson(*line);
        if (!said || !said->isObject() || !(*said)["id"].isInt()) {
            return base::SentenceError("the program that speaks to the broker says what is no answer: " +
                                       ShortText(*line, 100));
        }
        const int of = (*said)["id"].asInt();
        if (of != number && (of != cancelled || cancelled == 0)) continue;  // of an earlier one that was enough
        if (!(*said)["item"].isObject()) {
            FleetAnswer answer = Judge(std::move(*said));
            // What was over before it was to be cancelled has its own last line still to come.
            if (of != number && !answer.ok) continue;
            return answer;
        }
        if (cancelled != 0 || !onItem || onItem((*said)["item"])) continue;
        cancelled = ++m_number;
        Json::Value cancel(Json::objectValue);
        cancel["op"] = "cancel";
        cancel["id"] = cancelled;
        cancel["target"] = number;
        const base::Status told = Send(ViewText(cancel, true));
        if (!told) return told.GetError();
    }
}

}  // namespace agent
