// The reader of the OOM watermark file: any bytes give a watermark or none, and what was read can be written and read.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "abnormal/OomWatermark.h"
#include "doubles/Platform.h"

namespace {

void Require(bool holds) {
    if (!holds) abort();
}

bool Same(const SelfCgroupOomWatermark& a, const SelfCgroupOomWatermark& b) {
    return a.oom_kill == b.oom_kill && a.oom == b.oom && a.oom_group_kill == b.oom_group_kill;
}

bool IsPlain(const std::string& text) {
    for (char c : text) {
        if (c < ' ' || c > '~') return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    OomWatermarkMap parsed{{"old", {1, 2, 3}}};
    const bool ok = ParseOomWatermark(text, parsed);
    Require(ok || parsed.empty());
    Require(parsed.count("old") == 0 || text.find("old") != std::string::npos || text.find('\\') != std::string::npos);

    // Through the file: the same, up to the bound of the file's size.
    const std::string path = "/watermark";
    doubles::P().files.content[path] = text;
    OomWatermarkMap read{{"old", {1, 2, 3}}};
    Require(ReadOomWatermarkFile(path, read) == (ok && size <= kOomWatermarkMaxBytes));
    Require(read.size() == (size <= kOomWatermarkMaxBytes ? parsed.size() : 0));

    // What was read survives a write, under keys that the writer leaves as they are.
    std::vector<zel::CgroupMemoryOomEvent> snapshot;
    OomWatermarkMap expected;
    for (const auto& entry : parsed) {
        if (!IsPlain(entry.first)) continue;
        zel::CgroupMemoryOomEvent event;
        event.group = entry.first;
        event.oom_kill = entry.second.oom_kill;
        event.oom = entry.second.oom;
        event.oom_group_kill = entry.second.oom_group_kill;
        snapshot.push_back(event);
        expected[MakeOomWatermarkKey(event)] = entry.second;
    }
    OomWatermarkMap again;
    Require(ParseOomWatermark(FormatOomWatermark(snapshot), again));
    Require(again.size() == expected.size());
    for (const auto& entry : expected) Require(again.count(entry.first) == 1 && Same(entry.second, again[entry.first]));
    doubles::P().TakeJournal();
    return 0;
}
