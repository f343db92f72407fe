// A component's output, cut into lines and held to a rate.
#include "ComponentOutput.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "base/FileIo.h"
#include "platform/zel/LogMessage.h"

namespace agent {

namespace {

/// Taken at one look: what a pipe holds as a rule.
constexpr size_t kMostBytesAtOnce = 64 * 1024;

/// Whether SIGIO waits until it is taken, as the main thread has it; otherwise it would end the process.
bool IsOutputSignalTaken() {
    sigset_t blocked;
    return pthread_sigmask(SIG_BLOCK, nullptr, &blocked) == 0 && sigismember(&blocked, SIGIO) == 1;
}

}  // namespace

ComponentOutput::ComponentOutput(const std::string& name, Sink sink)
    : m_prefix("component " + name), m_sink(std::move(sink)) {}

base::Result<base::Fd> ComponentOutput::Open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return base::ErrnoError(errno, "make a pipe for the output of", m_prefix);
    m_end = base::Fd(ends[0]);
    base::Fd writing(ends[1]);
    // Of this end alone: each end has flags of its own, and a program must not find its output full for a moment.
    if (fcntl(m_end.Get(), F_SETFL, O_NONBLOCK) != 0) {
        return base::ErrnoError(errno, "set up the pipe for the output of", m_prefix);
    }
    // Without the signal the rare look finds what came.
    if (IsOutputSignalTaken() && fcntl(m_end.Get(), F_SETOWN, getpid()) == 0) {
        fcntl(m_end.Get(), F_SETFL, O_NONBLOCK | O_ASYNC);
    }
    m_line.clear();
    m_cut = false;
    return writing;
}

bool ComponentOutput::Take(int64_t now) {
    const bool any = TakePieces(now);
    if (m_leftOut > 0 && now - m_toldAt >= kToldEverySeconds) TellLeftOut(now);
    return any;
}

void ComponentOutput::Close(int64_t now) {
    if (!m_end) return;
    TakePieces(now);
    m_end.Reset();
    if (!m_line.empty()) EndLine(now);
    if (m_leftOut > 0) TellLeftOut(now);
}

bool ComponentOutput::TakePieces(int64_t now) {
    size_t taken = 0;
    while (m_end && taken < kMostBytesAtOnce) {
        std::string piece;
        // An error is an empty pipe; an end of file is a program that has closed its output, and will end or not.
        const base::Result<size_t> got = base::ReadMore(m_end, piece, m_prefix);
        if (!got || *got == 0) break;
        Split(piece, now);
        taken += *got;
    }
    return taken > 0;
}

void ComponentOutput::Split(std::string_view piece, int64_t now) {
    while (!piece.empty()) {
        const size_t length = std::min(piece.find('\n'), piece.size());
        const size_t room = kMostLineBytes - m_line.size();
        m_line += piece.substr(0, std::min(length, room));
        m_cut = m_cut || length > room;
        if (length == piece.size()) return;
        EndLine(now);
        piece.remove_prefix(length + 1);
    }
}

void ComponentOutput::EndLine(int64_t now) {
    const base::RateBudget::Clock::time_point at{std::chrono::seconds(now)};
    const bool blank = m_line.find_first_not_of(" \t\r") == std::string::npos;
    if (!blank && m_budget.Take(0, at, base::RateBudget::Clock::duration(0)).count() > 0) {
        ++m_leftOut;
    } else if (!blank) {
        m_sink(m_prefix + ": " + m_line + (m_cut ? " ..." : ""), zel::kLogInfo);
    }
    m_line.clear();
    m_cut = false;
}

void ComponentOutput::TellLeftOut(int64_t now) {
    m_sink(m_prefix + " writes more than is logged: " + std::to_string(m_leftOut) + " lines were left out",
           zel::kLogWarning);
    m_leftOut = 0;
    m_toldAt = now;
}

}  // namespace agent
