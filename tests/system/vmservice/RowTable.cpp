// Runs the rows and prints which of them ran in this layout.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "ServiceGuest.h"
#include "support/RunTests.h"

namespace {

/// One line per row: "ROW layout name: passed", "failed", or "not run: reason".
class RowTable final : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo& row) override {
        std::string verdict = row.result()->Passed() ? "passed" : "failed";
        for (int i = 0; row.result()->Skipped() && i < row.result()->total_part_count(); ++i) {
            verdict = std::string("not run: ") + row.result()->GetTestPartResult(i).message();
        }
        m_table += "ROW " + guest::Layout() + " " + row.name() + ": " + verdict + "\n";
    }
    void OnTestProgramEnd(const testing::UnitTest&) override { printf("%s", m_table.c_str()); }

    std::string m_table;
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new RowTable);
    return support::RunTests();
}
