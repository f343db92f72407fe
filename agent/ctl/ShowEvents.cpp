// Delivered events from the JSON-lines file, findings about the host from the two databases, opened read-only.
#include "ShowEvents.h"

#include <ctime>

#include "AgentPaths.h"
#include "EventTail.h"
#include "Printable.h"
#include "base/Database.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

void AppendStore(std::string& text, const std::string& path, unsigned int last) {
    base::DatabaseOptions options;
    options.readOnly = true;
    base::Database database;
    if (!database.Open(path, options)) return;
    base::Statement rows(database, "select event_time, type, data from os_abnormal order by event_time desc limit ?");
    if (!rows.Bind(1, last)) return;
    while (rows.Row()) {
        TailEvent event;
        event.time = rows.Int(0);
        event.type = rows.Int(1) == 2 ? "disk" : "memory";
        event.body = rows.Text(2);
        text += "  " + Printable(DescribeEvent(event)) + "\n";
    }
}

}  // namespace

std::string ShowEvents(const std::string& appDir, const std::string& process, unsigned int last) {
    std::string text = "delivered events of " + process + ", newest last:\n";
    for (const TailEvent& event : ReadEventTail(EventFile(appDir, process), last)) {
        text += "  " + Printable(DescribeEvent(event)) + "\n";
    }
    text += "findings about the host, today and before, newest first:\n";
    AppendStore(text, appDir + zel::kCurrentOsAbnormalDbName, last);
    AppendStore(text, appDir + zel::kLastOsAbnormalDbName, last);
    return text;
}

}  // namespace agent
