// The publishing rule against a model of the broker: random faults of both, and at the end every event is in the stream
// once, in the order of its spool. ZEL_FLEET_SEQUENCES says how many histories, otherwise a share.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <string>

#include "fleet/ModelHost.h"

namespace fleet {
namespace {

constexpr unsigned long kShare = 20000;

/// One history. Returns: what is wrong at its end.
class History {
public:
    explicit History(uint32_t seed)
        : m_random(seed),
          m_faultShare(Chance(60)),
          m_broker(Chance(2) == 0, [this](uint32_t below) { return Chance(below); }),
          m_host(
              m_broker, [this](uint32_t below) { return Chance(below); }, [this] { return NextFault(); }) {}

    std::string Run() {
        const uint32_t steps = 10 + Chance(50);
        for (uint32_t i = 0; i < steps; ++i) Disturb();
        m_quiet = true;
        m_broker.Settle(true);
        m_host.AddEvent();  // what the broker lost is noticed with the next event
        for (int i = 0; i < 400; ++i) {
            if (m_host.HasAll()) return m_host.Judge();
            m_host.Deliver();
            m_host.WaitPause();
        }
        return "it never ends: " + m_host.Get().reason;
    }
    uint64_t Publishes() const { return m_host.Publishes(); }

private:
    uint32_t Chance(uint32_t below) { return static_cast<uint32_t>(m_random() % below); }

    Fault NextFault() {
        if (m_quiet || Chance(100) >= m_faultShare) return Fault::kNone;
        return static_cast<Fault>(Chance(kFaults));
    }

    void Disturb() {
        switch (Chance(24)) {
            case 0: return m_host.RestartRelay();
            case 1: return m_host.RestartComponent();
            case 2: return m_host.Reconnect();
            case 3: return m_host.LoseStored();
            case 4: return m_host.AgeOut();
            case 5: return m_host.ForgetConfirmed();
            case 6: return Chance(4) == 0 ? m_host.ReplaceSpool() : m_host.DropOldest();
            case 7: return m_broker.Settle(false);
            default: break;
        }
        if (Chance(3) == 0) return m_host.AddEvent();
        if (Chance(4) != 0) m_host.WaitPause();
        m_host.Deliver();
    }

    std::minstd_rand m_random;
    const uint32_t m_faultShare;
    bool m_quiet = false;
    ModelBroker m_broker;
    ModelHost m_host;
};

TEST(PublishModelTest, EveryHistoryEndsWithEveryEventOnce) {
    const char* asked = std::getenv("ZEL_FLEET_SEQUENCES");
    const unsigned long sequences = asked != nullptr ? std::strtoul(asked, nullptr, 10) : kShare;
    uint64_t publishes = 0;
    for (unsigned long seed = 1; seed <= sequences; ++seed) {
        History history(static_cast<uint32_t>(seed));
        ASSERT_EQ(history.Run(), "") << "history " << seed;
        publishes += history.Publishes();
    }
    // Most of what happens is that messages are sent, or the histories would prove little.
    EXPECT_GT(publishes, 5 * sequences);
    RecordProperty("publishes", std::to_string(publishes));
}

}  // namespace
}  // namespace fleet
