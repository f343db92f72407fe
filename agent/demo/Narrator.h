// What the demonstration says: one line for each thing that happened, with the second in which it did.
#pragma once

#include <cstdint>
#include <string>

#include "ctl/StatusText.h"

namespace agent {

/// Writes to stdout, at once, so that a reader sees each line when it is true.
/// Thread-safety: one thread.
class Narrator {
public:
    Narrator();

    /// The beginning of an act.
    void Title(const std::string& text);
    /// A sentence that has become true.
    void Say(const std::string& text);
    /// What a person would type to see or do the same.
    void Command(const std::string& text);
    /// What a command answered, line by line.
    void Answer(const std::string& text);
    /// Whether nobody reads any more.
    bool IsReaderGone() const { return m_readerIsGone; }

private:
    void Put(const std::string& first, const std::string& text, LineKind kind, bool isSentence);

    const int64_t m_begin;
    bool m_readerIsGone = false;
};

}  // namespace agent
