// What the relay does with a batch: one connection to the broker, and the rule's memory of each process.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "base/Mutex.h"
#include "base/Result.h"
#include "broker/Lane.h"
#include "broker/NatsBroker.h"
#include "local/RelayFrames.h"

namespace fleet {

/// Thread-safety: any thread, but one batch of a process at a time.
class Deliverer {
public:
    using Opener = std::function<base::Result<std::unique_ptr<NatsBroker>>()>;
    /// `open`: makes the client of the broker; tried again, every few seconds at most, as long as it fails. `warn`:
    /// told in a sentence when it fails, the same one once.
    Deliverer(Opener open, std::function<void(const std::string& line)> warn);

    /// Blocks: as long as the broker's answers take.
    AnswerFrame Deliver(const BatchFrame& batch);
    /// Makes the client, where there is none. Returns: it, or nothing.
    NatsBroker* Open() ZEL_EXCLUDES(m_lock);

private:
    std::shared_ptr<Lane> LaneOf(NatsBroker& broker, const std::string& process) ZEL_EXCLUDES(m_lock);
    AnswerFrame NotOpened() ZEL_EXCLUDES(m_lock);

    const Opener m_open;
    const std::function<void(const std::string&)> m_warn;
    base::Mutex m_lock;
    std::unique_ptr<NatsBroker> m_broker ZEL_GUARDED_BY(m_lock);  // stays, once it is there
    std::string m_problem ZEL_GUARDED_BY(m_lock);
    std::chrono::steady_clock::time_point m_openDue ZEL_GUARDED_BY(m_lock);
    std::map<std::string, std::shared_ptr<Lane>> m_lanes ZEL_GUARDED_BY(m_lock);
};

}  // namespace fleet
