// Records of the kernel's log: parsed from texts, walked in the real one where it may be read.
#include "base/KernelLog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/Faults.h"
#include "support/Files.h"

using base::KernelMessage;
using base::ParseKernelMessage;

TEST(KernelLogTest, ParsesTimeAndTextAndRefusesTheRest) {
    const auto message = ParseKernelMessage("6,339,5140900,-;NET: Registered\n SUBSYSTEM=x\n");
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(5140900U, message->sinceBootUs);
    EXPECT_EQ("NET: Registered", message->text);
    EXPECT_EQ("a;b,c", ParseKernelMessage("6,1,7,-,caller=T1;a;b,c\n")->text);
    EXPECT_EQ("", ParseKernelMessage("6,1,7;")->text);
    for (const char* text : {"", ";", "6;x", "6,1;x", "6,1,;x", "6,1,x,-;y", "6,1,7x,-;y", "no head", "6,1,-7,-;x",
                             "6,1,99999999999999999999,-;x", "a;6,1,7,-"}) {
        EXPECT_FALSE(ParseKernelMessage(text).has_value()) << text;
    }
}

TEST(KernelLogTest, AMissingOrForeignFileIsAnErrorAndNothingBlocks) {
    support::TempDir dir;
    const auto never = [](const KernelMessage&) { return true; };
    EXPECT_FALSE(base::WalkKernelLog((dir / "none").c_str(), never).Ok());
    ASSERT_EQ(0, mkfifo((dir / "pipe").c_str(), 0600));
    const auto walked = base::WalkKernelLog((dir / "pipe").c_str(), never);
    ASSERT_TRUE(walked.Ok());
    EXPECT_EQ(0U, *walked);
}

TEST(KernelLogTest, ALinkInItsPlaceIsNotFollowed) {
    support::TempDir dir;
    const std::string link = dir / "kmsg";
    ASSERT_EQ(0, symlink("/dev/null", link.c_str()));
    const auto walked = base::WalkKernelLog(link.c_str(), [](const KernelMessage&) { return true; });
    ASSERT_FALSE(walked.Ok());
    EXPECT_EQ(ELOOP, walked.GetError().error);
}

TEST(KernelLogTest, ALogWithoutAnEndIsWalkedUpToTheBound) {
    const auto walked = base::WalkKernelLog("/dev/zero", [](const KernelMessage&) { return true; });
    ASSERT_TRUE(walked.Ok()) << walked.GetError().Text();
    EXPECT_EQ(100000U, *walked);
}

TEST(KernelLogTest, AReadThatFailsEndsTheWalkUnlessOverwritten) {
    const auto walk = [](int error, int times) {
        const faults::Failing failing(faults::Call::kRead, error, 4, times);
        return base::WalkKernelLog("/dev/zero", [](const KernelMessage&) { return true; });
    };
    const auto atEnd = walk(EAGAIN, 1);
    ASSERT_TRUE(atEnd.Ok());
    EXPECT_EQ(3U, *atEnd);
    const auto overwritten = walk(EPIPE, 2);
    ASSERT_TRUE(overwritten.Ok());
    EXPECT_EQ(100000U - 2, *overwritten) << "the next read gives the oldest that is left";
    const auto failed = walk(EIO, 1);
    ASSERT_FALSE(failed.Ok());
    EXPECT_EQ(EIO, failed.GetError().error);
    EXPECT_NE(std::string::npos, failed.GetError().Text().find("/dev/zero"));
}

TEST(KernelLogTest, WalksTheRealOneInOrderUntilToldToStop) {
    uint64_t last = 0;
    bool ordered = true;
    const auto walked = base::WalkKernelLog(base::kKernelLogFile, [&](const KernelMessage& message) {
        ordered = ordered && message.sinceBootUs + 1000000 >= last;  // processors' clocks differ a little
        last = message.sinceBootUs;
        return true;
    });
    if (!walked) GTEST_SKIP() << "SKIP direct: " << walked.GetError().Text();
    EXPECT_GT(*walked, 0U);
    EXPECT_TRUE(ordered);
    const auto one = base::WalkKernelLog(base::kKernelLogFile, [](const KernelMessage&) { return false; });
    ASSERT_TRUE(one.Ok());
    EXPECT_EQ(1U, *one);
}
