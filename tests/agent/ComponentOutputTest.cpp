// A component's output on its way to the log: whole lines by name, bounded in length and rate, and never in its way.
#include "ComponentOutput.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/zel/LogMessage.h"
#include "support/Waiting.h"

namespace agent {
namespace {

using testing::ElementsAre;

class ComponentOutputTest : public testing::Test {
protected:
    void SetUp() override { Begin(); }
    void Begin() {
        auto end = m_output.Open();
        ASSERT_TRUE(end.Ok()) << end.GetError().Text();
        m_program = std::move(*end);
    }
    void Write(const std::string& text) {
        ASSERT_EQ(write(m_program.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::vector<std::string> Lines() const { return m_lines; }

    std::vector<std::string> m_lines;
    std::vector<int> m_levels;
    ComponentOutput m_output{"A", [this](const std::string& line, int level) {
                                 m_lines.push_back(line);
                                 m_levels.push_back(level);
                             }};
    base::Fd m_program;
};

TEST_F(ComponentOutputTest, EachLineIsWrittenWholeAndOnce) {
    Write("one\ntw");
    m_output.Take(1000);
    EXPECT_THAT(Lines(), ElementsAre("component A: one"));
    Write("o\n\n  \r\nthree");
    m_output.Take(1000);
    m_output.Take(1000);
    EXPECT_THAT(Lines(), ElementsAre("component A: one", "component A: two"));
    m_output.Close(1001);
    m_output.Close(1001);
    EXPECT_THAT(Lines(), ElementsAre("component A: one", "component A: two", "component A: three"));
    EXPECT_THAT(m_levels, testing::Each(zel::kLogInfo));
}

TEST_F(ComponentOutputTest, WhatIsWrittenWakesWhoWaitsForIt) {
    sigset_t output;
    sigset_t before;
    sigemptyset(&output);
    sigaddset(&output, SIGIO);
    pthread_sigmask(SIG_BLOCK, &output, &before);
    Begin();
    const timespec atOnce{};
    EXPECT_EQ(-1, sigtimedwait(&output, nullptr, &atOnce));
    Write("one\n");
    const timespec most{20, 0};
    EXPECT_EQ(SIGIO, sigtimedwait(&output, nullptr, &most));
    m_output.Take(1000);
    EXPECT_THAT(Lines(), ElementsAre("component A: one"));
    EXPECT_EQ(-1, sigtimedwait(&output, nullptr, &atOnce)) << "told once";
    m_output.Close(1000);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(ComponentOutputTest, ALineWithoutEndTakesNoMoreThanItsBound) {
    const std::string most(ComponentOutput::kMostLineBytes, 'x');
    Write(most + "\n" + most + "y\nshort\n");
    for (int i = 0; i < 40; ++i) {
        Write(std::string(60000, 'z'));
        m_output.Take(1000);
    }
    Write("\nlast\n");
    m_output.Take(1000);
    EXPECT_THAT(Lines(), ElementsAre("component A: " + most, "component A: " + most + " ...", "component A: short",
                                     "component A: " + std::string(most.size(), 'z') + " ...", "component A: last"));
}

TEST_F(ComponentOutputTest, AFloodIsLeftOutAndCountedOnceAMinute) {
    constexpr unsigned int kMost = ComponentOutput::kMostLinesAtOnce;
    constexpr unsigned int kEach = 1000;
    for (int64_t now = 1000; now < 1050; ++now) {
        std::string text;
        for (unsigned int i = 0; i < kEach; ++i) text += "flood\n";
        Write(text);
        m_output.Take(now);
    }
    EXPECT_LE(Lines().size(), kMost + 50 * ComponentOutput::kLinesPerSecond + 1);
    EXPECT_GE(Lines().size(), kMost + 48 * ComponentOutput::kLinesPerSecond);
    m_output.Take(1000 + ComponentOutput::kToldEverySeconds);
    uint64_t leftOut = 0;
    size_t logged = 0;
    for (size_t i = 0; i < m_lines.size(); ++i) {
        if (m_levels[i] == zel::kLogInfo) {
            ++logged;
            continue;
        }
        const std::string begin = "component A writes more than is logged: ";
        ASSERT_THAT(m_lines[i], testing::StartsWith(begin));
        leftOut += std::stoull(m_lines[i].substr(begin.size()));
    }
    EXPECT_EQ(Lines().size() - logged, 2U);
    EXPECT_EQ(leftOut + logged, 50U * kEach);
}

TEST_F(ComponentOutputTest, AProgramThatWritesMuchGetsItAllOut) {
    constexpr size_t kMuch = 4 << 20;
    std::atomic<bool> done{false};
    std::thread program([&done, end = m_program.Get()] {
        const std::string block(64 * 1024, 'b');
        for (size_t written = 0; written < kMuch; written += block.size()) {
            if (write(end, block.data(), block.size()) != static_cast<ssize_t>(block.size())) return;
        }
        done = true;
    });
    EXPECT_TRUE(support::Eventually([&] {
        m_output.Take(1000);
        return done.load();
    }));
    if (!done) m_output.Close(1000);  // the program's write ends
    program.join();
    m_output.Close(1000);
    EXPECT_THAT(Lines(), ElementsAre(testing::StartsWith("component A: bbb")));
}

TEST_F(ComponentOutputTest, ANewStartBeginsANewLine) {
    Write("cut off");
    m_output.Take(1000);
    m_program.Reset();
    Begin();
    Write("anew\n");
    m_output.Take(1000);
    EXPECT_THAT(Lines(), ElementsAre("component A: anew"));
    EXPECT_EQ(fcntl(m_program.Get(), F_GETFL) & O_NONBLOCK, 0) << "a program expects its output to wait";
}

}  // namespace
}  // namespace agent
