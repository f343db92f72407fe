// Linked into a test program whose objects call in at every function they enter: writes which test entered which
// functions, and how long it took. Any thread.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" char __executable_start;

namespace {

constexpr size_t kSlots = 1U << 16;
std::atomic<uintptr_t> g_seen[kSlots];
FILE* g_out = nullptr;

void WriteAndForget(const char* head, long milliseconds) {
    fprintf(g_out, "%s %ld\n", head, milliseconds);
    const auto loaded = reinterpret_cast<uintptr_t>(&__executable_start);
    for (auto& slot : g_seen) {
        const uintptr_t address = slot.exchange(0);
        if (address != 0) fprintf(g_out, " %lx\n", static_cast<unsigned long>(address - loaded));
    }
    fflush(g_out);
}

class Listener final : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        // What ran before the first test, or between two, belongs to every test.
        WriteAndForget("*", 0);
    }
    void OnTestEnd(const testing::TestInfo& info) override {
        const std::string name = std::string(info.test_suite_name()) + "." + info.name();
        const char* verdict = info.result()->Skipped() ? "skipped " : info.result()->Failed() ? "failed " : "passed ";
        WriteAndForget((verdict + name).c_str(), static_cast<long>(info.result()->elapsed_time()));
    }
};

const bool g_registered = [] {
    const char* path = getenv("MUTATE_REACH");
    // A death test starts the program again: only the first one writes.
    g_out = path != nullptr ? fopen(path, "wx") : nullptr;
    if (g_out != nullptr) testing::UnitTest::GetInstance()->listeners().Append(new Listener);
    return g_out != nullptr;
}();

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void __cyg_profile_func_enter(void* function, void*) {
    const auto address = reinterpret_cast<uintptr_t>(function);
    for (size_t at = (address >> 2) % kSlots;; at = (at + 1) % kSlots) {
        uintptr_t found = g_seen[at].load(std::memory_order_relaxed);
        if (found == address) return;
        if (found == 0 && g_seen[at].compare_exchange_strong(found, address)) return;
        if (found == address) return;
    }
}

__attribute__((visibility("default"))) void __cyg_profile_func_exit(void*, void*) {}
}
