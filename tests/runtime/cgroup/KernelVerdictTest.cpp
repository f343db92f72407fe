// One key, one verdict: the module (unified mode) and the legacy limit judge the same kernel by the same exclude lists.
// Random releases and lists, drawn so that they meet the ends of ranges; a third, plain evaluation of the rule stands
// beside both. The module and the cgroup layer are the real ones, over the real library; only uname(2) is scripted.
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstdint>
#include <cstdio>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "LegacyLimit.h"
#include "MonitorPri.h"
#include "platform/zel/KernelVersion.h"
#include "platform/zel/LogControl.h"

namespace {

std::string g_release;
bool g_unameFails = false;

#if defined(__OPTIMIZE__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr int kPairs = 1000000;
#else
constexpr int kPairs = 100000;  // as long as the million takes in an optimised program
#endif
constexpr int kPairsThroughObjects = 5000;

struct Pair {
    std::string release;
    std::string ranges;
    std::string prefixes;
};

/// The module's half, from a kernel that it has not read yet.
class Module : public CMonitorPri {
public:
    /// Through the two operations that answer for the lists.
    bool Excludes(const Pair& pair) {
        m_localKernel = stKernel();
        g_release = pair.release;
        GetLocalKernel();
        m_memLimitExcludeRange = pair.ranges;
        return (!pair.prefixes.empty() && CheckKernelHits(pair.prefixes)) ||
               (!pair.ranges.empty() && LocalKernelLimits(m_memLimitExcludeRange));
    }

    /// Through the unified mode's whole policy, with every kernel allowed that can be read.
    bool PolicyExcludes(const Pair& pair) {
        m_localKernel = stKernel();
        g_release = pair.release;
        m_memLimitKernelRange = "0.0.0-0,65535.255.255-2147483647";
        m_memLimitExcludeKernels = pair.prefixes;
        m_memLimitExcludeRange = pair.ranges;
        bool cpuOn = false;
        bool memOn = true;
        ApplyMultiCgroupKernelPolicy(cpuOn, memOn);
        return !memOn && !m_localKernel.release.empty();
    }
};

/// The legacy limit's half, through the object that the module hands the lists to.
class Legacy {
public:
    Legacy() : m_limit(Options()) {}

    bool Excludes(const Pair& pair) {
        g_release = pair.release;
        m_limit.SetKernelExcludeLists(2, pair.ranges, pair.prefixes);
        return m_limit.PrepareMemLimit() == zel::cgroup::kLegacyKernelExcluded;
    }

private:
    static zel::cgroup::LegacyOptions Options() {
        zel::cgroup::LegacyOptions options;
        options.groupName = "zelverdict";
        options.readLayout = []() -> base::Result<zel::cgroup::Layout> { return zel::cgroup::Layout(); };
        return options;
    }

    zel::cgroup::LegacyLimit m_limit;
};

// --- the rule once more, plainly -------------------------------------------------------------------------------------

std::vector<std::string> Cut(const std::string& text, char at) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (c == at) {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    return pieces;
}

uint64_t Decimal(const std::string& text) {
    return static_cast<uint32_t>(zel::CStringUtil::StringToInt(text, nullptr, 10));
}

/// One number per version: 32 bits of the spilled sum above 32 bits of build.
bool Bound(const std::string& text, uint64_t& packed, uint64_t& build) {
    const auto halves = Cut(text, '-');
    if (halves.size() != 2) return false;
    const auto parts = Cut(halves[0], '.');
    if (parts.size() != 3) return false;
    packed = (Decimal(parts[0]) * 65536 + Decimal(parts[1]) * 256 + Decimal(parts[2])) & UINT32_MAX;
    build = Decimal(halves[1]);
    return true;
}

bool RuleExcludes(const Pair& pair) {
    unsigned int numbers[3] = {};
    if (sscanf(pair.release.c_str(), "%u.%u.%u", &numbers[0], &numbers[1], &numbers[2]) != 3) return false;
    const auto pieces = Cut(pair.release, '-');
    const uint64_t build = pieces.size() < 2 ? 0 : Decimal(Cut(pieces[1], '.')[0]);
    const uint64_t packed = (uint64_t{numbers[0]} * 65536 + uint64_t{numbers[1]} * 256 + numbers[2]) & UINT32_MAX;

    for (const std::string& entry : Cut(pair.prefixes, ' ')) {
        const std::string prefix = zel::CStringUtil::trim(entry);
        if (!prefix.empty() && pair.release.rfind(prefix, 0) == 0) return true;
    }
    for (const std::string& entry : Cut(zel::CStringUtil::trim(pair.ranges), ' ')) {
        const auto ends = Cut(entry, ',');
        uint64_t low = 0, lowBuild = 0, high = 0, highBuild = 0;
        if (ends.size() != 2 || !Bound(ends[0], low, lowBuild) || !Bound(ends[1], high, highBuild)) continue;
        const bool above = packed > low || (packed == low && build >= lowBuild);
        const bool below = packed < high || (packed == high && build <= highBuild);
        if (above && below) return true;
    }
    return false;
}

// --- what is drawn ---------------------------------------------------------------------------------------------------

class Generator {
public:
    explicit Generator(uint64_t seed) : m_random(seed) {}

