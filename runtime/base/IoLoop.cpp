// The loop on Asio's io_context. The one file that includes Asio for sockets: it watches bare descriptors, because
// Asio's own sockets are not close-on-exec and know no packets that keep their bounds.
#include "base/IoLoop.h"

#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

namespace base {

struct IoLoop::Impl {
    asio::io_context context{1};
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
    std::thread thread;

    void Run() {
        for (;;) {
            try {
                context.run();
                return;
            } catch (...) {
                // Ignoring it: a handler speaks for its own failures, and the others' connections go on.
            }
        }
    }
};

IoLoop::IoLoop(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

Result<std::unique_ptr<IoLoop>> IoLoop::Start(const std::string& threadName) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    // The host's signal handlers belong to the host's threads.
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::unique_ptr<Impl> impl;
    Error error;
    try {
        impl = std::make_unique<Impl>();
        impl->thread = std::thread([started = impl.get(), threadName] {
            pthread_setname_np(pthread_self(), threadName.c_str());
            started->Run();
        });
    } catch (const std::system_error& failure) {
        impl.reset();
        error = ErrnoError(failure.code().value(), "start the thread", threadName);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (impl == nullptr) return error;
    return std::unique_ptr<IoLoop>(new IoLoop(std::move(impl)));
}

IoLoop::~IoLoop() {
    m_impl->context.stop();
    m_impl->thread.join();
}

void IoLoop::Post(Handler handler) {
    asio::post(m_impl->context, std::move(handler));
}

void IoLoop::Run(const Handler& handler) {
    if (std::this_thread::get_id() == m_impl->thread.get_id()) {
        handler();
        return;
    }
    std::promise<void> done;
    Post([&] {
        try {
            handler();
        } catch (...) {
            // As in the loop itself.
        }
        done.set_value();
    });
    done.get_future().wait();
}

/// What was asked for once; a number tells it from what was asked for later, because a handler that Asio has queued
/// already cannot be called back.
struct PendingHandler {
    uint64_t number = 0;
    IoLoop::Handler handler;

    uint64_t Set(IoLoop::Handler next) {
        handler = std::move(next);
        return ++number;
    }
    void Drop() { Set(nullptr); }
    void Call(uint64_t expected) {
        if (number != expected || !handler) return;
        const IoLoop::Handler taken = std::exchange(handler, nullptr);
        taken();
    }
};

struct IoTimer::Impl {
    explicit Impl(asio::io_context& context) : timer(context) {}
    asio::steady_timer timer;
    PendingHandler pending;
};

IoTimer::IoTimer(IoLoop& loop) : m_impl(std::make_shared<Impl>(loop.m_impl->context)) {}

IoTimer::~IoTimer() {
    Stop();
}

void IoTimer::Start(std::chrono::milliseconds delay, IoLoop::Handler handler) {
    const uint64_t number = m_impl->pending.Set(std::move(handler));
    m_impl->timer.expires_after(delay);
    m_impl->timer.async_wait([weak = std::weak_ptr<Impl>(m_impl), number](const asio::error_code& error) {
        const std::shared_ptr<Impl> impl = weak.lock();
        if (!error && impl != nullptr) impl->pending.Call(number);
    });
}

void IoTimer::Stop() {
    m_impl->pending.Drop();
    m_impl->timer.cancel();
}

struct IoWatch::Impl {
    explicit Impl(asio::io_context& context) : descriptor(context) {}
    asio::posix::stream_descriptor descriptor;
    PendingHandler readable;
    PendingHandler writable;

    static void Wait(const std::shared_ptr<Impl>& impl, asio::posix::descriptor_base::wait_type what,
                     PendingHandler Impl::*pending, IoLoop::Handler handler) {
        const uint64_t number = ((*impl).*pending).Set(std::move(handler));
        impl->descriptor.async_wait(what,
                                    [weak = std::weak_ptr<Impl>(impl), pending, number](const asio::error_code& error) {
                                        const std::shared_ptr<Impl> held = weak.lock();
                                        if (!error && held != nullptr) ((*held).*pending).Call(number);
                                    });
    }
};

IoWatch::IoWatch(IoLoop& loop) : m_impl(std::make_shared<Impl>(loop.m_impl->context)) {}

IoWatch::~IoWatch() {
    Close();
}

Status IoWatch::Open(int fd) {
    asio::error_code error;
    m_impl->descriptor.assign(fd, error);
    if (error) return ErrnoError(error.value(), "watch", "descriptor " + std::to_string(fd));
    return {};
}

void IoWatch::WaitReadable(IoLoop::Handler handler) {
    Impl::Wait(m_impl, asio::posix::descriptor_base::wait_read, &Impl::readable, std::move(handler));
}

void IoWatch::WaitWritable(IoLoop::Handler handler) {
    Impl::Wait(m_impl, asio::posix::descriptor_base::wait_write, &Impl::writable, std::move(handler));
}

void IoWatch::Close() {
    m_impl->readable.Drop();
    m_impl->writable.Drop();
    if (m_impl->descriptor.is_open()) m_impl->descriptor.release();
}

}  // namespace base
