// A life in steps: each sets something up and knows how to take it back. They run in order, and are taken back in
// reverse order, whether the last one was reached or not.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "ExitCode.h"

namespace agent {

/// Thread-safety: one thread. Lifetime: the owner's; TakeBack is the owner's to call.
template <class Owner>
class Steps {
public:
    struct Step {
        int (Owner::*start)();  ///< returns an exit code, kExitClean to go on
        void (Owner::*stop)();  ///< also called after a start that failed half way; null: there is nothing to take back
    };

    Steps(Owner& owner, std::vector<Step> steps) : m_owner(owner), m_steps(std::move(steps)) {}

    /// Runs one step after the other. Returns: the first exit code that is not kExitClean; no later step ran then.
    int Run() {
        while (m_begun < m_steps.size()) {
            const int code = (m_owner.*m_steps[m_begun++].start)();
            if (code != kExitClean) return code;
        }
        return kExitClean;
    }

    /// Takes back every step that was begun, the last one first. A second call does nothing.
    void TakeBack() {
        while (m_begun > 0) {
            const Step& step = m_steps[--m_begun];
            if (step.stop != nullptr) (m_owner.*step.stop)();
        }
    }

private:
    Owner& m_owner;
    std::vector<Step> m_steps;
    size_t m_begun = 0;
};

}  // namespace agent
