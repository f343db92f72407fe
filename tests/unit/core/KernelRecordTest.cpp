// Macros of the C library that share names with fields of the module's records stay with the including program.
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include "MonitorPri.h"

TEST(KernelRecordTest, LeavesTheDeviceNumberMacrosAlone) {
    const dev_t device = makedev(8, 3);
    EXPECT_EQ(8U, major(device));
    EXPECT_EQ(3U, minor(device));
    stKernel kernel;
    kernel.major = 6;
    kernel.minor = 1;
    EXPECT_EQ(7U, kernel.major + kernel.minor);
}
