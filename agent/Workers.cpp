// Synthetic work. Greedy threads only count; polite ones ask the monitor between two pieces of work and hold back
// when it says so; memory is touched page by page so that the kernel has to find it.
#include "Workers.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "Monitor.h"
#include "platform/zel/ThreadUtil.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

constexpr unsigned int kPoliteWorkPriority = 1;
constexpr int kPieceRounds = 40000;        // about 0.1 ms on a machine of 2020
constexpr unsigned int kPauseStepMs = 20;  // how soon a pausing worker notices that it is to end
constexpr size_t kPageBytes = 4096;
constexpr int kHangTimeoutSeconds = 5;

/// One piece of work: arithmetic that the compiler must not drop.
void DoPiece() {
    static thread_local volatile uint64_t sink = 0;
    uint64_t state = sink + 1;
    for (int i = 0; i < kPieceRounds; ++i) state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    sink = state;
}

/// Takes memory and touches every page of it. Returns: null when the system has none to give.
char* TakeMemory(size_t bytes) {
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    char* pages = static_cast<char*>(memory);
    for (size_t at = 0; at < bytes; at += kPageBytes) pages[at] = static_cast<char>(at >> 12 | 1);
    return pages;
}

}  // namespace

WorkerFigures Workers::Counters::Read() const {
    WorkerFigures figures;
    figures.threads = threads.load(std::memory_order_relaxed);
    figures.pieces = pieces.load(std::memory_order_relaxed);
    figures.asked = asked.load(std::memory_order_relaxed);
    figures.held = held.load(std::memory_order_relaxed);
    return figures;
}

Workers::Workers(CMonitor& monitor) : m_monitor(monitor) {}
Workers::~Workers() {
    Stop();
}

void Workers::Start(const LoadProfile& profile) {
    for (const LoadItem& item : profile) {
        switch (item.kind) {
            case LoadKind::kGreedy:
                for (int i = 0; i < item.amount; ++i) m_threads.emplace_back(&Workers::RunGreedy, this);
                break;
            case LoadKind::kPolite:
                for (int i = 0; i < item.amount; ++i) m_threads.emplace_back(&Workers::RunPolite, this);
                break;
            case LoadKind::kHold: m_threads.emplace_back(&Workers::RunHold, this, item.amount); break;
            case LoadKind::kHog: m_threads.emplace_back(&Workers::RunHog, this, item.amount); break;
            case LoadKind::kHang: m_threads.emplace_back(&Workers::RunHang, this, item.amount); break;
        }
    }
}

void Workers::Stop() {
    m_stop.store(true, std::memory_order_relaxed);
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
    m_stop.store(false, std::memory_order_relaxed);
}

WorkerFigures Workers::Greedy() const {
    return m_greedy.Read();
}
WorkerFigures Workers::Polite() const {
    return m_polite.Read();
}

bool Workers::Pause(unsigned int milliseconds) const {
    for (unsigned int done = 0; done < milliseconds; done += kPauseStepMs) {
        if (m_stop.load(std::memory_order_relaxed)) return false;
        zel::CToolUtil::msleep(kPauseStepMs);
    }
    return !m_stop.load(std::memory_order_relaxed);
}

void Workers::RunGreedy() {
    zel::CThreadUtil::SetThreadName("greedy worker");
    m_greedy.threads.fetch_add(1, std::memory_order_relaxed);
    while (!m_stop.load(std::memory_order_relaxed)) {
        // It asks too, so that the view can show the answer, but takes no notice of it.
        m_greedy.asked.fetch_add(1, std::memory_order_relaxed);
        if (m_monitor.IsCpuNeedLimit(kPoliteWorkPriority)) m_greedy.held.fetch_add(1, std::memory_order_relaxed);
        DoPiece();
        m_greedy.pieces.fetch_add(1, std::memory_order_relaxed);
    }
    m_greedy.threads.fetch_sub(1, std::memory_order_relaxed);
}

void Workers::RunPolite() {
    zel::CThreadUtil::SetThreadName("polite worker");
    m_polite.threads.fetch_add(1, std::memory_order_relaxed);
    while (!m_stop.load(std::memory_order_relaxed)) {
        m_polite.asked.fetch_add(1, std::memory_order_relaxed);
        if (m_monitor.CpuLimit(kPoliteWorkPriority)) m_polite.held.fetch_add(1, std::memory_order_relaxed);
        DoPiece();
        m_polite.pieces.fetch_add(1, std::memory_order_relaxed);
    }
    m_polite.threads.fetch_sub(1, std::memory_order_relaxed);
}

void Workers::RunHold(int megabytes) {
    zel::CThreadUtil::SetThreadName("memory holder");
    size_t bytes = static_cast<size_t>(megabytes) << 20;
    char* memory = TakeMemory(bytes);
    if (memory == nullptr) return;
    m_memoryKb.fetch_add(bytes >> 10, std::memory_order_relaxed);
    while (Pause(1000)) {
    }
    munmap(memory, bytes);
    m_memoryKb.fetch_sub(bytes >> 10, std::memory_order_relaxed);
}

void Workers::RunHog(int megabytesPerSecond) {
    zel::CThreadUtil::SetThreadName("memory hog");
    std::vector<std::pair<char*, size_t>> taken;
    constexpr unsigned int kStepMs = 100;
    size_t step = (static_cast<size_t>(megabytesPerSecond) << 20) * kStepMs / 1000 / kPageBytes * kPageBytes;
    if (step == 0) step = kPageBytes;
    while (Pause(kStepMs)) {
        char* memory = TakeMemory(step);
        if (memory == nullptr) continue;
        taken.emplace_back(memory, step);
        m_memoryKb.fetch_add(step >> 10, std::memory_order_relaxed);
    }
    for (const auto& piece : taken) munmap(piece.first, piece.second);
    m_memoryKb.store(0, std::memory_order_relaxed);
}

void Workers::RunHang(int secondsBefore) {
    zel::CThreadUtil::SetThreadName("hanging worker");
    unsigned int tid = zel::CThreadUtil::GetCurrentThreadId();
    for (int i = 0; i < secondsBefore; ++i) {
        m_monitor.SetThreadHeartbeat(tid, "hanging worker", kHangTimeoutSeconds);
        if (!Pause(1000)) break;
    }
    while (Pause(1000)) {  // alive, but silent: what a deadlocked worker looks like from outside
    }
    m_monitor.RemoveThreadHeartbeat(tid);
}

}  // namespace agent
