// What an error says, and the kinds of the kernel's; a lock that is given back early.
#include "base/Result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "base/Mutex.h"
#include "support/Waiting.h"

namespace {

using base::ErrorKind;

TEST(ResultTest, EachKindHasANameOfItsOwn) {
    const std::pair<ErrorKind, const char*> names[] = {{ErrorKind::kNotFound, "not found"},
                                                       {ErrorKind::kDenied, "denied"},
                                                       {ErrorKind::kReadOnly, "read-only"},
                                                       {ErrorKind::kBusy, "busy"},
                                                       {ErrorKind::kInvalidValue, "invalid value"},
                                                       {ErrorKind::kNoSpace, "no space"},
                                                       {ErrorKind::kGone, "group gone"},
                                                       {ErrorKind::kNotCgroup, "not a cgroup file system"},
                                                       {ErrorKind::kNoController, "no controller"},
                                                       {ErrorKind::kNotDelegated, "not delegated"},
                                                       {ErrorKind::kShortWrite, "short write"},
                                                       {ErrorKind::kTooLarge, "too large"},
                                                       {ErrorKind::kMalformed, "malformed"},
                                                       {ErrorKind::kUnreadable, "unreadable"},
                                                       {ErrorKind::kNotInForce, "not in force"},
                                                       {ErrorKind::kNotSynced, "not synced"},
                                                       {ErrorKind::kNoServer, "no server"},
                                                       {ErrorKind::kRefused, "refused"},
                                                       {ErrorKind::kOther, "other"}};
    std::set<ErrorKind> seen;
    for (const auto& [kind, name] : names) {
        EXPECT_STREQ(name, base::KindName(kind));
        seen.insert(kind);
    }
    EXPECT_EQ(static_cast<size_t>(ErrorKind::kOther) + 1, seen.size()) << "every kind stands here";
}

TEST(ResultTest, TheKernelsErrorsHaveTheirKinds) {
    const std::pair<int, ErrorKind> kinds[] = {{ENOENT, ErrorKind::kNotFound},
                                               {ESRCH, ErrorKind::kNotFound},
                                               {EPERM, ErrorKind::kDenied},
                                               {EACCES, ErrorKind::kDenied},
                                               {EROFS, ErrorKind::kReadOnly},
                                               {EBUSY, ErrorKind::kBusy},
                                               {EINVAL, ErrorKind::kInvalidValue},
                                               {ERANGE, ErrorKind::kInvalidValue},
                                               {ENOSPC, ErrorKind::kNoSpace},
                                               {ENOMEM, ErrorKind::kNoSpace},
                                               {EMFILE, ErrorKind::kNoSpace},
                                               {ENFILE, ErrorKind::kNoSpace},
                                               {ENODEV, ErrorKind::kGone},
                                               {ELOOP, ErrorKind::kRefused},
                                               {ENOTDIR, ErrorKind::kRefused},
                                               {EIO, ErrorKind::kOther},
                                               {0, ErrorKind::kOther}};
    for (const auto& [error, kind] : kinds) EXPECT_EQ(kind, base::KindOfErrno(error)) << error;
}

TEST(ResultTest, ATextNamesOperationPathReasonAndHint) {
    const base::Error failed = base::ErrnoError(ENOENT, "open", "/a");
    EXPECT_EQ("cannot open /a: No such file or directory", failed.Text());
    EXPECT_EQ("No such file or directory", failed.Reason());
    EXPECT_EQ(ENOENT, failed.error);
    const base::Error hinted = base::ErrnoError(EACCES, "open", "/a", "ask root");
    EXPECT_EQ("cannot open /a: Permission denied; ask root", hinted.Text());
    EXPECT_EQ("ask root", hinted.Reason());
    const base::Error own = base::MakeError(ErrorKind::kBusy, "serve", "/s");
    EXPECT_EQ("cannot serve /s: busy", own.Text());
    EXPECT_EQ("busy", own.Reason());
    EXPECT_EQ(0, own.error);
    const base::Error sentence = base::SentenceError("it is so", ErrorKind::kNoSpace);
    EXPECT_EQ("it is so", sentence.Text());
    EXPECT_EQ(ErrorKind::kNoSpace, sentence.kind);
}

/// Whether another thread would get it.
bool IsFree(base::Mutex& mutex) {
    bool got = false;
    std::thread([&] {
        got = mutex.try_lock();
        if (got) mutex.unlock();
    }).join();
    return got;
}

TEST(MutexTest, ALockThatWasGivenBackIsNotGivenBackAgain) {
    base::Mutex mutex;
    support::Signal taken;
    support::Signal over;
    std::thread other;
    {
        base::MutexLock lock(mutex);
        EXPECT_FALSE(IsFree(mutex));
        lock.unlock();
        EXPECT_TRUE(IsFree(mutex));
        other = std::thread([&] {
            const base::MutexLock theirs(mutex);
            taken.Set();
            over.Wait();
        });
        ASSERT_TRUE(taken.Wait());
    }
    EXPECT_FALSE(IsFree(mutex)) << "somebody else's by now";
    over.Set();
    other.join();
    {
        base::MutexLock lock(mutex);
        lock.unlock();
        lock.lock();
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

}  // namespace
