// The durable spool of event messages: one SQLite file in WAL mode. SendMsg commits here before it says yes; the
// sinks' threads read from here and move their cursors.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/Database.h"
#include "base/Mutex.h"
#include "base/Result.h"

namespace zelhost {

struct SpoolMessage {
    int64_t seq = 0;
    int64_t after = 0;  ///< to the sink that reads it: what it has confirmed, or been handed, right before this one
    std::string id;     ///< "<spool>-<seq>": unique, and the same at every delivery
    int64_t time = 0;
    std::string type, body, extra;
    int arg1 = 0, arg2 = 0;
};

/// Messages that one sink has confirmed stay for a while, where there is room, so that it can go back.
struct KeepFor {
    std::string sink;  ///< empty: none
    std::chrono::milliseconds time{0};
};

/// Thread-safety: every operation from any thread between Open and Close.
/// Writers are committed in groups: whoever finds nobody writing commits for all that wait, so a caller waits for at
/// most the commit under way and its own. Where several send at a time, the one that commits gives the others a moment
/// to come, a small part of what a commit takes. The readers' side has a connection of its own that never syncs; what
/// it writes takes its turn with the commits.
class CEventSpool {
public:
    using Clock = std::chrono::steady_clock;

    CEventSpool() = default;
    ~CEventSpool();
    CEventSpool(const CEventSpool&) = delete;
    CEventSpool& operator=(const CEventSpool&) = delete;

    /// Has `listener` called, by whatever thread it happens on, when there may be something to deliver or to tidy up.
    /// To be set before Open.
    void SetListener(std::function<void()> listener) { m_listener = std::move(listener); }

    /// For tests: what says how late it is for messages that are kept. To be set before Open.
    void SetClock(std::function<Clock::time_point()> now) { m_now = std::move(now); }

    /// Opens or creates the file; one of which a look says that nothing waits in it stays closed. One that is damaged
    /// is put aside, and what can be read of it goes into a new one. On failure: the spool works all the same, from
    /// memory; FlushMemory opens it as soon as that is possible.
    base::Status Open(const std::string& path, uint64_t maxBytes, size_t memoryRing);
    void Close();

    /// Returns: true once the message is on disk; false when it is not (it then waits in memory for the disk, while
    /// there is room).
    bool Append(SpoolMessage message);
    /// Counts a message that is not taken at all.
    void NoteRefused();
    /// Opens what could not be opened, and tries to bring to disk what waits in memory: messages, cursors, sinks.
    /// Returns: whether nothing waits any more.
    bool FlushMemory();
    /// Returns: whether what sinks have confirmed is not in the file yet.
    bool HasUnsaved() const { return m_unsaved; }

    /// The oldest messages that this sink has not confirmed yet, at most `most` and about `mostBytes`.
    base::Result<std::vector<SpoolMessage>> Read(const std::string& sink, size_t most, size_t mostBytes);
    /// The sink has everything up to and including `seq`, but for `givenUp` of them that it will never take. Holds for
    /// this process whatever comes.
    /// On failure: a later one writes it down; were the process killed before, the messages would come again.
    base::Status Confirm(const std::string& sink, int64_t seq, uint64_t givenUp = 0);
    /// Of what the sink has confirmed, only what comes up to `seq` is there: what the spool still has after it is read
    /// by this sink again. As Confirm on failure; were the process killed before, the sink would have to say it again.
    base::Status GoBack(const std::string& sink, int64_t seq);
    /// Returns: how many this sink has given up over the spool's life.
    uint64_t GivenUp(const std::string& sink);
    /// Which sinks there are: others' cursors are forgotten, new ones start at the oldest message.
    /// On failure: they are the sinks all the same, and FlushMemory writes it down; until then no message goes.
    base::Status SetSinks(const std::vector<std::string>& sinks, const KeepFor& keep = {});

    /// Moves the log's pages into the file. Called now and then while there is news, never by SendMsg.
    void Checkpoint();
    /// Returns: until when messages that every sink has are kept at most; the clock's beginning when there are none.
    Clock::time_point KeptUntil();
    /// Removes some messages that have been kept for long enough. Returns: whether there may be more of them.
    bool RemoveExpired();
    /// Closes the file, made small, when every sink has everything; it opens again with the next message.
    /// Returns: whether it is closed.
    bool Rest();
    /// Returns: whether the file is closed because nothing waits in it.
    bool IsResting() const { return m_resting; }

