// A thread that waits on one descriptor, raised by the broker's client, by events that pass, and by the end.
#include "fleet/FleetDuties.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <ctime>
#include <memory>
#include <random>
#include <thread>
#include <utility>

#include "AskAgent.h"
#include "Printable.h"
#include "base/Clock.h"
#include "base/FileIo.h"
#include "base/QuietThread.h"
#include "broker/NatsBroker.h"
#include "fleet/BrokerKeys.h"
#include "fleet/DutyRound.h"

namespace agent {

namespace {

constexpr char kThreadName[] = "fleet-duties";
/// Answers come in milliseconds; what is slower than this is told of as not answering.
constexpr std::chrono::seconds kPatience(5);
constexpr int64_t kNsPerMs = 1000000;

}  // namespace

struct FleetDuties::Impl {
    /// What other threads raise. The library may still be in the bell when that is taken away: it lives as long.
    struct Raised {
        base::Fd event;
        std::atomic<bool> bell{false};   // or another connection
        std::atomic<bool> noted{false};  // until what was noted is told
    };

    Impl(fleet::NatsBroker& itsBroker, FleetDutyOptions itsOptions)
        : broker(itsBroker), options(std::move(itsOptions)), keys(itsBroker) {}

    void Serve();
    void Wait(int64_t waitMs) const;
    DutyRoundOptions RoundOptions();

    fleet::NatsBroker& broker;
    const FleetDutyOptions options;
    BrokerKeys keys;
    std::minstd_rand random{std::random_device{}()};  // of the thread
    std::shared_ptr<Raised> raised;
    std::thread thread;
};

DutyRoundOptions FleetDuties::Impl::RoundOptions() {
    DutyRoundOptions made;
    made.state.host = options.host;
    made.state.groups = options.groups;
    made.state.appDir = options.appDir;
    made.state.version = ZEL_VERSION;
    made.state.ask = [this](const std::string& process, const std::string& request) -> base::Result<Answer> {
        if (keys.Ends()) return base::SentenceError("it ends");
        return AskAgent(options.appDir, process, request, kPatience);
    };
    made.takesConfiguration = options.takesConfiguration;
    made.nowMs = [] { return base::ClockNs(CLOCK_MONOTONIC) / kNsPerMs; };
    made.wallSeconds = [] { return static_cast<int64_t>(time(nullptr)); };
    made.chance = [this] { return static_cast<uint32_t>(random()); };
    made.log = options.log;
    return made;
}

void FleetDuties::Impl::Wait(int64_t waitMs) const {
    pollfd waited{raised->event.Get(), POLLIN, 0};
    if (poll(&waited, 1, static_cast<int>(std::min<int64_t>(waitMs, INT_MAX))) <= 0) return;
    uint64_t times = 0;
    // Ignoring: how often it was raised is not asked, and nobody else reads it.
    if (read(raised->event.Get(), &times, sizeof times) < 0) return;
}

void FleetDuties::Impl::Serve() {
    DutyRound round(keys, RoundOptions());
    std::string refused;
    while (!keys.Ends()) {
        // While a note waits for its turn, further ones wake nobody; a regular telling takes it along.
        if (round.IsTellDue()) raised->noted = false;
        const int64_t waitMs = round.Run();
        if (raised->noted && !round.HasNote()) {
            round.OnNote();  // since it was asked whether something is told
            continue;
        }
        Wait(waitMs);
        if (raised->noted) round.OnNote();
        if (raised->bell.exchange(false)) round.OnBell();
        const std::string words = Printable(broker.ListenRefused());
        if (words == refused) continue;
        refused = words;
        const std::string sentence = "changes of the fleet's configuration are seen minutes later: " + words;
        round.OnListening(words.empty() ? "" : sentence);
        if (!words.empty() && options.log) options.log(sentence);
    }
}

FleetDuties::FleetDuties(fleet::NatsBroker& broker, FleetDutyOptions options)
    : m_impl(std::make_unique<Impl>(broker, std::move(options))) {}

FleetDuties::~FleetDuties() {
    Stop();
}

base::Status FleetDuties::Start() {
    Impl& impl = *m_impl;
    impl.raised = std::make_shared<Impl::Raised>();
    impl.raised->event.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!impl.raised->event) return base::ErrnoError(errno, "make", "an event descriptor");
    std::vector<std::string> subjects;
    if (impl.options.takesConfiguration) {
        for (const std::string& level : ConfigLevels(impl.options.host, impl.options.groups)) {
            subjects.push_back(fleet::KeySubject(fleet::kConfigBucket, level));
        }
    }
    const base::Status listens = impl.broker.Listen(subjects, [raised = impl.raised] {
        raised->bell = true;
        base::RaiseEvent(raised->event);
    });
    if (!listens) return listens;
    base::Result<std::thread> thread = base::StartQuietThread(kThreadName, [&impl] { impl.Serve(); });
    if (!thread) return thread.GetError();
    impl.thread = std::move(*thread);
    return {};
}

void FleetDuties::Stop() {
    Impl& impl = *m_impl;
    if (!impl.thread.joinable()) return;
    static_cast<void>(impl.broker.Listen({}, nullptr));
    impl.keys.End();
    base::RaiseEvent(impl.raised->event);
    impl.thread.join();
}

void FleetDuties::Note() {
    if (m_impl->raised == nullptr || m_impl->raised->noted.exchange(true)) return;
    base::RaiseEvent(m_impl->raised->event);
}

}  // namespace agent
