// The OOM watermark: the last seen out-of-memory counters of the agent's own control groups, as one JSON file in the
// global configuration directory. Key, text and parsing are pure; the two file operations go through the platform.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "MonitorPri.h"
#include "platform/zel/CgroupRecords.h"

/// Most bytes of the watermark file that are read. An item takes about 250 bytes, so this is over 200 control groups.
constexpr unsigned long kOomWatermarkMaxBytes = 65536;

/// Counters by watermark key.
using OomWatermarkMap = std::map<std::string, SelfCgroupOomWatermark>;

/// Returns: "group|path|v2" or "group|path|v1", with the word "parent" for the group name of a parent entry, so that
/// a parent keeps its key however the manager names it.
std::string MakeOomWatermarkKey(const zel::CgroupMemoryOomEvent& event);

/// Returns: all twelve fields of the record, for event messages. The watermark file holds fewer.
Json::Value MakeOomEventItem(const zel::CgroupMemoryOomEvent& event);

/// Returns: the file's text. Of two entries with one key the later one stays.
std::string FormatOomWatermark(const std::vector<zel::CgroupMemoryOomEvent>& snapshot);

/// Fills the map from the file's text, of any version. A missing or ill-typed counter is 0.
/// Returns: false, with an empty map, when the text is no JSON object with an object "items".
bool ParseOomWatermark(const std::string& text, OomWatermarkMap& watermarks);

/// Returns: the watermark file's path.
std::string GetOomWatermarkPath();

/// Replaces the file through a temporary one, so that a reader sees the old or the new whole file.
/// On failure: the file is as it was.
bool WriteOomWatermarkFile(const std::string& path, const std::vector<zel::CgroupMemoryOomEvent>& snapshot);

/// Returns: false, with an empty map, when there is no readable watermark.
bool ReadOomWatermarkFile(const std::string& path, OomWatermarkMap& watermarks);