    Pair Next() {
        m_numbers[0] = Draw(7);
        m_numbers[1] = AroundBoundary();
        m_numbers[2] = AroundBoundary();
        m_numbers[3] = Draw(4) == 0 ? AroundBoundary() : Draw(20);
        Pair pair;
        pair.release = Release();
        pair.ranges = List(&Generator::Range);
        pair.prefixes = Draw(3) == 0 ? List(&Generator::Prefix) : "";
        return pair;
    }

private:
    uint32_t Draw(uint32_t bound) { return static_cast<uint32_t>(m_random() % bound); }

    uint32_t AroundBoundary() {
        static constexpr uint32_t kEnds[] = {0, 0, 1, 9, 10, 255, 256, 257, 511, 512, 513, 65535, 65536};
        return Draw(3) != 0 ? Draw(12) : kEnds[Draw(sizeof kEnds / sizeof *kEnds)];
    }

    std::string Number(uint32_t value) {
        const std::string text = std::to_string(value);
        switch (Draw(40)) {
            case 0: return "";
            case 1: return "x";
            case 2: return text + "x";
            case 3: return "+" + text;
            case 4: return "99999999999999999999";
            case 5: return "\t" + text;
            case 6:
            case 7:
            case 8: return "0" + text;
            case 9: return "000" + text;
            default: return text;
        }
    }

    std::string Release() {
        const std::string version =
            std::to_string(m_numbers[0]) + "." + std::to_string(m_numbers[1]) + "." + std::to_string(m_numbers[2]);
        const std::string build = std::to_string(m_numbers[3]);
        switch (Draw(16)) {
            case 0: return version;
            case 1: return version + "-";
            case 2: return version + "-0" + build + ".x86_64";
            case 3: return version + "-" + build + "-cloud-amd64";
            case 4: return version + "-rc" + build;
            case 5: return version + "." + build + "-" + build;
            case 6: return version + "+";
            case 7: return Draw(4) == 0 ? "abc" : "0" + version + "-" + build;
            case 8: return Draw(4) == 0 ? "" : std::to_string(m_numbers[0]) + "." + std::to_string(m_numbers[1]);
            default: return version + "-" + build;
        }
    }

    /// A bound at or beside the release; often written so that a patch spills into the minor, or is taken out of it.
    std::string BoundText() {
        int64_t packed = (int64_t{m_numbers[0]} << 16) + (int64_t{m_numbers[1]} << 8) + m_numbers[2];
        packed += static_cast<int64_t>(Draw(5)) - 2;
        if (Draw(3) == 0) packed += (static_cast<int64_t>(Draw(5)) - 2) * 256;
        if (packed < 0) packed = 0;
        int64_t first = packed >> 16;
        int64_t second = (packed >> 8) & 255;
        int64_t third = packed & 255;
        if (Draw(3) == 0 && second > 0) {
            --second;
            third += 256;
        } else if (Draw(6) == 0 && first > 0) {
            --first;
            second += 256;
        }
        const int64_t build = static_cast<int64_t>(m_numbers[3]) + Draw(5) - 2;
        std::string text = Number(static_cast<uint32_t>(first)) + "." + Number(static_cast<uint32_t>(second));
        if (Draw(60) != 0) text += "." + Number(static_cast<uint32_t>(third));
        if (Draw(60) != 0) text += "-" + Number(static_cast<uint32_t>(build < 0 ? 0 : build));
        return text;
    }

    std::string Range() {
        switch (Draw(30)) {
            case 0: return "";
            case 1: return BoundText();
            case 2: return BoundText() + "," + BoundText() + "," + BoundText();
            case 3: return BoundText() + ",";
            case 4: return BoundText() + ", " + BoundText();
            case 5: return "garbage";
            default: return BoundText() + "," + BoundText();
        }
    }

    std::string Prefix() {
        const std::string release = Release();
        std::string prefix = release.substr(0, Draw(static_cast<uint32_t>(release.size()) + 1));
        if (Draw(4) == 0) prefix += static_cast<char>('0' + Draw(10));
        return prefix;
    }

    std::string List(std::string (Generator::*entry)()) {
        static constexpr const char* kGaps[] = {" ", " ", " ", " ", "  ", "\t", " \t ", "\n", ";"};
        static constexpr const char* kEdges[] = {"", "", "", " ", "\t", "\r\n", "  "};
        std::string list = kEdges[Draw(7)];
        for (uint32_t left = Draw(4); left > 0; --left) {
            list += (this->*entry)();
            if (left > 1) list += kGaps[Draw(9)];
        }
        return list + kEdges[Draw(7)];
    }

