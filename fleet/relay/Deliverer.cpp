// Batches on their way to the broker.
#include "relay/Deliverer.h"

#include <time.h>

#include <random>
#include <utility>

namespace fleet {
namespace {

constexpr std::chrono::seconds kOpenPeriod(5);
constexpr size_t kMostLanes = 128;

Moment Now() {
    static thread_local std::minstd_rand chance{std::random_device{}()};
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    Moment moment;
    moment.ms = static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    moment.chance = static_cast<uint32_t>(chance());
    return moment;
}

}  // namespace

Deliverer::Deliverer(Opener open, std::function<void(const std::string& line)> warn)
    : m_open(std::move(open)), m_warn(std::move(warn)) {}

NatsBroker* Deliverer::Open() {
    const base::MutexLock held(m_lock);
    const auto now = std::chrono::steady_clock::now();
    if (m_broker != nullptr || now < m_openDue) return m_broker.get();
    base::Result<std::unique_ptr<NatsBroker>> opened = m_open();
    m_openDue = now + kOpenPeriod;
    const std::string problem = opened ? "" : opened.GetError().Text();
    if (opened) m_broker = std::move(*opened);
    if (!problem.empty() && problem != m_problem) m_warn(problem + "; it is tried again");
    m_problem = problem;
    return m_broker.get();
}

AnswerFrame Deliverer::NotOpened() {
    const base::MutexLock held(m_lock);
    AnswerFrame answer;
    answer.step.kind = Step::Kind::kPause;
    answer.step.pauseMs = std::chrono::milliseconds(kOpenPeriod).count();
    answer.state = State::kBlocked;
    answer.reason = m_problem;
    return answer;
}

std::shared_ptr<Lane> Deliverer::LaneOf(NatsBroker& broker, const std::string& process) {
    const base::MutexLock held(m_lock);
    std::shared_ptr<Lane>& lane = m_lanes[process];
    if (lane != nullptr) return lane;
    const auto made = std::make_shared<Lane>(broker, process, Now);
    // What a lane remembers saves it a read: one that is forgotten begins with that.
    if (m_lanes.size() > kMostLanes) m_lanes.clear();
    m_lanes[process] = made;
    return made;
}

AnswerFrame Deliverer::Deliver(const BatchFrame& batch) {
    NatsBroker* const broker = Open();
    return broker != nullptr ? LaneOf(*broker, batch.process)->Deliver(batch) : NotOpened();
}

}  // namespace fleet
