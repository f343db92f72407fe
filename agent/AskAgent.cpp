// Connecting, asking and reading to the end; while nothing comes, a look at the process that should answer.
#include "AskAgent.h"

#include <json/json.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "AgentPaths.h"
#include "JsonText.h"
#include "Printable.h"
#include "StatusJson.h"
#include "base/Fd.h"
#include "base/LocalSocket.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kMostHeadBytes = 32;
/// To be let in: a process that is well takes connections at once, whatever it is busy with.
constexpr std::chrono::seconds kConnectPatience(3);
/// How often the process is looked at while nothing comes.
constexpr milliseconds kLookEvery(500);

/// Returns: false when the descriptor is not ready before `end`.
bool WaitFor(const base::Fd& socket, short what, Clock::time_point end) {
    pollfd waited{socket.Get(), what, 0};
    return base::RetryOnSignal([&] {
               const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
               return poll(&waited, 1, static_cast<int>(std::max<long>(0, left)));
           }) == 1;
}

/// Returns: why the process at the other end will not answer; empty when nothing is known against it.
std::string TroubleOf(const base::Peer& peer) {
    const std::string who = "process " + std::to_string(peer.pid);
    const base::Result<base::ProcStat> stat = base::ReadProcessStat(peer.pid);
    if (!stat) return stat.GetError().kind == base::ErrorKind::kNotFound ? who + " is gone" : "";
    if (stat->IsDead()) return who + " has ended and is waiting for its parent";
    if (stat->state == 'T') return who + " is stopped; SIGCONT lets it go on";
    if (stat->state == 't') return who + " is held by a debugger";
    return "";
}

/// Reads until the other end closes, is late or goes beyond the bound. Errors: the process there is in trouble.
base::Result<std::string> ReadToEnd(const base::Fd& socket, Clock::time_point end) {
    std::string text;
    char piece[65536];
    const base::Result<base::Peer> peer = base::ReadPeer(socket.Get());
    int looks = 0;
    while (text.size() <= kMostAnswerBytes + kMostHeadBytes && Clock::now() < end) {
        if (!WaitFor(socket, POLLIN, std::min(end, Clock::now() + kLookEvery))) {
            const std::string trouble = peer ? TroubleOf(*peer) : "";
            looks = trouble.empty() ? 0 : looks + 1;
            // Twice: a debugger or a shell stops a process for a moment.
            if (looks >= 2) return base::SentenceError("no answer, " + trouble, base::ErrorKind::kNoServer);
            continue;
        }
        const ssize_t got = recv(socket.Get(), piece, sizeof piece, 0);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) break;
        text.append(piece, static_cast<size_t>(got));
    }
    return text;
}

/// What to do where nobody answers. The doctor knows of a crash, of rights and of a wrong directory.
std::string NobodyAnswers(const std::string& appDir) {
    const std::string question = " (is the agent running? ";
    if (appDir != zel::kDefaultAppDir)
        return question + "\"tervanectl --app-dir " + appDir + " doctor\" says what is in its way)";
    return question + "\"systemctl start tervane\" starts it, \"tervanectl doctor\" says what is in its way)";
}

}  // namespace

base::Result<Answer> AskAgent(const std::string& appDir, const std::string& name, const std::string& request,
                              std::chrono::milliseconds patience) {
    const std::string path = ConsoleSocket(appDir, name);
    const auto end = Clock::now() + patience;
    const base::Result<base::Fd> connection =
        base::ConnectLocal(path, base::SocketKind::kStream, base::DirectoryOwner::kAnybody,
                           std::min<milliseconds>(kConnectPatience, patience));
    if (!connection) {
        const base::Error& error = connection.GetError();
        const bool absent = error.kind == base::ErrorKind::kNoServer || error.kind == base::ErrorKind::kNotFound;
        return absent
                   ? base::Error{base::ErrorKind::kNotFound, error.error, "", "", error.Text() + NobodyAnswers(appDir)}
                   : base::SentenceError(error.Text(), error.kind);
    }
    // A line is less than what a socket takes at once. One that refuses us may have spoken and gone before it.
    const std::string line = request + "\n";
    const bool asked = send(connection->Get(), line.data(), line.size(), MSG_NOSIGNAL) >= 0;
    const int error = errno;
    const base::Result<std::string> text = ReadToEnd(*connection, end);
    if (!text) return base::SentenceError(path + ": " + text.GetError().Text(), text.GetError().kind);
    if (text->empty() && !asked) return base::ErrnoError(error, "ask", path);
    if (text->empty()) {
        return base::SentenceError(path + ": no answer" +
                                   (Clock::now() < end ? ", the process closed it" : " in time"));
    }
    base::Result<Answer> answer = ParseAnswer(*text);
    if (!answer) return base::SentenceError(path + ": " + answer.GetError().Text(), answer.GetError().kind);
    return answer;
}

base::Result<StatusReport> ReadStatus(const base::Result<Answer>& answer) {
    if (!answer) return answer.GetError();
    if (answer->ok) return ParseStatusJson(answer->body);
    return base::SentenceError("refused: " + answer->body.substr(0, answer->body.find('\n')),
                               base::ErrorKind::kRefused);
}

std::string AskResourceFile(const std::string& appDir, const std::string& process) {
    const base::Result<Answer> answer = AskAgent(appDir, process, "config");
    const base::Result<Json::Value> root =
        answer && answer->ok ? ParseJson(answer->body) : base::Result<Json::Value>(Json::Value());
    if (!root || !root->isObject() || !(*root)["resource_config"].isString()) return "";
    const std::string used = Printable((*root)["resource_config"].asString());
    return used.empty() || used[0] != '/' ? "" : used;
}

}  // namespace agent