    std::mt19937_64 m_random;
    uint32_t m_numbers[4] = {};  ///< of the pair that is drawn: three of the version, build
};

uint64_t Seed() {
    const char* given = getenv("ZEL_SEED");
    return given != nullptr ? strtoull(given, nullptr, 10) : std::random_device()();
}

std::string Shown(const Pair& pair) {
    return "release [" + pair.release + "] ranges [" + pair.ranges + "] prefixes [" + pair.prefixes + "]";
}

/// One random source per test; its seed is printed and can be given again in ZEL_SEED.
class KernelVerdictTest : public testing::Test {
protected:
    KernelVerdictTest() : m_seed(Seed()), m_generator(m_seed) {
        zel::LogOptions quiet;
        quiet.file = false;
        zel::ConfigureLog(quiet);
        printf("ZEL_SEED=%llu\n", static_cast<unsigned long long>(m_seed));
    }

    const uint64_t m_seed;
    Generator m_generator;
    Module m_module;
};

}  // namespace

extern "C" int __wrap_uname(struct utsname* name) {
    if (g_unameFails) {
        strcpy(name->release, "6.1.0-1");  // what a failed call leaves is not looked at
        errno = EFAULT;
        return -1;
    }
    memset(name, 0, sizeof *name);
    strncpy(name->release, g_release.c_str(), sizeof name->release - 1);
    return 0;
}

TEST_F(KernelVerdictTest, ModuleAndLegacyLimitAgreeOnRandomPairs) {
    int excluded = 0;
    for (int i = 0; i < kPairs; ++i) {
        const Pair pair = m_generator.Next();
        const bool module = m_module.Excludes(pair);
        ASSERT_EQ(module, zel::IsKernelExcluded(pair.release, pair.ranges, pair.prefixes)) << Shown(pair);
        ASSERT_EQ(module, RuleExcludes(pair)) << Shown(pair);
        if (module) ++excluded;
    }
    // What is drawn decides both ways often enough to tell.
    EXPECT_GT(excluded, kPairs / 10);
    EXPECT_LT(excluded, kPairs - kPairs / 10);
}

TEST_F(KernelVerdictTest, UnifiedPolicyAndLegacyObjectAgree) {
    Legacy legacy;
    for (int i = 0; i < kPairsThroughObjects; ++i) {
        const Pair pair = m_generator.Next();
        const bool expected = RuleExcludes(pair);
        ASSERT_EQ(expected, m_module.PolicyExcludes(pair)) << Shown(pair);
        ASSERT_EQ(expected, legacy.Excludes(pair)) << Shown(pair);
    }
}

TEST_F(KernelVerdictTest, AKernelThatCannotBeAskedIsOnNoList) {
    Legacy legacy;
    const Pair everything = {"6.1.0-1", "0.0.0-0,9.9.9-9", "6"};
    EXPECT_TRUE(legacy.Excludes(everything));
    g_unameFails = true;
    EXPECT_FALSE(legacy.Excludes(everything));
    g_unameFails = false;
    EXPECT_TRUE(legacy.Excludes(everything));
}

TEST_F(KernelVerdictTest, BothFollowTheTable) {
    struct Case {
        const char *release, *ranges, *prefixes;
        bool excluded;
    };
    const Case cases[] = {
        {"4.9.93-010.x86_64", "", "4.9.93-010", true},
        {"4.9.93-0101", "", "4.9.93-010", true},
        {"4.9.93-011", "", "4.9.93-010  4.9.93-012", false},
        {"4.9.93-011", "4.9.93-010,4.9.93-012", "", true},
        {"4.9.93-9", "4.9.93-010,4.9.93-012", "", false},
        {"4.9.93-13", "4.9.93-010,4.9.93-012", "", false},
        {"4.14.7-500", "4.9.0-0,4.19.0-0", "", true},
        {"6.1.0-49-cloud-amd64", "1.0.0-0,2.0.0-0 6.1.0-49,6.1.0-49", "", true},
        {"5.10.0", "5.10.0-0,5.10.0-0", "", true},
        {"5.10.0", "5.10.0,5.10.0 5.10-0,5.10-0 garbage , - 5.10.0-0", "", false},
        {"abc", "0.0.0-0,9.9.9-9", "a", false},  // a release that cannot be read is on no list
        {"", "0.0.0-0,9.9.9-9", "a", false},
        {"6.1.0-1", "", "", false},
        {"6.1.0-1", "  \t", " ", false},
        {"4.9.300-1", "4.10.0-0,4.11.0-0", "", true},  // a patch of 256 and more spills into the minor
        {"5.10.257", "5.11.0-0,5.11.9-9", "", true},   // on both sides alike
        {"5.11.1-0", "5.10.257-0,5.10.258-0", "", true},
        {"6.1.0-1", "1.0.0-0,2.0.0-0\t6.1.0-1,6.1.0-1", "", false},  // only single blanks separate entries
        {"6.1.0-1", "", "5.1\t6.1", false},
        {"6.1.0-1", "\t6.1.0-1,6.1.0-1\n", "", true},
    };
    Legacy legacy;
    for (const Case& c : cases) {
        const Pair pair = {c.release, c.ranges, c.prefixes};
        EXPECT_EQ(c.excluded, m_module.Excludes(pair)) << Shown(pair);
        EXPECT_EQ(c.excluded, m_module.PolicyExcludes(pair)) << Shown(pair);
        EXPECT_EQ(c.excluded, legacy.Excludes(pair)) << Shown(pair);
    }
}
