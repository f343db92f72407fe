// Writes the page of a made-up fleet to stdout, for the browser: "plain", or "hostile" with such names; and how many
// hosts it has.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "FleetReportFixture.h"

int main(int argc, char** argv) {
    const bool hostile = argc > 1 && strcmp(argv[1], "hostile") == 0;
    const std::string page = agent::MakeFleetPage(fleettest::FleetDay(argc > 2 ? atoi(argv[2]) : 120, hostile));
    return fwrite(page.data(), 1, page.size(), stdout) == page.size() ? 0 : 1;
}
