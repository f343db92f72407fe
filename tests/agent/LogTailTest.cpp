#include "LogTail.h"

#include <gtest/gtest.h>

#include "AgentLog.h"
#include "platform/zel/LogControl.h"

using namespace agent;

namespace {

StatusReport Read(const LogTail& tail) {
    EXPECT_TRUE(zel::FlushLog());
    StatusReport report;
    tail.AddTo(report);
    return report;
}

class LogTailTest : public ::testing::Test {
protected:
    void SetUp() override {
        zel::LogOptions options;
        options.file = false;
        zel::ConfigureLog(options);
    }
};

}  // namespace

TEST_F(LogTailTest, KeepsWarningsAndErrorsOnly) {
    const LogTail tail;
    LogLine("tail info", zel::kLogInfo);
    LogLine("tail warning", zel::kLogWarning);
    LogLine("tail error", zel::kLogError);
    const StatusReport report = Read(tail);
    EXPECT_EQ(2U, report.logCount);
    ASSERT_EQ(2U, report.logLines.size());
    EXPECT_NE(std::string::npos, report.logLines[0].find("tail warning"));
    EXPECT_NE(std::string::npos, report.logLines[1].find("tail error"));
}

TEST_F(LogTailTest, KeepsTheLastOnesCutAndCountsAll) {
    const LogTail tail;
    for (int i = 0; i < 40; ++i) LogLine("line " + std::to_string(i) + std::string(1000, '.'), zel::kLogWarning);
    const StatusReport report = Read(tail);
    EXPECT_EQ(40U, report.logCount);
    ASSERT_EQ(16U, report.logLines.size());
    EXPECT_NE(std::string::npos, report.logLines[0].find("line 24"));
    for (const std::string& line : report.logLines) EXPECT_LE(line.size(), 400U);
}

TEST_F(LogTailTest, HearsNothingAfterItsEnd) {
    { const LogTail tail; }
    LogLine("nobody hears this", zel::kLogWarning);
    ASSERT_TRUE(zel::FlushLog());
    const LogTail next;
    EXPECT_EQ(0U, Read(next).logCount);
}
