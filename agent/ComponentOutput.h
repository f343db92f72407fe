// What a component's program writes to stdout and stderr, as lines of the main process's log. Runs on the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/Fd.h"
#include "base/RateBudget.h"
#include "base/Result.h"

namespace agent {

/// The reading end of one component's output. A process whose opening thread blocks SIGIO gets it when something comes,
/// and then looks a few times a second while it flows, which bounds what a program that writes without end costs it:
/// the program waits while the pipe is full. What is more than the log takes is read all the same, left out and
/// counted. Thread-safety: none. Lifetime: any; a program that goes on writing after Close gets a broken pipe.
class ComponentOutput {
public:
    using Sink = std::function<void(const std::string& line, int level)>;

    ComponentOutput(const std::string& name, Sink sink);

    /// Begins anew. Returns: the end that the program is to write to, blocking and close-on-exec.
    base::Result<base::Fd> Open();
    /// Hands on what there is by now. `now`, here and below: SecondsSinceBoot(). Returns: whether there was anything.
    bool Take(int64_t now);
    /// The program has ended: hands on the rest, a line without its end too.
    void Close(int64_t now);

    static constexpr size_t kMostLineBytes = 1000;  ///< of a line; the rest of it is left out
    static constexpr unsigned int kLinesPerSecond = 5;
    static constexpr unsigned int kMostLinesAtOnce = 100;
    static constexpr int64_t kToldEverySeconds = 60;  ///< how many lines were left out

private:
    bool TakePieces(int64_t now);
    void Split(std::string_view piece, int64_t now);
    void EndLine(int64_t now);
    void TellLeftOut(int64_t now);

    const std::string m_prefix;
    const Sink m_sink;
    base::Fd m_end;
    std::string m_line;  // as far as it has come
    bool m_cut = false;  // the line has more than is kept
    base::RateBudget m_budget{kLinesPerSecond, kMostLinesAtOnce};
    uint64_t m_leftOut = 0;
    int64_t m_toldAt = 0;
};

}  // namespace agent
