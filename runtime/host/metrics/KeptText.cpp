// A text that is made at most once in a while.
#include "metrics/KeptText.h"

#include <utility>

namespace zelhost {

KeptText::KeptText(std::function<std::string()> source, std::chrono::milliseconds kept,
                   std::function<Clock::time_point()> now)
    : m_source(std::move(source)), m_kept(kept), m_now(std::move(now)) {}

std::string KeptText::Get() {
    Made made;
    bool due = true;
    {
        const base::MutexLock guard(m_lock);
        const auto age = m_now() - m_last.at;
        due = !m_there || age >= (m_beingMade ? kOldest * m_kept : m_kept);
        if (due) {
            m_beingMade = true;
        } else {
            made = m_last;
        }
    }
    if (due) {
        made = Make();
        const base::MutexLock guard(m_lock);
        m_beingMade = false;
        m_there = true;
        m_last = made;
    }
    if (made.failure != nullptr) std::rethrow_exception(made.failure);
    return made.text;
}

KeptText::Made KeptText::Make() const {
    Made made;
    try {
        made.text = m_source();
    } catch (...) {
        made.failure = std::current_exception();
    }
    // From its end on: a source that is slow is not asked without a pause.
    made.at = m_now();
    return made;
}

}  // namespace zelhost
