// What is said to the broker to read a stream, and how its answers are read. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Result.h"
#include "console/ConsoleLines.h"

namespace fleet {

/// Where a reader begins.
struct ReadFrom {
    enum class Kind {
        kFirst,
        kTime,       ///< the first message of that time or later
        kSequence,   ///< the first message of that sequence or later
        kLastOfEach  ///< the last message of each subject
    };
    Kind kind = Kind::kFirst;
    double time = 0;  ///< seconds since the epoch
    uint64_t sequence = 0;
};

/// Returns: the request for a consumer that is read by pulling and confirms nothing.
std::string ConsumerRequest(const std::string& stream, const std::string& filter, const ReadFrom& from);
struct MadeConsumer {
    std::string name;
    uint64_t pending = 0;  ///< messages that wait for it
    double time = 0;       ///< when it was made, by the broker; 0: not said
};
/// Errors: the broker's own words; an answer that is none.
base::Result<MadeConsumer> ParseMadeConsumer(const std::string& answer);

/// Returns: the request for the next messages. `mostBytes`: 0: any number.
std::string PullRequest(int count, size_t mostBytes, int64_t waitMs);

/// What the broker says of a message that a consumer gets, in the subject that it would be confirmed on.
struct Delivery {
    uint64_t streamSequence = 0;
    uint64_t consumerSequence = 0;
    int64_t timeNs = 0;
    uint64_t pending = 0;  ///< messages that wait after this one
};
std::optional<Delivery> ParseDelivery(std::string_view subject);

/// Errors: the broker's own words; an answer that is none.
base::Result<StreamReport> ParseStreamReport(const std::string& answer);

/// Returns: seconds since the epoch as the broker writes times, in UTC with a fraction, and back; nothing for none.
std::string FormatTime(double seconds);
std::optional<double> ParseTime(const std::string& text);

}  // namespace fleet
