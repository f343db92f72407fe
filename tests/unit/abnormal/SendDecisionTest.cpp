// When a finding is sent: the decision, and the whole monitor, against a second statement of the same rule.
#include <rapidcheck.h>

#include "OsAbnormalFixture.h"
#include "abnormal/OsAbnormalDecisions.h"

namespace {

/// The rule once more, as reasons that speak for sending instead of a path through conditions.
struct Restated {
    bool alarmRaisedNow, intervalOver, onMultiple, rising;

    Restated(uint64_t tick, uint64_t last, uint64_t interval, bool alarm, bool alarmUp, bool memRising)
        : alarmRaisedNow(alarm && !alarmUp),
          // Ticks passed since the last message, on a counter that wraps at 64 bits.
          intervalOver((tick >= last ? tick - last : UINT64_MAX - (last - tick) + 1) >= interval),
          onMultiple(tick / interval * interval == tick),
          rising(memRising) {}

    bool Sent() const { return alarmRaisedNow || intervalOver || onMultiple || rising; }
    bool AlarmUpAfter(bool alarmUp) const {
        if (alarmRaisedNow) return true;
        const bool takenDown = onMultiple && !intervalOver;
        return takenDown ? false : alarmUp;
    }
};

std::string Differs(uint64_t tick, uint64_t last, uint64_t interval, bool alarm, bool alarmUp, bool memRising) {
    const SendDecision decision = DecideSend(tick, last, interval, alarm, alarmUp, memRising);
    const Restated restated(tick, last, interval, alarm, alarmUp, memRising);
    if (decision.send == restated.Sent() && decision.swapAlarmActive == restated.AlarmUpAfter(alarmUp)) return "";
    return doubles::Format("tick %lu last %lu interval %lu alarm %d up %d rising %d", tick, last, interval, alarm,
                           alarmUp, memRising);
}

class SendDecisionTest : public OsAbnormalFixture {};

}  // namespace

