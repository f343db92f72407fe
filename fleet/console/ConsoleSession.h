// Serves one console: requests come in by lines, what they ask of the broker goes out. Short requests are done one
// after the other in their order; each list and stream has a thread of its own beside them.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "base/Mutex.h"
#include "broker/NatsBroker.h"
#include "console/ConsoleLines.h"
#include "console/ConsoleOutput.h"
#include "console/StreamReader.h"

namespace fleet {

/// Thread-safety: Run once, from one thread.
class ConsoleSession {
public:
    /// `in`, `out`: descriptors that outlive it.
    ConsoleSession(NatsBroker& broker, int in, int out) : m_broker(broker), m_in(in), m_out(out), m_output(out) {}
    ConsoleSession(const ConsoleSession&) = delete;
    ConsoleSession& operator=(const ConsoleSession&) = delete;

    /// Returns: when the input has ended, and everything that has an end was answered; or when nobody reads.
    void Run();

private:
    struct Task {
        std::atomic<bool> isCancelled{false};
        std::atomic<bool> isOver{false};  ///< its last line is being said: there is nothing to cancel
        std::atomic<bool> isDone{false};
        bool follows = false;
        std::thread thread;
    };

    void ReadInput();
    void Take(const RequestLines::Line& line);
    void Begin(const ConsoleRequest& request);
    void Cancel(const ConsoleRequest& request);
    void Enqueue(const ConsoleRequest& request);
    void ServeShort();
    std::string AnswerShort(const ConsoleRequest& request);
    std::string AnswerInfo(int64_t id);
    std::string AnswerGet(const ConsoleRequest& request);
    std::string AnswerPut(const ConsoleRequest& request);
    std::string AnswerStream(const ConsoleRequest& request);
    std::string AnswerSetup(const ConsoleRequest& request);
    void Stream(const ConsoleRequest& request, Task& task);
    /// Returns: the last answer; empty: nobody reads.
    std::string Follow(const ConsoleRequest& request, StreamReader& reader, const Task& task);
    bool IsOver(const Task& task) const { return task.isCancelled || m_output.IsBroken(); }
    /// Removes the tasks that are done.
    void Collect();

    NatsBroker& m_broker;
    const int m_in;
    const int m_out;
    ConsoleOutput m_output;
    std::map<int64_t, std::unique_ptr<Task>> m_tasks;  // by request; of the reading thread
    base::Mutex m_lock;
    base::Condition m_changed;
    std::deque<ConsoleRequest> m_queue ZEL_GUARDED_BY(m_lock);
    bool m_isEnding ZEL_GUARDED_BY(m_lock) = false;
};

}  // namespace fleet
