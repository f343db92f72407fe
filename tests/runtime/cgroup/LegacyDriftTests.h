// What somebody else does to the legacy group, row by row, and that it is put right: the same on both versions.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "LegacyLimit.h"
#include "RealKernel.h"
#include "support/Files.h"
#include "support/RecordedLog.h"

namespace zel::cgroup {

/// One thing that somebody else does. `Fixture`: what it is done to.
template <class Fixture>
struct DriftRow {
    const char* name;
    CgroupDriftKind kind;
    void (*disturb)(Fixture&);
    friend void PrintTo(const DriftRow& row, std::ostream* out) { *out << row.name; }
};

template <class Fixture>
std::string NameOfRow(const testing::TestParamInfo<DriftRow<Fixture>>& row) {
    return row.param.name;
}

/// A process and its child, held by both limits. `Base`: the fixture of one version, with `m_limit` and `m_error`.
template <class Base>
class LegacyDriftFixture : public Base {
public:
    /// Everything that is kept, as the kernel shows it.
    virtual std::string Picture() const = 0;
    int ChildPid() const { return m_child->Pid(); }
    static void Write(const std::string& path, const std::string& value) {
        ASSERT_TRUE(support::WriteText(path, value)) << path;
    }

protected:
    void TearDown() override {
        if (this->m_limit) this->m_limit->ReleaseLimits();
        m_child.reset();
        Base::TearDown();
    }
    void Limit(int hardBytes, int softBytes) {
        m_child = std::make_unique<WaitingChild>();
        ASSERT_EQ(kLegacyOk, this->m_limit->StartCpuLimit(50, 0, this->m_error));
        ASSERT_EQ(kLegacyOk, this->m_limit->StartMemLimit(hardBytes, softBytes, this->m_error));
        for (int i = 0; i < 2; ++i) this->m_limit->SyncCpuLimit();
        ASSERT_THAT(this->m_limit->TakeNews(), testing::IsEmpty()) << "an undisturbed group is not in need of repair";
        m_asked = Picture();
        support::TakeLogLines();
    }
    uint64_t Found(CgroupDriftKind kind) const {
        return this->m_limit->KeeperStatus().found[static_cast<size_t>(kind)];
    }
    /// Two looks put it right; it is told once, and counted as often as it is found.
    void ExpectPutRight(CgroupDriftKind kind, uint64_t found) {
        ASSERT_NE(m_asked, Picture()) << "nothing was disturbed";
        this->m_limit->SyncCpuLimit();
        this->m_limit->SyncCpuLimit();
        EXPECT_EQ(m_asked, Picture());
        const std::vector<CgroupDrift> news = this->m_limit->TakeNews();
        ASSERT_THAT(news, testing::SizeIs(1));
        EXPECT_EQ(kind, news[0].kind);
        EXPECT_TRUE(news[0].repaired) << news[0].problem;
        EXPECT_EQ(found, Found(kind));
        EXPECT_GT(this->m_limit->KeeperStatus().lastRepairedAt, 0);
        EXPECT_THAT(this->m_limit->KeeperStatus().notInForce, testing::IsEmpty());
    }

    std::unique_ptr<WaitingChild> m_child;
    std::string m_asked;
};

}  // namespace zel::cgroup
