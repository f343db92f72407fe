// The loop on Asio's io_context. The one file that includes Asio for sockets: it watches bare descriptors, because
// Asio's own sockets are not close-on-exec and know no packets that keep their bounds.
#include "base/IoLoop.h"

#include <cstdint>
#include <ctime>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "base/QuietThread.h"

namespace base {

struct TimerBody {
    virtual ~TimerBody() = default;
    virtual void Start(std::chrono::nanoseconds delay, IoLoop::Handler handler) = 0;
    virtual void Stop() = 0;
};

struct WatchBody {
    enum Kind { kReadable, kWritable, kUrgent, kKinds };

    virtual ~WatchBody() = default;
    virtual Status Open(int fd) = 0;
    virtual void Wait(Kind kind, IoLoop::Handler handler) = 0;
    virtual void Close() = 0;
};

namespace {

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

struct AsioTimer final : TimerBody, std::enable_shared_from_this<AsioTimer> {
    explicit AsioTimer(asio::io_context& context) : timer(context) {}

    void Start(std::chrono::nanoseconds delay, IoLoop::Handler handler) override {
        const uint64_t number = pending.Set(std::move(handler));
        timer.expires_after(delay);
        timer.async_wait([weak = weak_from_this(), number](const asio::error_code& error) {
            const std::shared_ptr<AsioTimer> held = weak.lock();
            if (!error && held != nullptr) held->pending.Call(number);
        });
    }
    void Stop() override {
        pending.Drop();
        timer.cancel();
    }

    asio::steady_timer timer;
    PendingHandler pending;
};

struct AsioWatch final : WatchBody, std::enable_shared_from_this<AsioWatch> {
    explicit AsioWatch(asio::io_context& context) : descriptor(context) {}

    Status Open(int fd) override {
        asio::error_code error;
        descriptor.assign(fd, error);
        if (error) return ErrnoError(error.value(), "watch", "descriptor " + std::to_string(fd));
        return {};
    }
    void Wait(Kind kind, IoLoop::Handler handler) override {
        using Awaited = asio::posix::descriptor_base;
        static constexpr Awaited::wait_type kAwaited[kKinds] = {Awaited::wait_read, Awaited::wait_write,
                                                                Awaited::wait_error};
        const uint64_t number = pending[kind].Set(std::move(handler));
        descriptor.async_wait(kAwaited[kind], [weak = weak_from_this(), kind, number](const asio::error_code& error) {
            const std::shared_ptr<AsioWatch> held = weak.lock();
            if (!error && held != nullptr) held->pending[kind].Call(number);
        });
    }
    void Close() override {
        for (PendingHandler& waiting : pending) waiting.Drop();
        if (descriptor.is_open()) descriptor.release();
    }

    asio::posix::stream_descriptor descriptor;
    PendingHandler pending[kKinds];
};

struct AsioLoop final : IoLoop {
    ~AsioLoop() override {
        context.stop();
        if (thread.joinable()) thread.join();
    }

    void Work() {
        for (;;) {
            try {
                context.run();
                return;
            } catch (...) {
                // Ignoring it: a handler speaks for its own failures, and the others' connections go on.
            }
        }
    }

    void Post(Handler handler) override { asio::post(context, std::move(handler)); }
    void PostLater(std::chrono::milliseconds delay, Handler handler) override;
    void Run(const Handler& handler) override;
    std::shared_ptr<TimerBody> MakeTimer() override { return std::make_shared<AsioTimer>(context); }
    std::shared_ptr<WatchBody> MakeWatch() override { return std::make_shared<AsioWatch>(context); }

    asio::io_context context{1};
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
    std::thread thread;
};

void AsioLoop::PostLater(std::chrono::milliseconds delay, Handler handler) {
    Post([this, delay, held = std::move(handler)] {
        const auto timer = std::make_shared<asio::steady_timer>(context, delay);
        timer->async_wait([timer, held](const asio::error_code& error) {
            if (!error) held();
        });
    });
}

void AsioLoop::Run(const Handler& handler) {
    if (std::this_thread::get_id() == thread.get_id()) {
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

}  // namespace

Result<std::unique_ptr<IoLoop>> IoLoop::Start(const std::string& threadName) {
    std::unique_ptr<AsioLoop> made;
    try {
        made = std::make_unique<AsioLoop>();
        // Asio opens its descriptors for the first timer; a loop that cannot have them is to fail here.
        made->MakeTimer();
    } catch (const std::system_error& failure) {
        return ErrnoError(failure.code().value(), "start the thread", threadName);
    }
    Result<std::thread> thread = StartQuietThread(threadName, [loop = made.get()] { loop->Work(); });
    if (!thread) return thread.GetError();
    made->thread = std::move(*thread);
    return std::unique_ptr<IoLoop>(std::move(made));
}

IoTimer::IoTimer(IoLoop& loop) : m_body(loop.MakeTimer()) {}

IoTimer::~IoTimer() {
    Stop();
}

void IoTimer::Start(std::chrono::milliseconds delay, IoLoop::Handler handler) {
    m_body->Start(delay, std::move(handler));
}

std::chrono::nanoseconds UntilGrid(std::chrono::nanoseconds now, std::chrono::milliseconds period) {
    const std::chrono::nanoseconds width = period;
    const auto earliest = now + width / 2;
    return ((earliest + width - std::chrono::nanoseconds(1)) / width) * width - now;
}

void IoTimer::StartOnGrid(std::chrono::milliseconds period, IoLoop::Handler handler, std::chrono::milliseconds ahead) {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const auto sinceBoot = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    m_body->Start(UntilGrid(sinceBoot + ahead, period), std::move(handler));
}

void IoTimer::Stop() {
    m_body->Stop();
}

IoWatch::IoWatch(IoLoop& loop) : m_body(loop.MakeWatch()) {}

IoWatch::~IoWatch() {
    Close();
}

Status IoWatch::Open(int fd) {
    return m_body->Open(fd);
}

void IoWatch::WaitReadable(IoLoop::Handler handler) {
    m_body->Wait(WatchBody::kReadable, std::move(handler));
}

void IoWatch::WaitWritable(IoLoop::Handler handler) {
    m_body->Wait(WatchBody::kWritable, std::move(handler));
}

void IoWatch::WaitUrgent(IoLoop::Handler handler) {
    m_body->Wait(WatchBody::kUrgent, std::move(handler));
}

void IoWatch::Close() {
    m_body->Close();
}

}  // namespace base
