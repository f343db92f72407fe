// The streams of a fleet as they have to be: what is said to the broker to make one, and how one that is there differs.
// Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Result.h"

namespace fleet {

/// What an administrator asks of the streams. 0: not said, then a new stream gets what is usual, and one that is there
/// keeps what it has.
struct SetupWish {
    int replicas = 0;
    int64_t maxBytes = 0;       ///< of the events
    int64_t maxAgeSeconds = 0;  ///< of the events
    bool change = false;        ///< what differs is changed where nothing that is stored is lost by it
};
constexpr int kUsualReplicas = 3;  ///< in a cluster
constexpr int64_t kUsualAgeSeconds = 7 * 86400;

enum class FleetStream { kEvents, kState, kConfig };
constexpr FleetStream kFleetStreams[] = {FleetStream::kEvents, FleetStream::kState, FleetStream::kConfig};
const char* NameOf(FleetStream stream);

/// One setting that is not as it has to be.
struct StreamDifference {
    std::string setting, is, should;
    std::string kept;  ///< why it cannot be changed; empty: it can
};

struct FoundStream {
    bool exists = false;
    std::vector<StreamDifference> differences;
    std::string update;  ///< the request that changes those that can be changed; empty: there is none
};

/// `isCluster`: what the copies of a new stream depend on where nothing is said of them.
std::string MakeRequest(FleetStream stream, const SetupWish& wish, bool isCluster);
/// answer: the broker's, of the stream's information. Errors: the broker's words; an answer that is none.
base::Result<FoundStream> JudgeStream(FleetStream stream, const SetupWish& wish, const std::string& answer);
/// answer: of a stream that was to be made or changed. Errors: as above.
base::Status JudgeDone(const std::string& answer);

}  // namespace fleet
