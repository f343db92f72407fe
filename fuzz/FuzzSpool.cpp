// The spool over a file that somebody, or a disk, has changed: bytes turned over, the end cut off, rows and counters
// that say anything. It opens all the same, and what it acknowledges afterwards every sink gets, once and in order.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "base/Database.h"
#include "events/EventSinks.h"
#include "events/EventSpool.h"
#include "support/Files.h"
#include "support/RecordedLog.h"

namespace {

using fuzzing::Draw;
using fuzzing::Require;
using zelhost::CEventSpool;
using zelhost::SpoolMessage;

constexpr uint64_t kMostBytes = 1 << 20;
constexpr size_t kRing = 8;
const std::vector<std::string> kSinks = {"one", "two"};

std::string InMemory() {
    return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "";
}

SpoolMessage MessageOf(const std::string& body) {
    SpoolMessage message;
    message.time = 1700000000;
    message.type = "fuzz";
    message.body = body;
    return message;
}

/// A spool as a run left it.
void Fill(Draw& draw, const std::string& path) {
    CEventSpool spool;
    Require(spool.Open(path, kMostBytes, kRing).Ok(), "a new spool opens");
    Require(spool.SetSinks(kSinks).Ok(), "it has sinks");
    const size_t count = draw.Below(8);
    for (size_t i = 0; i < count; ++i) {
        Require(spool.Append(MessageOf("old " + draw.Text(64))), "it takes messages");
    }
    const auto confirmed = static_cast<int64_t>(draw.Below(count + 1));
    if (draw.Byte() % 2 == 0) Require(spool.Confirm("one", confirmed).Ok(), "it confirms");
    if (draw.Byte() % 2 == 0) spool.Checkpoint();
    spool.Close();
}

void TurnByte(Draw& draw, const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    struct stat info {};
    fstat(fd, &info);
    const off_t at = info.st_size == 0 ? 0 : (draw.Number() & INT64_MAX) % info.st_size;
    const uint8_t byte = draw.Byte();
    if (info.st_size > 0 && pwrite(fd, &byte, 1, at) != 1) abort();
    close(fd);
}

void CutOff(Draw& draw, const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || info.st_size == 0) return;
    if (truncate(path.c_str(), (draw.Number() & INT64_MAX) % info.st_size) != 0) abort();
}

void ChangeRows(Draw& draw, const std::string& path) {
    static constexpr const char* kChanges[] = {
        "UPDATE messages SET body=?1 WHERE seq % 2 = 0;",
        "UPDATE messages SET time=?2, arg1=?2;",
        "UPDATE messages SET bytes=?2;",
        "UPDATE messages SET seq=?2 WHERE seq=(SELECT max(seq) FROM messages);",
        "UPDATE facts SET value=?1 WHERE name='name';",
        "UPDATE facts SET value=?2 WHERE name='dropped';",
        "INSERT OR REPLACE INTO facts VALUES('given_up:one', ?2);",
        "INSERT OR REPLACE INTO cursors VALUES(?1, ?2);",
        "DELETE FROM cursors;",
        "DELETE FROM facts;",
        "DROP TABLE cursors;",
        "PRAGMA user_version=1;",
        "UPDATE messages SET type=NULL;",
        "DELETE FROM messages WHERE seq % 2 = 1;",
    };
    base::Database database;
    if (!database.Open(path, {})) return;
    base::Statement change(database, kChanges[draw.Below(std::size(kChanges))]);
    const std::string text = draw.Text(32);
    change.Bind(1, text);
    change.Bind(2, draw.Number());
    while (change.Row()) {
    }
}

void Damage(Draw& draw, const std::string& path) {
    const size_t count = draw.Below(6);
    for (size_t i = 0; i < count; ++i) {
        const std::string file = draw.Byte() % 3 == 0 ? path + "-wal" : path;
        switch (draw.Below(8)) {
            case 0: CutOff(draw, file); break;
            case 1:
            case 2:
            case 3: ChangeRows(draw, path); break;
            default: TurnByte(draw, file); break;
        }
    }
}

/// Reads to the end as a sink does. Returns: how often the new message came.
int ReadAll(CEventSpool& spool, const std::string& sink) {
    int64_t last = INT64_MIN;
    std::set<std::string> ids;
    int found = 0;
    for (int round = 0; round < 100; ++round) {
        const auto messages = spool.Read(sink, 16, 65536);
        if (!messages) continue;  // the file is replaced meanwhile
        if (messages->empty()) return found;
        for (const SpoolMessage& message : *messages) {
            Require(message.seq > last, "messages come in order");
            Require(ids.insert(message.id).second, "an id comes once");
            last = message.seq;
            found += message.body == "new";
            Require(!zelhost::MessageJson(message, "main").empty(), "every message can be written");
        }
        (void)spool.Confirm(sink, last);
    }
    Require(false, "a sink comes to an end");
    return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const support::TempDir directory(InMemory());
    const std::string path = directory / "spool.db";
    Draw draw(data, size);
    Fill(draw, path);
    Damage(draw, path);
    CEventSpool spool;
    (void)spool.Open(path, kMostBytes, kRing);
    (void)spool.SetSinks(kSinks);
    const bool durable = spool.Append(MessageOf("new"));
    for (int i = 0; i < 3 && !spool.FlushMemory(); ++i) {
    }
    for (const std::string& sink : kSinks) {
        const int found = ReadAll(spool, sink);
        Require(found <= 1, "no message comes twice");
        Require(!durable || found == 1, "what is acknowledged comes");
    }
    (void)spool.GetFigures();
    (void)spool.Rest();
    spool.Close();
    support::TakeLogLines();
    return 0;
}
