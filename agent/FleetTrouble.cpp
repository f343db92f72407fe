// Kept as it came, until it is said anew or has not been for too long.
#include "FleetTrouble.h"

#include <utility>

#include "Printable.h"

namespace agent {

void FleetTrouble::Note(const std::string& words, int64_t second) {
    std::string printable = Printable(words.substr(0, kMostBytes));
    base::MutexLock held(m_lock);
    m_words = std::move(printable);
    m_second = second;
}

std::string FleetTrouble::Get(int64_t second) const {
    base::MutexLock held(m_lock);
    return second - m_second > kValidSeconds ? std::string() : m_words;
}

}  // namespace agent
