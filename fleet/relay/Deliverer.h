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
    /// `open`: makes the client of the broker; tried again, every few seconds, as long as it fails. `warn`:
    /// told in a sentence when it fails, the same one once.
    Deliverer(Opener open, std::function<void(const std::string& line)> warn);

    /// Blocks: as long as the broker's answers take.
    AnswerFrame Deliver(const BatchFrame& batch);
    /// Makes the client. Blocks: until there is one, however long a broker says nothing: on a thread of its own.
    void Open() ZEL_EXCLUDES(m_lock);

private:
    /// Returns: the client, or nothing. Blocks: for a moment, while the first attempt to make it is under way.
    NatsBroker* Broker() ZEL_EXCLUDES(m_lock);
    base::Result<std::unique_ptr<NatsBroker>> TryOpen() const;
    std::shared_ptr<Lane> LaneOf(NatsBroker& broker, const std::string& process) ZEL_EXCLUDES(m_lock);
    AnswerFrame NotOpened() ZEL_EXCLUDES(m_lock);

    const Opener m_open;
    const std::function<void(const std::string&)> m_warn;
    base::Mutex m_lock;
    base::Condition m_opened;                                     // or tried to
    std::unique_ptr<NatsBroker> m_broker ZEL_GUARDED_BY(m_lock);  // stays, once it is there
    bool m_tried ZEL_GUARDED_BY(m_lock) = false;
    std::string m_problem ZEL_GUARDED_BY(m_lock);
    std::string m_said;  // of the thread that opens
    std::map<std::string, std::shared_ptr<Lane>> m_lanes ZEL_GUARDED_BY(m_lock);
};

}  // namespace fleet
