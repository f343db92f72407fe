// The loop that a whole process shares: this program's handles work on the library's loop, it ends with its last user.
#include "platform/zel/ProcessLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "base/Fd.h"
#include "base/IoLoop.h"
#include "support/Faults.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace {

TEST(ProcessLoopTest, HasOneThreadFromItsFirstUserToItsLast) {
    std::string error;
    EXPECT_EQ(0u, support::ThreadsNamed("zel-io"));
    for (int round = 0; round < 3; ++round) {
        std::shared_ptr<base::IoLoop> first = zel::JoinProcessLoop(error);
        ASSERT_NE(nullptr, first) << error;
        std::shared_ptr<base::IoLoop> second = zel::JoinProcessLoop(error);
        EXPECT_EQ(first, second);
        first->Run([] {});
        EXPECT_EQ(1u, support::ThreadsNamed("zel-io"));
        first.reset();
        bool ran = false;
        second->Run([&] { ran = true; });
        EXPECT_TRUE(ran);
        second.reset();
        EXPECT_TRUE(support::Eventually([] { return support::ThreadsNamed("zel-io") == 0; }));
    }
}

TEST(ProcessLoopTest, HandlesOfAnotherLibraryWorkOnIt) {
    std::string error;
    const std::shared_ptr<base::IoLoop> loop = zel::JoinProcessLoop(error);
    ASSERT_NE(nullptr, loop) << error;
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
    const base::Fd reading(ends[0]);
    const base::Fd writing(ends[1]);
    support::Signal timed;
    support::Signal readable;
    std::unique_ptr<base::IoTimer> timer;
    std::unique_ptr<base::IoWatch> watch;
    base::Status twice;
    loop->Run([&] {
        timer = std::make_unique<base::IoTimer>(*loop);
        watch = std::make_unique<base::IoWatch>(*loop);
        ASSERT_TRUE(watch->Open(reading.Get()));
        watch->WaitReadable([&] { readable.Set(); });
        timer->Start(std::chrono::milliseconds(1), [&] {
            timed.Set();
            throw std::string("crosses the libraries as well");
        });
        base::IoWatch other(*loop);
        twice = other.Open(-1);
    });
    EXPECT_FALSE(twice);
    EXPECT_TRUE(timed.Wait());
    ASSERT_EQ(1, write(writing.Get(), "x", 1));
    EXPECT_TRUE(readable.Wait());
    loop->Run([&] {
        timer.reset();
        watch.reset();
    });
}

TEST(ProcessLoopTest, ARefusedThreadIsSaidAndTriedByTheNext) {
    std::string error;
    {
        const faults::Failing refused(faults::Call::kThreadCreate, EAGAIN);
        EXPECT_EQ(nullptr, zel::JoinProcessLoop(error));
    }
    EXPECT_NE(std::string::npos, error.find("zel-io")) << error;
    EXPECT_NE(nullptr, zel::JoinProcessLoop(error));
}

#ifndef __SANITIZE_THREAD__  // it does not allow threads in a forked child
TEST(ProcessLoopTest, AForkedChildHasOneOfItsOwn) {
    std::string error;
    const std::shared_ptr<base::IoLoop> loop = zel::JoinProcessLoop(error);
    ASSERT_NE(nullptr, loop) << error;
    const pid_t child = fork();
    if (child == 0) {
        bool ran = false;
        std::shared_ptr<base::IoLoop> own = zel::JoinProcessLoop(error);
        if (own != nullptr && own != loop) own->Run([&] { ran = true; });
        own.reset();
        _exit(ran ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    bool ran = false;
    loop->Run([&] { ran = true; });
    EXPECT_TRUE(ran);
}
#endif

}  // namespace
