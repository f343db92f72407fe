// Random lives of a spool beside a model of it: messages, confirmations, ways back, other sinks, rest, ends and starts,
// and statements of one kind that fail for a while. After each step all that a spool says of itself is what the model
// says.
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/SpoolMessages.h"
#include "support/SqliteCheck.h"

using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

constexpr uint64_t kMostBytes = 20000;
constexpr uint64_t kMostMemoryBytes = CEventSpool::kLeastLogBytes / 8;
constexpr size_t kMostInMemory = 6;
constexpr uint64_t kRowBytes = 128;  // what a message weighs beyond its texts
constexpr int kSteps = 60;

/// What fails while it is planted, as SQLite's triggers have it.
enum class Fault { kNone, kInsert, kRemove, kCursor, kForget, kDropped, kGivenUp };
const std::map<Fault, std::string> kTriggers = {
    {Fault::kInsert, "INSERT ON messages"},
    {Fault::kRemove, "DELETE ON messages"},
    {Fault::kCursor, "INSERT ON cursors"},
    {Fault::kForget, "DELETE ON cursors"},
    {Fault::kDropped, "UPDATE ON facts WHEN NEW.name = 'dropped'"},
    {Fault::kGivenUp, "INSERT ON facts WHEN NEW.name LIKE 'given up by %'"},
};

uint64_t CostOf(const SpoolMessage& m) {
    return m.type.size() + m.body.size() + m.extra.size() + kRowBytes;
}

/// What a spool is to do, in terms of what is in the file and what only the process knows.
struct Model {
    // the file
    std::map<int64_t, SpoolMessage> messages;
    int64_t last = 0;
    std::map<std::string, int64_t> cursors;
    std::map<std::string, uint64_t> givenUp;
    uint64_t dropped = 0;
    bool settled = false;
    bool reserve = true;
    Fault fault = Fault::kNone;
    // the process
    std::deque<SpoolMessage> memory;
    std::vector<std::string> sinks;
    std::map<std::string, int64_t> confirmed;
    std::set<std::string> goneBack;
    std::map<std::string, uint64_t> unsavedGivenUp;
    bool unsaved = false, sinksKept = false, resting = false, restsOnSome = false, broken = false;
    uint64_t unsavedDrops = 0, accepted = 0, refused = 0, toldDropped = 0;
    int heard = 0, began = 0, ended = 0;

    int64_t CursorOf(const std::string& sink) const {
        const int64_t own = confirmed.count(sink) ? confirmed.at(sink) : 0;
        if (goneBack.count(sink)) return own;
        return std::max(own, cursors.count(sink) ? cursors.at(sink) : 0);
    }
    int64_t LowestCursor() const {
        int64_t lowest = INT64_MAX;
        for (const auto& each : cursors) lowest = std::min(lowest, each.second);
        return cursors.empty() ? 0 : lowest;
    }
    uint64_t Bytes() const {
        uint64_t bytes = 0;
        for (const auto& each : messages) bytes += CostOf(each.second);
        return bytes;
    }

