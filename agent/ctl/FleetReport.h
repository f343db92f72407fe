// `tervanectl fleet report`: gathers what the broker has of a period, and writes it as a page or as JSON.
#pragma once

#include <string>

#include "FleetLink.h"
#include "FleetReportPage.h"

namespace CLI {
class App;
}

namespace agent {

struct FleetReportOptions {
    std::string since = "24h";
    std::string htmlFile;  ///< may be empty with json
    std::string group;     ///< empty: all hosts
    bool json = false;
};

/// Adds the command to those of a fleet.
void DeclareFleetReport(CLI::App& fleet, FleetReportOptions& options);

/// What a change of a level is about: values that came, went and differ. before: none where it is not known. Pure.
std::string WordChange(const std::string* before, const std::string& after, bool isDeleted);

/// Returns: kOk; kPartly when something could not be read, which is said; kRefused when the page cannot be written or
/// the group has no host; kUnreachable; kUsage.
int MakeFleetReport(FleetLink& link, const FleetReportOptions& options);

}  // namespace agent