    struct Figures {
        uint64_t accepted = 0, refused = 0, dropped = 0, inMemory = 0;
        uint64_t messages = 0;  ///< that not every sink has
        uint64_t kept = 0;      ///< that every sink has
        uint64_t bytes = 0;     ///< of both
        bool broken = false;
    };
    Figures GetFigures();
    /// Returns: how many this sink has not confirmed; all there are when that cannot be read.
    uint64_t Waiting(const std::string& sink);

    static constexpr uint64_t kLeastLogBytes = 4 << 20;   ///< bound of the write-ahead log of a small spool
    static constexpr unsigned int kMostReadFailures = 5;  ///< in a row; then the file counts as damaged
    static constexpr size_t kMostPutAside = 3;            ///< damaged files that are kept, while they are small
    static constexpr int kKeepParts = 32;                 ///< a message is kept for so much of the time longer at most

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

    /// A file that was put aside and whose messages are still to be saved.
    struct Damage {
        std::string aside;   ///< where it is now
        std::string reason;  ///< what was wrong with it
        std::string name;    ///< of the spool, as far as this process knew it
        int64_t had = -1;    ///< messages that were in it, -1: not known
    };

    /// What came of a damaged file.
    struct Salvaged {
        uint64_t saved = 0;
        int64_t lowest = 0;     ///< number of a message that was saved
        int64_t confirmed = 0;  ///< by every sink
        int64_t newest = 0;     ///< last number that was ever used, as far as it is known
        bool numbered = false;  ///< the file itself said so
        bool sameName = false;  ///< the ids begin as they did
    };

    /// What was confirmed up to `seq` within a part of the time from `begin` on.
    struct Mark {
        Clock::time_point begin;
        int64_t seq = 0;
    };

    /// A stretch of a damaged file.
    struct Run {
        int64_t after = 0, before = INT64_MAX;  ///< numbers; the end that was read moves
        bool whole = false;                     ///< it was read to its other end
    };

    /// The lead for something else than a message, for as long as a stranger's lock would be waited for. Two
    /// connections of ours that want to write would wait for each other by sleeping, and the readers' for ever behind
    /// busy senders.
    class Lead {
    public:
        explicit Lead(CEventSpool& spool) : m_spool(spool), m_taken(spool.TryTakeLead()) {}
        ~Lead() {
            if (m_taken) m_spool.GiveUpLead();
        }
        Lead(const Lead&) = delete;
        Lead& operator=(const Lead&) = delete;
        explicit operator bool() const { return m_taken; }
        base::Status Refused() const;

    private:
        CEventSpool& m_spool;
        const bool m_taken;
    };

    // Of the leader. Who wants the lead for something else than a message is the next to have it.
    void TakeLead();
    bool TryTakeLead();
    void GiveUpLead();
    /// Gives those a moment that were there for the last commits.
    void WaitForOthers() ZEL_REQUIRES(m_queueLock);
    std::vector<Request*> TakeBatch() ZEL_REQUIRES(m_queueLock);
    bool CommitOrDrop(const std::vector<Request*>& batch);
    bool CommitBatch(const std::vector<Request*>& batch);
    /// Says that there may be something to do, and when an outage begins or ends.
    void TellOf(const base::Status& written, bool wasBroken);
    base::Status WriteSomehow(const std::vector<Request*>& batch, Change& change) ZEL_EXCLUDES(m_readLock);
    /// One transaction with everything in memory first, then the batch.
    base::Status WriteTransaction(const std::vector<Request*>& batch, Change& change) ZEL_EXCLUDES(m_readLock);
    bool Insert(const SpoolMessage& message, int64_t seq = 0);
    bool DropOldest(uint64_t bytes, Change& change);
    /// Adds to the count in the file.
    bool NoteDrops(uint64_t count);
    /// The same, outside of a transaction, with what is not in it yet. Returns: whether everything is.
    bool SaveDrops();
    void KeepInMemory(const SpoolMessage& message);
    void ForgetMemory();
    /// Returns: how long the write-ahead log may become.
    uint64_t MostLogBytes() const;
    /// Moves the log into the file when it is long. On failure: it is too long to be written to.
    base::Status BoundLog() ZEL_EXCLUDES(m_readLock);
    bool Settle();
    bool TryRest();
    base::Status EnsureOpen();
    void Notify();