TEST_F(SendDecisionTest, AgreesWithTheRestatedRuleOnEverySmallInput) {
    for (uint64_t interval = 1; interval <= 12; ++interval) {
        for (uint64_t tick = 0; tick <= 40; ++tick) {
            for (uint64_t last = 0; last <= 40; ++last) {
                for (unsigned bits = 0; bits < 8; ++bits) {
                    ASSERT_EQ("", Differs(tick, last, interval, (bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0));
                }
            }
        }
    }
}

TEST_F(SendDecisionTest, AgreesWithTheRestatedRuleOnRandomInputs) {
    EXPECT_TRUE(rc::check("any 64-bit values", [](uint64_t tick, uint64_t last, bool alarm, bool up, bool rising) {
        const uint64_t interval = *rc::gen::positive<uint64_t>();
        RC_ASSERT(Differs(tick, last, interval, alarm, up, rising) == "");
    }));
    EXPECT_TRUE(rc::check("around a multiple and the end of the interval", [](bool alarm, bool up, bool rising) {
        const uint64_t interval = *rc::gen::inRange<uint64_t>(1, 100000);
        const uint64_t tick = interval * *rc::gen::inRange<uint64_t>(0, 1000) + *rc::gen::inRange<uint64_t>(0, 3);
        const uint64_t last = tick - interval + *rc::gen::inRange<uint64_t>(0, 3) - 1;
        RC_ASSERT(Differs(tick, last, interval, alarm, up, rising) == "");
    }));
}

namespace {

/// What happens to the host between two ticks.
struct Step {
    unsigned long ticks;  ///< 0: the thread was started anew and counts from 0
    long interval;        ///< online value
    int usage;
    bool storm;

    static rc::Gen<Step> Arbitrary() {
        return rc::gen::build<Step>(
            rc::gen::set(&Step::ticks, rc::gen::weightedElement<unsigned long>(
                                           {{1, 0}, {30, 1}, {10, 2}, {20, 5}, {5, 10}, {3, 45}, {2, 90}, {1, 1000}})),
            rc::gen::set(&Step::interval, rc::gen::weightedElement<long>({{20, 0}, {5, 7}, {5, 10}, {2, 1}, {1, -3}})),
            rc::gen::set(&Step::usage, rc::gen::weightedElement<int>({{3, 50}, {10, 86}, {5, 87}, {5, 88}, {3, 95}})),
            rc::gen::set(&Step::storm, rc::gen::weightedElement<bool>({{2, false}, {1, true}})));
    }
};

std::ostream& operator<<(std::ostream& os, const Step& step) {
    return os << "{" << step.ticks << " ticks, interval " << step.interval << ", usage " << step.usage
              << (step.storm ? ", storm}" : "}");
}

/// The monitor's memory of earlier ticks, kept a second time.
struct Model {
    bool rising = false, alarmUp = false, sampled = false, stormSinceSample = false;
    int lastUsage = 0;
    uint64_t lastSent = 0;

    struct Outcome {
        bool found = false, sent = false;
    };
    Outcome Tick(uint64_t tick, long online, int usage) {
        if (tick % 5 != 0 && !rising) return {};
        rising = false;
        if (usage <= 84) return {};
        rising = usage > lastUsage + 1;
        lastUsage = usage;
        // The first sample is taken twice within one check, so a storm before it is not seen.
        const bool alarm = sampled && stormSinceSample;
        sampled = true;
        stormSinceSample = false;
        const Restated rule(tick, lastSent, online > 0 ? static_cast<uint64_t>(online) : 90, alarm, alarmUp, rising);
        alarmUp = rule.AlarmUpAfter(alarmUp);
        if (rule.Sent()) lastSent = tick;
        return {true, rule.Sent()};
    }
};

}  // namespace

TEST_F(SendDecisionTest, MonitorAgreesWithRestatedRuleOnRandomRuns) {
    EXPECT_TRUE(rc::check("histories", [] {
        const auto steps = *rc::gen::container<std::vector<Step>>(300, Step::Arbitrary());
        LowerSwapAlarm();
        doubles::ResetPlatform();
        doubles::Platform& platform = doubles::P();
        COnlineClientConf conf;
        conf.osAbnormalSwitch.Set(1);
        OsAbnormalMonitorProbe monitor;
        Model model;
        unsigned long counters = 0, tick = 0, rows = 0;
        platform.files.content["/proc/vmstat"] = Vmstat(counters);
        platform.keepInJournal = [&](const std::string& line) {
            if (line == "ISqliteStatement::Step()") ++rows;
            return false;
        };
        for (size_t i = 0; i < steps.size(); ++i) {
            const Step& step = steps[i];
            tick = step.ticks == 0 ? 0 : tick + step.ticks;
            platform.now += static_cast<time_t>(2 * step.ticks + 2);
            platform.memory.usagePercent = step.usage;
            conf.osAbnormalReportInterval.Set(step.interval);
            if (step.storm) {
                counters += 1000000000;
                platform.files.content["/proc/vmstat"] = Vmstat(counters);
                model.stormSinceSample = true;
            }
            const size_t sentBefore = platform.sent.size();
            const unsigned long rowsBefore = rows;
            monitor.CheckOsAbnormal(tick);
            const Model::Outcome expected = model.Tick(tick, step.interval, step.usage);
            const bool sent = platform.sent.size() > sentBefore, stored = rows > rowsBefore;
            if (sent != expected.sent || stored != expected.found) {
                doubles::ForgetOnlineConf();
                RC_LOG() << "step " << i << " tick " << tick << ": sent " << sent << " stored " << stored << "\n";
                RC_FAIL("the monitor and the rule differ");
            }
        }
        doubles::ForgetOnlineConf();
        RC_CLASSIFY(model.alarmUp, "alarm up at the end");
    }));
}