    bool KeepConfirmed() {
        unsaved = true;
        if (fault == Fault::kCursor && !sinks.empty()) return false;
        if (fault == Fault::kGivenUp && !unsavedGivenUp.empty()) return false;
        for (const std::string& sink : sinks) cursors[sink] = CursorOf(sink);
        for (const auto& each : unsavedGivenUp) givenUp[each.first] += each.second;
        settled = settled && unsavedGivenUp.empty();
        unsavedGivenUp.clear();
        goneBack.clear();
        unsaved = false;
        return true;
    }
    bool KeepSinks() {
        const std::set<std::string> there(sinks.begin(), sinks.end());
        for (auto next = confirmed.begin(); next != confirmed.end();) {
            next = there.count(next->first) ? std::next(next) : confirmed.erase(next);
        }
        for (auto next = goneBack.begin(); next != goneBack.end();) {
            next = there.count(*next) ? std::next(next) : goneBack.erase(next);
        }
        sinksKept = true;
        for (auto next = cursors.begin(); next != cursors.end();) {
            if (there.count(next->first)) {
                ++next;
            } else if (fault == Fault::kForget) {
                sinksKept = false;
                ++next;
            } else {
                next = cursors.erase(next);
            }
        }
        sinksKept = sinksKept && KeepConfirmed();
        return sinksKept;
    }
    size_t Remove() {
        const auto end = messages.upper_bound(LowestCursor());
        const auto count = static_cast<size_t>(std::distance(messages.begin(), end));
        if (fault == Fault::kRemove && count > 0) return 0;
        messages.erase(messages.begin(), end);
        return count;
    }
    bool KeepAndRemove() {
        if (resting || !KeepConfirmed()) return false;
        if (sinksKept) Remove();
        return true;
    }
    void EnsureOpen() {
        if (!std::exchange(resting, false)) return;
        OpenFile();
        KeepSinks();
    }
    void OpenFile() {
        toldDropped = dropped + unsavedDrops;
        reserve = true;
    }
    bool NoteDrops() {
        settled = settled && unsavedDrops == 0;
        if (fault == Fault::kDropped && unsavedDrops > 0) return false;
        dropped += std::exchange(unsavedDrops, 0);
        return true;
    }
    /// One transaction with what waits in memory and, if there is one, the message that comes.
    bool Write(const SpoolMessage* message) {
        auto after = messages;
        int64_t number = last;
        std::vector<SpoolMessage> all(memory.begin(), memory.end());
        if (message != nullptr) all.push_back(*message);
        uint64_t bytes = Bytes(), lost = 0;
        for (const SpoolMessage& each : all) {
            after[++number] = each;
            bytes += CostOf(each);
        }
        for (; bytes > kMostBytes && after.size() > 1; after.erase(after.begin())) {
            if (fault == Fault::kRemove) return false;
            bytes -= CostOf(after.begin()->second);
            if (after.begin()->first > LowestCursor() || !sinksKept) ++lost;
        }
        if (fault == Fault::kInsert || (fault == Fault::kDropped && lost + unsavedDrops > 0)) return false;
        messages = after;
        last = number;
        dropped += lost + unsavedDrops;
        toldDropped += lost;
        unsavedDrops = 0;
        settled = false;
        memory.clear();
        return true;
    }
    bool Commit(const SpoolMessage* message) {
        EnsureOpen();
        const bool ok = Write(message);
        ++heard;
        if (!ok) reserve = false;
        if (broken && ok) ++ended;
        if (!broken && !ok) ++began;
        broken = !ok;
        if (!ok && message != nullptr) KeepInMemory(*message);
        return ok;
    }
    void KeepInMemory(const SpoolMessage& message) {
        const auto held = [this] {
            uint64_t bytes = 0;
            for (const SpoolMessage& each : memory) bytes += CostOf(each);
            return bytes;
        };
        while (!memory.empty() && (memory.size() >= kMostInMemory || held() >= kMostMemoryBytes)) {
            memory.pop_front();
            ++toldDropped;
            ++unsavedDrops;
        }
        memory.push_back(message);
    }

    bool Append(const SpoolMessage& message) {
        const bool ok = Commit(&message);
        ++(ok ? accepted : refused);
        return ok;
    }
    void NoteRefused() {
        ++refused;
        ++toldDropped;
        ++unsavedDrops;
        ++heard;
    }
    bool Settle() {
        const bool wanted = restsOnSome && !sinksKept;
        if (resting && !wanted && memory.empty() && unsavedDrops == 0 && !unsaved) return true;
        EnsureOpen();
        if (!memory.empty() && !Commit(nullptr)) return false;
        if (!NoteDrops()) return false;
        reserve = true;
        if (!sinksKept && !KeepSinks()) return false;
        return !unsaved || KeepAndRemove();
    }
    bool Flush() {
        const bool news = resting || unsaved;
        const bool ok = Settle();
        if (ok && news && !resting) ++heard;
        return ok;
    }
    bool Confirm(const std::string& sink, int64_t seq, uint64_t gone) {
        confirmed[sink] = std::max(confirmed[sink], seq);
        if (gone > 0) unsavedGivenUp[sink] += gone;
        unsaved = true;
        return KeepAndRemove();
    }
    bool GoBack(const std::string& sink, int64_t seq) {
        confirmed[sink] = seq;
        goneBack.insert(sink);
        unsaved = true;
        return KeepAndRemove();
    }
    bool SetSinks(const std::vector<std::string>& names) {
        sinks = names;
        sinksKept = false;
        return resting || KeepSinks();
    }
    void Mark() {
        if (toldDropped == 0 && givenUp.empty()) settled = true;
    }
    bool Rest() {
        if (resting) return true;
        if (!memory.empty() || unsavedDrops > 0 || unsaved || !sinksKept) return false;
        if (!messages.empty()) Remove();
        if (!messages.empty() && !sinks.empty()) return false;
        if (messages.empty()) Mark();
        restsOnSome = !messages.empty();
        return resting = true;
    }
    /// The process ends in order, and the next one begins.
    void Begin() {
        unsavedDrops += memory.size();
        memory.clear();
        if (resting && (unsavedDrops > 0 || unsaved)) {
            resting = false;
            OpenFile();
        }
        NoteDrops();
        if (!resting && unsaved) KeepAndRemove();
        if (!resting && unsavedDrops == 0 && !unsaved && messages.empty()) Mark();
        Model next;
        next.messages = messages;
        next.last = last;
        next.cursors = cursors;
        next.givenUp = givenUp;
        next.dropped = dropped;
        next.settled = settled;
        next.fault = fault;
        next.resting = settled && reserve;
        next.reserve = true;
        next.toldDropped = next.resting ? 0 : dropped;
        *this = next;
    }
};

