// What a steady round may not do: make objects on the heap. The test replaces operator new and counts on the sampling
// thread; other tests let an allocation fail by it.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "HostSupport.h"
#include "platform/host/ResourceEventSink.h"
#include "platform/host/ResourceMonitor.h"
#include "sampling/SamplingSettings.h"

namespace {
thread_local uint64_t t_allocations = 0;
thread_local int t_untilFailure = 0;
}  // namespace

void support::FailAllocation(int nth) {
    t_untilFailure = nth;
}

// Not inlined: the compiler would see a block of malloc given to delete and warn.
#define ZEL_APART __attribute__((noinline))

ZEL_APART void* operator new(size_t size) {
    ++t_allocations;
    if (t_untilFailure > 0 && --t_untilFailure == 0) throw std::bad_alloc();
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
// Some of the C++ library's algorithms ask by this one, and give back by the usual.
ZEL_APART void* operator new(size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
ZEL_APART void operator delete(void* memory) noexcept {
    std::free(memory);
}
ZEL_APART void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace {

class SilentSink : public IResourceEventSink {
public:
    void OnResourceWarning(const ResourceWarning&) override {}
    void OnSelfKill(const SelfKillRecord&) override {}
    void OnThreadStalled(const ThreadStall&) override {}
};

class CountingMonitor : public CResourceMonitor {
public:
    void MonitorOther(unsigned long tick) override {
        m_allocations = t_allocations;
        m_rounds = tick + 1;
    }
    std::atomic<uint64_t> m_allocations{0};
    std::atomic<uint64_t> m_rounds{0};
};

}  // namespace

TEST(SteadyRoundTest, CallsNoOperatorNew) {
    support::TempDir dir;
    zelhost::SamplingSettings settings;
    settings.processName = "tervane";
    settings.options.roundMs = 2;
    settings.options.recordDir = dir / "records";
    zelhost::SetSamplingSettings(settings);
    CountingMonitor monitor;
    SilentSink sink;
    monitor.SetMaxCpu(10000);
    monitor.SetMaxMem(1 << 20);
    monitor.SetMaxFdCount(1 << 20);
    monitor.SetMaxIO(1 << 30, 1 << 30);
    monitor.SetThreadHeartbeat(static_cast<unsigned int>(getpid()), "main", 3600);
    monitor.SetWatcherProcess({{static_cast<unsigned int>(getpid()), "self"}});
    ASSERT_TRUE(monitor.StartMonitor(&sink));
    ASSERT_TRUE(support::Eventually([&] { return monitor.m_rounds >= 10; }));
    const uint64_t before = monitor.m_allocations;
    EXPECT_GT(before, 0u) << "opening its files and taking the set of processes costs some, and is counted";
    const uint64_t from = monitor.m_rounds;
    // Past the end of several minutes, so that their work is in it.
    ASSERT_TRUE(support::Eventually([&] { return monitor.m_rounds >= from + 200; }));
    EXPECT_EQ(monitor.m_allocations, before);
    monitor.StopMonitor();
}
