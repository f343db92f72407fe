// Keys of a bucket at the broker, read and written with no more rights than those keys need: nothing is asked of the
// stream itself, and nothing is made there for a reader.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "broker/NatsBroker.h"

namespace fleet {

constexpr char kStateBucket[] = "state";
constexpr char kConfigBucket[] = "config";

/// One key as the broker has it.
struct KvEntry {
    std::string key;
    uint64_t revision = 0;  ///< of the last change, a deletion included: one order over all keys of the bucket
    int64_t timeMs = 0;     ///< of that, since the epoch by the broker's clock
    std::string value;
    bool deleted = false;  ///< the key was there and was taken away
};

struct KvRead {
    Answer answer;                 ///< kNotFound: there never was such a key, or nothing is left of it
    std::optional<KvEntry> entry;  ///< of kOk
};

/// Whether a key may be called so. Pure.
bool IsKey(const std::string& key);
/// Returns: the subject of a key. Pure.
std::string KeySubject(const std::string& bucket, const std::string& key);
/// Returns: the bucket's stream. Pure.
std::string BucketStream(const std::string& bucket);

/// Reads a key. One that was not answered is asked for a second time. Blocks: twice as long as a request.
/// What comes may be older than what was stored last: any replica answers.
KvRead GetKey(NatsBroker& broker, const std::string& bucket, const std::string& key);

/// Writes a key, or takes it away where there is no value. `expected`: the revision that it has, 0 where it is not
/// there; empty: whatever it has. Returns: kOk with the new revision as `sequence`; kError with kCodeWrongSequence when
/// another one was faster; after kTimeout and kDisconnected it is not known.
Answer PutKey(NatsBroker& broker, const std::string& bucket, const std::string& key,
              const std::optional<std::string>& value, std::optional<uint64_t> expected = std::nullopt);

}  // namespace fleet
