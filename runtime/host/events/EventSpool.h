// The durable spool of event messages: one SQLite file in WAL mode. SendMsg commits here before it says yes; the
// sinks' threads read from here and move their cursors.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "base/Database.h"
#include "base/Mutex.h"
#include "base/Result.h"

namespace zelhost {

struct SpoolMessage {
    int64_t seq = 0;
    std::string id;  ///< "<spool>-<seq>": unique, and the same at every delivery
    int64_t time = 0;
    std::string type, body, extra;
    int arg1 = 0, arg2 = 0;
};

/// Thread-safety: every operation from any thread between Open and Close.
/// Writers are committed in groups: whoever finds nobody writing commits for all that wait, so a caller waits for at
/// most the commit under way and its own. The readers' side has a connection of its own that never syncs.
class CEventSpool {
public:
    CEventSpool() = default;
    ~CEventSpool();
    CEventSpool(const CEventSpool&) = delete;
    CEventSpool& operator=(const CEventSpool&) = delete;

    /// Opens or creates the file; one that is no database any more is put aside under another name.
    base::Status Open(const std::string& path, uint64_t maxBytes, size_t memoryRing);
    void Close();

    /// Returns: true once the message is on disk; false when it is not (it then waits in memory for the disk, while
    /// there is room).
    bool Append(SpoolMessage message);
    /// Tries to bring what waits in memory to disk. Returns: whether nothing waits any more.
    bool FlushMemory();

    /// The oldest messages that this sink has not confirmed yet, at most `most` and about `mostBytes`.
    base::Result<std::vector<SpoolMessage>> Read(const std::string& sink, size_t most, size_t mostBytes);
    /// The sink has everything up to and including `seq`.
    base::Status Confirm(const std::string& sink, int64_t seq);
    /// Which sinks there are: others' cursors are forgotten, new ones start at the oldest message.
    base::Status SetSinks(const std::vector<std::string>& sinks);

    /// A mark of what there is now; take it before reading.
    uint64_t News();
    /// Waits until there may be something new since `seen`, or for so long. Returns: the new mark.
    uint64_t WaitForNews(uint64_t seen, unsigned int timeoutMs);
    /// Wakes every waiter.
    void Wake();

    /// Moves the log's pages into the file. Called by a sink's thread now and then, never by SendMsg.
    void Checkpoint();

    struct Figures {
        uint64_t accepted = 0, refused = 0, messages = 0, bytes = 0, dropped = 0, inMemory = 0;
        bool broken = false;
    };
    Figures GetFigures();
    uint64_t Waiting(const std::string& sink);

private:
    /// What one transaction does to the figures.
    struct Change {
        int64_t messages = 0;
        int64_t bytes = 0;
        uint64_t dropped = 0;
    };
    struct Request {
        SpoolMessage message;
        bool done = false;
        bool durable = false;
    };

    base::Status OpenOnce(const std::string& path);
    base::Status PrepareMessages();
    bool CommitBatch(const std::vector<Request*>& batch);
    /// One transaction with everything in memory first, then the batch.
    base::Status WriteTransaction(const std::vector<Request*>& batch, Change& change);
    bool Insert(const SpoolMessage& message);
    bool DropOldest(uint64_t bytes, Change& change);
    void KeepInMemory(const SpoolMessage& message);
    std::string ReservePath() const;
    void TouchReserve();
    void RemoveReserve();
    void ReleaseReserve();
    void RemoveConfirmed() ZEL_REQUIRES(m_readLock);

    std::string m_path;
    uint64_t m_maxBytes = 0;
    size_t m_memoryMost = 0;
    std::string m_name;

    base::Mutex m_queueLock;
    base::Condition m_committed;
    std::vector<Request*> m_queue ZEL_GUARDED_BY(m_queueLock);
    bool m_leader ZEL_GUARDED_BY(m_queueLock) = false;

    // of the leader, and of FlushMemory as one
    base::Database m_writer;
    base::Statement m_insert;
    std::deque<SpoolMessage> m_memory;
    bool m_reserve = false;

    base::Mutex m_readLock;
    base::Database m_reader;  // used under m_readLock; opened before and closed after there are readers

    base::Mutex m_figuresLock;
    Figures m_figures ZEL_GUARDED_BY(m_figuresLock);  // messages and bytes are filled in when asked
    // Signed: a reader may subtract what the writer is about to add.
    int64_t m_messages ZEL_GUARDED_BY(m_figuresLock) = 0;
    int64_t m_bytes ZEL_GUARDED_BY(m_figuresLock) = 0;

    base::Mutex m_newsLock;
    base::Condition m_news;
    uint64_t m_newsCount ZEL_GUARDED_BY(m_newsLock) = 0;
};

}  // namespace zelhost
