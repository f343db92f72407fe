// Delivered events from the JSON-lines file, findings about the host from the two databases, opened read-only.
#include "ShowEvents.h"

#include <sqlite3.h>

#include <ctime>

#include "EventTail.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

void AppendStore(std::string& text, const std::string& path, unsigned int last) {
    sqlite3* database = nullptr;
    sqlite3_stmt* rows = nullptr;
    if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(database, "select event_time, type, data from os_abnormal order by event_time desc limit ?",
                           -1, &rows, nullptr) == SQLITE_OK &&
        sqlite3_bind_int(rows, 1, static_cast<int>(last)) == SQLITE_OK) {
        while (sqlite3_step(rows) == SQLITE_ROW) {
            TailEvent event;
            event.time = sqlite3_column_int64(rows, 0);
            event.type = sqlite3_column_int(rows, 1) == 2 ? "disk" : "memory";
            const unsigned char* data = sqlite3_column_text(rows, 2);
            if (data != nullptr) event.body = reinterpret_cast<const char*>(data);
            text += "  " + DescribeEvent(event) + "\n";
        }
    }
    sqlite3_finalize(rows);
    sqlite3_close(database);
}

}  // namespace

std::string ShowEvents(const std::string& appDir, const std::string& process, unsigned int last) {
    std::string text = "delivered events of " + process + ", newest last:\n";
    for (const TailEvent& event : ReadEventTail(appDir + "/log/" + process + ".events.jsonl", last)) {
        text += "  " + DescribeEvent(event) + "\n";
    }
    text += "findings about the host, today and before, newest first:\n";
    AppendStore(text, appDir + zel::kCurrentOsAbnormalDbName, last);
    AppendStore(text, appDir + zel::kLastOsAbnormalDbName, last);
    return text;
}

}  // namespace agent