    // Of the leader, or before there are threads.
    base::Status OpenFiles() ZEL_REQUIRES(m_readLock);
    base::Status OpenOnce() ZEL_REQUIRES(m_readLock);
    void CloseFiles() ZEL_REQUIRES(m_readLock);
    base::Status ReadFacts() ZEL_REQUIRES(m_readLock);
    base::Status ReadGivenUp() ZEL_REQUIRES(m_readLock);
    /// Returns: whether no message is in the file; false too when it cannot be read.
    bool IsEmptied() const ZEL_REQUIRES(m_readLock);
    /// Says in the file itself, where a look finds it, that it holds nothing that anybody waits for.
    void MarkSettled() ZEL_REQUIRES(m_readLock);
    /// Returns: whether the file says so. Requires: it is not open.
    bool IsSettled() const;
    base::Status KeepSinks() ZEL_REQUIRES(m_readLock);
    base::Status Replace(const base::Error& why) ZEL_REQUIRES(m_readLock);
    base::Status ReplaceLocked(const base::Error& why) ZEL_EXCLUDES(m_readLock);
    base::Status PutAside(const base::Error& why) ZEL_REQUIRES(m_readLock);
    /// Brings over what can be read of the file that was put aside; afterwards there is none.
    /// On failure: not even its facts could be written, nothing may go into the new file, and it is to be tried again.
    base::Status SaveDamaged() ZEL_REQUIRES(m_readLock);
    /// Ids, counts, cursors and numbers, in a transaction of their own: they fit where the messages do not.
    base::Status SalvageFacts(const base::Database& old, Salvaged& salvaged) ZEL_REQUIRES(m_readLock);
    base::Status SalvageTexts(const base::Database& old, Salvaged& salvaged) ZEL_REQUIRES(m_readLock);
    void CopyFacts(const base::Database& old, Salvaged& salvaged) ZEL_REQUIRES(m_readLock);
    void NoteSalvaged(const Salvaged& salvaged) ZEL_REQUIRES(m_readLock);
    bool SalvageMessages(const base::Database& old, Salvaged& salvaged) ZEL_REQUIRES(m_readLock);
    /// The numbers of new messages follow `last` and what the sinks have confirmed.
    bool GoOnCounting(int64_t last) ZEL_REQUIRES(m_readLock);
    /// Saves what can be read in one go of the messages between `after` and `before`. Returns: false when the new file
    /// cannot be written.
    bool SalvageRun(const base::Database& old, bool forward, Run& run, Salvaged& salvaged) ZEL_REQUIRES(m_readLock);
    bool SalvageOne(const SpoolMessage& message, int64_t weight, Salvaged& salvaged);
    std::string ReservePath() const;
    void TouchReserve();
    void RemoveReserve();
    void ReleaseReserve();

    base::Result<std::vector<SpoolMessage>> ReadOnce(const std::string& sink, size_t most, size_t mostBytes)
        ZEL_REQUIRES(m_readLock);
    SpoolMessage MessageOf(const base::Statement& row) const ZEL_REQUIRES(m_readLock);
    /// Returns: up to where this sink has everything, as far as this process knows.
    int64_t ConfirmedBy(const std::string& sink) const ZEL_REQUIRES(m_readLock);
    /// Binds ?1 to the sink, and ?2 and ?3 so that its cursor is kCursor.
    void BindCursor(base::Statement& query, const std::string& sink) const ZEL_REQUIRES(m_readLock);
    /// Writes down what was confirmed and is not in the file yet, of every sink.
    base::Status KeepConfirmed() ZEL_REQUIRES(m_readLock);
    /// As above, and what every sink has goes.
    base::Status KeepAndRemove() ZEL_REQUIRES(m_readLock);
    /// Removes what every sink has, but for what is kept. Returns: how many.
    int64_t RemoveConfirmed() ZEL_REQUIRES(m_readLock) { return RemoveUpTo(Expired()); }
    /// Removes what every sink has, up to `last`; some at a time where messages are kept. Returns: how many.
    int64_t RemoveUpTo(int64_t last) ZEL_REQUIRES(m_readLock);
    /// Notes up to where the sink that messages are kept for has them now.
    void MarkConfirmed() ZEL_REQUIRES(m_readLock);
    /// Returns: whether confirmed messages may stay: while there is a reserve, and as much room as the log may take.
    bool MayKeep() const;
    /// Returns: the last message that is kept no longer; INT64_MAX where none is kept.
    int64_t Expired() ZEL_REQUIRES(m_readLock);
    /// Whatever is kept may make room for what comes. Returns: whether there was something.
    bool ReleaseKept();
    /// Returns: how many messages every sink has.
    int64_t CountKept();
    /// The file that failed with `why` while it was the `generation`th is replaced, unless somebody has done so.
    void Repair(const base::Error& why, uint64_t generation) ZEL_EXCLUDES(m_readLock);

