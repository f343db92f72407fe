// The resource configuration without enough memory. This file replaces the program's allocation functions: they refuse
// requests of exactly one size while a test names it, or one request after so many others, and else do what the
// library's own do.
#include <atomic>
#include <cstdlib>
#include <new>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "CoreFixture.h"

namespace {

std::atomic<size_t> refusedBytes{0};  // 0: none
std::atomic<int> refusals{0};
std::atomic<int> refusedAfter{-1};  // below 0: none

void* Allocate(size_t bytes) noexcept {
    if (bytes == 0) bytes = 1;
    const bool isTurn = refusedAfter >= 0 && refusedAfter-- == 0;
    if (bytes != refusedBytes && !isTurn) return malloc(bytes);
    ++refusals;
    return nullptr;
}

void* AllocateOrThrow(size_t bytes) {
    void* block = Allocate(bytes);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

/// Requests of this size fail for as long as it lives.
struct Refusal {
    explicit Refusal(size_t bytes) {
        refusals = 0;
        refusedBytes = bytes;
    }
    ~Refusal() { refusedBytes = 0; }
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;
};

}  // namespace

void* operator new(size_t bytes) {
    return AllocateOrThrow(bytes);
}
void* operator new[](size_t bytes) {
    return AllocateOrThrow(bytes);
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    return Allocate(bytes);
}
void* operator new[](size_t bytes, const std::nothrow_t&) noexcept {
    return Allocate(bytes);
}
void operator delete(void* block) noexcept {
    free(block);
}
void operator delete[](void* block) noexcept {
    free(block);
}
void operator delete(void* block, size_t) noexcept {
    free(block);
}
void operator delete[](void* block, size_t) noexcept {
    free(block);
}

class OutOfMemoryTest : public CoreFixture {
protected:
    /// A size that nothing else asks for.
    static constexpr size_t kValueBytes = 700001;

    void SetUp() override {
        CoreFixture::SetUp();
        m_text = "max_cpu=20\ncgroup_groups=" + std::string(kValueBytes, 'g') + "\n";
        m_path = WriteConfig(m_text);
    }

    /// Parses while requests of this size fail. Returns: whether the parse said so and one was refused.
    bool IsRefused(size_t bytes) {
        const Refusal refusal(bytes);
        const bool parsed = pri().ParseMonitorConfig(m_path, m_config);
        return !parsed && refusals > 0;
    }

    /// Parses while one request fails, after so many others. Returns: whether the parse refused the file in order.
    bool IsRefusedAfter(int requests) {
        refusals = 0;
        refusedAfter = requests;
        bool parsed = true;
        try {
            parsed = pri().ParseMonitorConfig(m_path, m_config);
        } catch (const std::bad_alloc&) {  // of the scripted platform, which remembers each call
        }
        refusedAfter = -1;
        return !parsed && refusals == 1;
    }

    std::string m_text, m_path;
    ResourceConfig m_config;
};

TEST_F(OutOfMemoryTest, SaysThatFileCannotBeLoadedWhenItDoesNotFit) {
    EXPECT_TRUE(IsRefused(m_text.size() + 1));
    EXPECT_EQ(Lines({"CFileUtil::IsFile(" + m_path + ")", "W2 read resource monitor config fail"}), journal());
    EXPECT_EQ(0, m_config.maxCpu);
}

TEST_F(OutOfMemoryTest, WhereverItIsShortTheParserRefusesTheFile) {
    const Lines refused{"CFileUtil::IsFile(" + m_path + ")", "W2 read resource monitor config fail"};
#if defined(__SANITIZE_ADDRESS__)
    // The reader of such files, which is not ours, forgets its buffers when it runs short between two of them.
    const __lsan::ScopedDisabler forgetting;
#endif
    int times = 0;
    for (int requests = 0; requests < 60; ++requests) {
        if (IsRefusedAfter(requests) && journal() == refused) ++times;
        journal();
    }
    EXPECT_GE(times, 4) << "section, names and values have a node each, beside the text itself";
}

TEST_F(OutOfMemoryTest, SaysNothingOfLoadedFileWhenValueDoesNotFit) {
    EXPECT_TRUE(IsRefused(kValueBytes + 1));
    EXPECT_EQ(Lines({"CFileUtil::IsFile(" + m_path + ")"}), journal());
    EXPECT_EQ(20, m_config.maxCpu) << "read before";
    EXPECT_EQ("", pri().m_cgroupGroupsSpec);
    EXPECT_EQ(0, conf().maxCpu.Get()) << "nothing is published";
}

TEST_F(OutOfMemoryTest, ParsesTheSameFileOnceThereIsMemoryAgain) {
    ASSERT_TRUE(IsRefused(kValueBytes + 1));
    EXPECT_TRUE(pri().ParseMonitorConfig(m_path, m_config));
    EXPECT_EQ(20, conf().maxCpu.Get());
    EXPECT_EQ(kValueBytes, pri().m_cgroupGroupsSpec.size());
}