class SpoolModelTest : public ::testing::Test {
protected:
    void Live(unsigned int seed) {
        m_random.seed(seed);
        m_path = m_dir / "spool" + std::to_string(seed) + "/e.db";
        m_model = Model();
        m_steps.clear();
        m_name.clear();
        m_spool = std::make_unique<CEventSpool>();
        Open();
        for (int i = 0; i < kSteps && !HasFailure(); ++i) {
            Step();
            Compare();
        }
        m_spool.reset();
        EXPECT_FALSE(HasFailure()) << "seed " << seed << ":" << m_steps;
    }

private:
    size_t Draw(size_t below) { return std::uniform_int_distribution<size_t>(0, below - 1)(m_random); }

    void Open() {
        support::TakeLog();
        m_heard = 0;
        m_spool->SetListener([this] { ++m_heard; });
        ASSERT_TRUE(support::IsOk(m_spool->Open(m_path, kMostBytes, kMostInMemory)));
        SetSinks();
    }
    void SetSinks() {
        std::vector<std::string> sinks;
        for (const char* sink : {"one", "two", "three"}) {
            if (Draw(4) > 0) sinks.emplace_back(sink);
        }
        if (Draw(8) == 0) sinks.clear();
        for (const std::string& sink : sinks) m_steps += " " + sink;
        EXPECT_EQ(m_model.SetSinks(sinks), m_spool->SetSinks(sinks).Ok());
    }
    void Plant(Fault fault) {
        if (m_model.fault != Fault::kNone) Run("DROP TRIGGER planted;");
        m_model.fault = fault;
        if (fault == Fault::kNone) return;
        Run("CREATE TRIGGER planted BEFORE " + kTriggers.at(fault) + " BEGIN SELECT RAISE(ABORT, 'planted'); END;");
    }
    void Run(const std::string& statement) { EXPECT_EQ("", support::RunStatements(m_path, statement)); }
    void Flush() { EXPECT_EQ(m_model.Flush(), m_spool->FlushMemory()); }
    void Rest() { EXPECT_EQ(m_model.Rest(), m_spool->Rest()); }
    void Step() {
        const size_t kind = Draw(40);
        m_steps += "\n" + std::to_string(kind);
        if (kind < 16) return Append();
        if (kind < 24) return Move();
        if (kind < 27) Flush();
        if (kind == 27 || kind == 28) Rest();
        if (kind == 29) m_spool->Checkpoint();
        if (kind == 30) {
            m_model.NoteRefused();
            m_spool->NoteRefused();
        }
        if (kind == 31) SetSinks();
        if (kind == 32 || kind == 33) Plant(Fault::kNone);
        if (kind > 33 && kind < 38) Plant(static_cast<Fault>(Draw(kTriggers.size() + 1)));
        if (kind >= 38) Restart();
    }
    void Append() {
        static constexpr size_t kSizes[] = {0, 10, 900, 3000, 8000, kMostBytes - kRowBytes, 200000};
        SpoolMessage message = Message(std::string(kSizes[Draw(Draw(6) == 0 ? 7 : 4)], 'b'));
        message.time = static_cast<int64_t>(Draw(SIZE_MAX >> 1));
        message.type = std::string(Draw(20), 't');
        message.extra = std::string(Draw(50), 'e');
        message.arg1 = static_cast<int>(m_random());
        message.arg2 = static_cast<int>(m_random());
        EXPECT_EQ(m_model.Append(message), m_spool->Append(message));
    }
    /// A sink confirms some of what it has read, or goes back.
    void Move() {
        if (m_model.sinks.empty()) return;
        const std::string& sink = m_model.sinks[Draw(m_model.sinks.size())];
        const int64_t seq = static_cast<int64_t>(Draw(static_cast<size_t>(m_model.last) + 1));
        m_steps += " " + sink + " " + std::to_string(seq);
        if (Draw(5) == 0) {
            EXPECT_EQ(m_model.GoBack(sink, seq), m_spool->GoBack(sink, seq).Ok());
        } else {
            const uint64_t gone = Draw(4) == 0 ? Draw(3) : 0;
            EXPECT_EQ(m_model.Confirm(sink, seq, gone), m_spool->Confirm(sink, seq, gone).Ok());
        }
    }
    void Restart() {
        // A file whose set-up fails is another matter.
        if (m_model.fault != Fault::kInsert && m_model.fault != Fault::kRemove) Plant(Fault::kNone);
        support::TakeLog();
        const size_t lost = m_model.memory.size();
        m_spool->Close();
        const Lines told = support::TakeLog();
        EXPECT_EQ(told.empty(), lost == 0);
        m_model.Begin();
        m_spool = std::make_unique<CEventSpool>();
        Open();
    }
    void Compare() {
        CompareFigures();
        for (const char* sink : {"one", "two", "three"}) {
            const uint64_t all = m_model.givenUp[sink] + m_model.unsavedGivenUp[sink];
            if (all == 0) {  // as it was before it was asked
                m_model.givenUp.erase(sink);
            }
            if (m_model.unsavedGivenUp[sink] == 0) m_model.unsavedGivenUp.erase(sink);
            EXPECT_TRUE(m_model.resting || all == m_spool->GivenUp(sink)) << sink;
        }
        for (const std::string& sink : m_model.sinks) CompareSink(sink);
        for (const std::string& line : support::TakeLog()) {
            if (line.find("can be written again") != std::string::npos) --m_model.ended;
            if (line.find("cannot be written (") != std::string::npos) --m_model.began;
        }
        EXPECT_EQ(0, m_model.began);
        EXPECT_EQ(0, m_model.ended);
    }
    void CompareFigures() {
        const CEventSpool::Figures figures = m_spool->GetFigures();
        EXPECT_EQ(m_model.accepted, figures.accepted);
        EXPECT_EQ(m_model.refused, figures.refused);
        EXPECT_EQ(m_model.toldDropped, figures.dropped);
        EXPECT_EQ(m_model.memory.size(), figures.inMemory);
        EXPECT_EQ(m_model.messages.size(), figures.messages);
        EXPECT_EQ(m_model.Bytes(), figures.bytes);
        EXPECT_EQ(0U, figures.kept);
        EXPECT_EQ(m_model.broken, figures.broken);
        EXPECT_EQ(m_model.unsaved, m_spool->HasUnsaved());
        EXPECT_EQ(m_model.resting, m_spool->IsResting());
        EXPECT_EQ(m_model.heard, m_heard);
    }
    void CompareSink(const std::string& sink) {
        const int64_t cursor = m_model.CursorOf(sink);
        const auto first = m_model.messages.upper_bound(cursor);
        const auto waiting = static_cast<uint64_t>(std::distance(first, m_model.messages.end()));
        EXPECT_EQ(m_model.resting && m_model.restsOnSome ? m_model.messages.size() : waiting, m_spool->Waiting(sink));
        const size_t most = 1 + Draw(6), mostBytes = 1 + Draw(9000);
        const auto read = m_spool->Read(sink, most, mostBytes);
        ASSERT_TRUE(read);
        size_t count = 0, bytes = 0;
        int64_t after = cursor;
        for (auto next = first; next != m_model.messages.end() && !m_model.resting && count < most && bytes < mostBytes;
             ++next, ++count) {
            ASSERT_LT(count, read->size()) << sink;
            ExpectSame(next->first, next->second, (*read)[count]);
            EXPECT_EQ(std::exchange(after, next->first), (*read)[count].after);
            bytes += CostOf(next->second);
        }
        EXPECT_EQ(count, read->size());
    }
    void ExpectSame(int64_t seq, const SpoolMessage& sent, const SpoolMessage& got) {
        if (m_name.empty()) m_name = got.id.substr(0, got.id.find('-'));
        EXPECT_EQ(m_name + "-" + std::to_string(seq), got.id);
        EXPECT_EQ(seq, got.seq);
        EXPECT_EQ(sent.time, got.time);
        EXPECT_EQ(sent.type, got.type);
        EXPECT_TRUE(sent.body == got.body);
        EXPECT_EQ(sent.extra, got.extra);
        EXPECT_EQ(sent.arg1, got.arg1);
        EXPECT_EQ(sent.arg2, got.arg2);
    }

    support::TempDir m_dir;
    std::string m_path, m_steps, m_name;
    std::mt19937 m_random;
    Model m_model;
    std::unique_ptr<CEventSpool> m_spool;
    int m_heard = 0;
};

// A second or so each: what plants faults asks no test that takes for long.
class SpoolLivesTest : public SpoolModelTest, public ::testing::WithParamInterface<unsigned int> {};

TEST_P(SpoolLivesTest, AreThoseOfTheModel) {
    const char* given = std::getenv("ZEL_SPOOL_SEED");
    const char* number = std::getenv("ZEL_SPOOL_LIVES");
    const unsigned int lives = number != nullptr ? static_cast<unsigned int>(std::strtoul(number, nullptr, 10)) : 6;
    const unsigned int first =
        given != nullptr ? static_cast<unsigned int>(std::strtoul(given, nullptr, 10)) : 1 + GetParam() * lives;
    for (unsigned int seed = first; seed < first + lives && !HasFailure(); ++seed) Live(seed);
}

INSTANTIATE_TEST_SUITE_P(Random, SpoolLivesTest, ::testing::Range(0U, 12U));

}  // namespace