    std::function<void()> m_listener;
    std::function<Clock::time_point()> m_now = Clock::now;
    std::string m_path;
    uint64_t m_maxBytes = 0;
    size_t m_memoryMost = 0;

    base::Mutex m_queueLock;
    base::Condition m_committed;
    std::vector<Request*> m_queue ZEL_GUARDED_BY(m_queueLock);
    bool m_leader ZEL_GUARDED_BY(m_queueLock) = false;
    size_t m_others ZEL_GUARDED_BY(m_queueLock) = 0;  // who want the lead and send nothing
    base::Condition m_arrived;
    size_t m_expected ZEL_GUARDED_BY(m_queueLock) = 1;  // senders that the last commits have seen
    std::chrono::nanoseconds m_commitTime ZEL_GUARDED_BY(m_queueLock){0};

    // of the leader, and of FlushMemory as one
    base::Database m_writer;
    base::Statement m_insert;
    std::deque<SpoolMessage> m_memory;
    uint64_t m_memoryBytes = 0;
    uint64_t m_unsavedDrops = 0;             // counted already, and not yet in the file
    uint64_t m_nextLogBound = 0;             // length of the log at which it is moved into the file, whoever reads
    uint64_t m_nextLogMove = 0;              // the same, as far as nobody reads
    std::atomic<bool> m_reserve{false};      // there is one; changed by the leader
    bool m_settled = false;                  // the file says that it holds nothing
    std::atomic<bool> m_resting{false};      // closed because nothing waits; changed by the leader
    std::atomic<bool> m_restsOnSome{false};  // there are messages all the same, and were no sinks
    std::atomic<bool> m_unsaved{false};      // something was confirmed, and the file does not say so
    std::atomic<bool> m_keeps{false};        // a sink wants confirmed messages to stay for a while
    std::atomic<bool> m_holdsKept{false};    // some may be in the file
    std::atomic<bool> m_sinksKept{false};    // the cursors in the file are those of the sinks that there are

    base::Mutex m_readLock;  // taken by the leader after it leads, never the other way round
    base::Database m_reader ZEL_GUARDED_BY(m_readLock);
    std::string m_name ZEL_GUARDED_BY(m_readLock);
    std::vector<std::string> m_sinks ZEL_GUARDED_BY(m_readLock);
    std::map<std::string, int64_t> m_confirmed ZEL_GUARDED_BY(m_readLock);  // by this process, and what was salvaged
    std::set<std::string> m_goneBack ZEL_GUARDED_BY(m_readLock);            // whose cursor in the file is too high
    KeepFor m_keep ZEL_GUARDED_BY(m_readLock);
    // When what was confirmed, oldest first. Only of this process: a start keeps what there is for as long again, so no
    // clock has to be believed that somebody sets, or that begins anew with the host.
    std::deque<Mark> m_marks ZEL_GUARDED_BY(m_readLock);
    int64_t m_expired ZEL_GUARDED_BY(m_readLock) = 0;                      // up to here nothing is kept any longer
    std::map<std::string, uint64_t> m_givenUp ZEL_GUARDED_BY(m_readLock);  // as the file says
    std::map<std::string, uint64_t> m_unsavedGivenUp ZEL_GUARDED_BY(m_readLock);
    uint64_t m_generation ZEL_GUARDED_BY(m_readLock) = 0;  // which file in turn this is
    unsigned int m_readFailures ZEL_GUARDED_BY(m_readLock) = 0;
    unsigned int m_openFailures ZEL_GUARDED_BY(m_readLock) = 0;
    std::optional<Damage> m_damage ZEL_GUARDED_BY(m_readLock);
    bool m_counted ZEL_GUARDED_BY(m_readLock) = false;  // whether the figures are those of the file

    base::Mutex m_figuresLock;
    Figures m_figures ZEL_GUARDED_BY(m_figuresLock);  // messages and bytes are filled in when asked
    // Signed: a reader may subtract what the writer is about to add.
    int64_t m_messages ZEL_GUARDED_BY(m_figuresLock) = 0;
    int64_t m_bytes ZEL_GUARDED_BY(m_figuresLock) = 0;
};

}  // namespace zelhost
