// Writes the page of a made-up day to stdout, for the browser: with names as an agent has them, or with "hostile" ones.
#include <cstdio>
#include <cstring>

#include "ReportFixture.h"

int main(int argc, char** argv) {
    std::vector<std::string> names = {"", "collect-defense", "collect-defense/QorHips", "guard", "guard/TervaneUpdate"};
    if (argc > 1 && strcmp(argv[1], "hostile") == 0) {
        names.push_back(std::string("guard/") + reporttest::kHostile);
        names.push_back("guard/" + std::string(120, 'w'));
    }
    const std::string page = agent::MakeReportPage(reporttest::Day(names));
    return fwrite(page.data(), 1, page.size(), stdout) == page.size() ? 0 : 1;
}
