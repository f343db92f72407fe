// The mask is inherited, so it is set around the start.
#include "base/QuietThread.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace base {

Result<std::thread> StartQuietThread(const std::string& name, std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread;
    int failed = 0;
    try {
        thread = std::thread([name, held = std::move(body)] {
            pthread_setname_np(pthread_self(), name.c_str());
            held();
        });
    } catch (const std::system_error& failure) {
        failed = failure.code().value();
    } catch (const std::bad_alloc&) {
        failed = ENOMEM;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (failed != 0) return ErrnoError(failed, "start the thread", name);
    return thread;
}

}  // namespace base
