// Batches on their way to the broker.
#include "relay/Deliverer.h"

#include <time.h>

#include <random>
#include <thread>
#include <utility>

namespace fleet {
namespace {

constexpr std::chrono::seconds kOpenPeriod(5);
constexpr std::chrono::milliseconds kOpeningPatience(500);
constexpr std::chrono::seconds kOpeningPause(1);
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

void Deliverer::Open() {
    for (;;) {
        // Without the lock: a broker that takes the connection may say nothing for as long as it likes.
        base::Result<std::unique_ptr<NatsBroker>> opened = TryOpen();
        const std::string problem = opened ? "" : opened.GetError().Text();
        if (!problem.empty() && problem != m_said) m_warn(problem + "; it is tried again");
        m_said = problem;
        {
            const base::MutexLock held(m_lock);
            if (opened) m_broker = std::move(*opened);
            m_problem = problem;
            m_tried = true;
            m_opened.notify_all();
        }
        if (problem.empty()) return;
        std::this_thread::sleep_for(kOpenPeriod);
    }
}

NatsBroker* Deliverer::Broker() {
    const auto due = std::chrono::steady_clock::now() + kOpeningPatience;
    const base::MutexLock held(m_lock);
    while (!m_tried && std::chrono::steady_clock::now() < due) m_opened.wait_until(m_lock, due);
    return m_broker.get();
}

base::Result<std::unique_ptr<NatsBroker>> Deliverer::TryOpen() const {
    try {
        return m_open();
    } catch (const std::exception& e) {  // for want of memory
        return base::SentenceError(std::string("the broker's client cannot be made: ") + e.what());
    }
}

AnswerFrame Deliverer::NotOpened() {
    const base::MutexLock held(m_lock);
    AnswerFrame answer;
    answer.step.kind = Step::Kind::kPause;
    if (m_problem.empty()) {
        answer.step.pauseMs = std::chrono::milliseconds(kOpeningPause).count();
        answer.state = State::kConnecting;
        answer.reason = "the connection to the broker is being made";
        return answer;
    }
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
    NatsBroker* const broker = Broker();
    return broker != nullptr ? LaneOf(*broker, batch.process)->Deliver(batch) : NotOpened();
}

}  // namespace fleet
