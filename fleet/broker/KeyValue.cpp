// Keys as the messages of their stream: the last one of a key's subject is its value, or says that it was taken away.
#include "broker/KeyValue.h"

#include <algorithm>
#include <utility>

namespace fleet {
namespace {

constexpr char kDelete[] = "DEL";

bool IsKeyLetter(char c) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    return letter || c == '-' || c == '_' || c == '=' || c == '.' || c == '/';
}

Answer NoKey(const std::string& key) {
    Answer answer;
    answer.outcome = Answer::Outcome::kError;
    answer.text = "\"" + key + "\" cannot be a key: letters, digits and - _ = . / are taken";
    return answer;
}

}  // namespace

bool IsKey(const std::string& key) {
    const bool framed = !key.empty() && key.front() != '.' && key.back() != '.';
    return framed && key.find("..") == std::string::npos && std::all_of(key.begin(), key.end(), IsKeyLetter);
}

std::string KeySubject(const std::string& bucket, const std::string& key) {
    return "$KV." + bucket + "." + key;
}

std::string BucketStream(const std::string& bucket) {
    return "KV_" + bucket;
}

KvRead GetKey(NatsBroker& broker, const std::string& bucket, const std::string& key) {
    KvRead read;
    read.answer = NoKey(key);
    if (!IsKey(key)) return read;
    StoredMessage message;
    const auto ask = [&] { read.answer = broker.Read(BucketStream(bucket), KeySubject(bucket, key), message); };
    ask();
    // Of many reads a few are never answered, while all is well.
    if (read.answer.outcome == Answer::Outcome::kTimeout && !read.answer.notPermitted) ask();
    if (read.answer.outcome != Answer::Outcome::kOk) return read;
    KvEntry entry{key, read.answer.sequence, message.timeMs, std::move(message.payload), !message.removal.empty()};
    if (entry.deleted) entry.value.clear();
    read.entry = std::move(entry);
    return read;
}

Answer PutKey(NatsBroker& broker, const std::string& bucket, const std::string& key,
              const std::optional<std::string>& value, std::optional<uint64_t> expected) {
    if (!IsKey(key)) return NoKey(key);
    return broker.Put(
        {BucketStream(bucket), KeySubject(bucket, key), value ? "" : kDelete, value.value_or(""), expected});
}

}  // namespace fleet
