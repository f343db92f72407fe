// `tervanectl fleet setup`: the streams of a fleet are made at its broker, or compared with what they have to be.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "StatusText.h"

namespace agent {

class FleetLink;

struct FleetSetupOptions {
    int replicas = 0;      ///< 0: three in a cluster, one otherwise
    std::string maxBytes;  ///< "20GB"; empty: no bound, or the one that is there
    std::string maxAge;    ///< "7d"; empty: that, or what is there
    bool change = false;
    bool json = false;
};

/// "500MB", "20GB", "1TB" by 1024, as in the broker's configuration. Returns: 0 where it is none.
int64_t ParseStreamBytes(const std::string& text);
/// "36h", "7d" in seconds. Returns: 0 where it is none.
int64_t ParseStreamAge(const std::string& text);

/// answer: of the request "setup". `isChanging`: what differs was to be changed.
std::vector<TextLine> WordSetup(const Json::Value& answer, bool isChanging);
Json::Value SetupJson(const Json::Value& answer);
/// Whether each stream is as it has to be now.
bool IsSetUp(const Json::Value& answer);

/// Returns: exit code.
int SetUpFleet(FleetLink& link, const FleetSetupOptions& options);

}  // namespace agent
