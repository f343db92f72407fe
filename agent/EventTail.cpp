// Reading of delivered events.
#include "EventTail.h"

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "JsonText.h"
#include "base/FileIo.h"

namespace agent {

namespace {

constexpr off_t kTailBytes = 256 * 1024;

bool ParseObject(const std::string& text, Json::Value& value) {
    base::Result<Json::Value> parsed = ParseJson(text);
    if (!parsed || !parsed->isObject()) return false;
    value.swap(*parsed);
    return true;
}

std::string Word(const Json::Value& value) {
    return value.isString() ? value.asString() : "";
}

/// The last bytes of a file; empty when it cannot be read.
std::string ReadEnd(const std::string& path) {
    const base::Result<base::Fd> file = base::OpenForReading(path);
    struct stat info {};
    if (!file || fstat(file->Get(), &info) != 0) return "";
    const off_t begin = std::max<off_t>(0, info.st_size - kTailBytes);
    std::string text(static_cast<size_t>(info.st_size - begin), '\0');
    const ssize_t length = pread(file->Get(), text.data(), text.size(), begin);
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return text;
}

}  // namespace

bool ParseEventLine(const std::string& line, TailEvent& event) {
    Json::Value object;
    if (!ParseObject(line, object)) return false;
    event.id = Word(object["id"]);
    constexpr Json::Int64 kMostSeconds = Json::Int64{1} << 40;
    event.time = object["time"].isInt64() ? std::clamp<Json::Int64>(object["time"].asInt64(), 0, kMostSeconds) : 0;
    event.process = Word(object["process"]);
    event.type = Word(object["type"]);
    event.body = Word(object["body"]);
    return true;
}

std::vector<TailEvent> ReadEventTail(const std::string& path, size_t count) {
    std::vector<TailEvent> events;
    const std::string text = ReadEnd(path);
    size_t end = text.rfind('\n');
    while (end != std::string::npos && events.size() < count) {
        size_t before = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
        size_t begin = before == std::string::npos ? 0 : before + 1;
        TailEvent event;
        if (ParseEventLine(text.substr(begin, end - begin), event)) events.insert(events.begin(), event);
        end = before;
    }
    return events;
}

}  // namespace agent
