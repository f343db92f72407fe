// Frames between a process and the relay: there and back, cut, forged, beyond every bound.
#include "local/RelayFrames.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace fleet {
namespace {

BatchFrame SomeBatch() {
    BatchFrame frame;
    frame.process = "tervane";
    frame.batch = {"00000000000000aa", 3, 5, 9};
    frame.events = 4;
    frame.payload = std::string("{\"id\":1}\n\0{}", 12);
    return frame;
}

AnswerFrame SomeAnswer() {
    AnswerFrame frame;
    frame.step.kind = Step::Kind::kPause;
    frame.step.pauseMs = 1234;
    frame.state = State::kBlocked;
    frame.block = Block::kStreamFull;
    frame.reason = "the stream is full";
    return frame;
}

std::string BodyOf(const std::string& frame) {
    return frame.substr(kFrameHeaderBytes);
}

TEST(RelayFramesTest, BatchComesBackAsItWas) {
    const BatchFrame sent = SomeBatch();
    FrameReader reader;
    ASSERT_TRUE(reader.Add(EncodeBatch(sent)).Ok());
    const auto frame = reader.Next();
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->kind, FrameKind::kBatch);
    const auto got = DecodeBatch(frame->body);
    ASSERT_TRUE(got.Ok());
    EXPECT_EQ(got->process, sent.process);
    EXPECT_EQ(got->batch.spool, sent.batch.spool);
    EXPECT_EQ(got->batch.after, 3);
    EXPECT_EQ(got->batch.first, 5);
    EXPECT_EQ(got->batch.last, 9);
    EXPECT_EQ(got->events, 4u);
    EXPECT_EQ(got->payload, sent.payload);
    EXPECT_FALSE(reader.Next().has_value());
    EXPECT_EQ(reader.Kept(), 0u);
}

TEST(RelayFramesTest, AnswerComesBackAsItWas) {
    FrameReader reader;
    ASSERT_TRUE(reader.Add(EncodeAnswer(SomeAnswer())).Ok());
    const auto frame = reader.Next();
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->kind, FrameKind::kAnswer);
    const auto got = DecodeAnswer(frame->body);
    ASSERT_TRUE(got.Ok());
    EXPECT_EQ(got->step.kind, Step::Kind::kPause);
    EXPECT_EQ(got->step.pauseMs, 1234);
    EXPECT_EQ(got->state, State::kBlocked);
    EXPECT_EQ(got->block, Block::kStreamFull);
    EXPECT_EQ(got->reason, "the stream is full");
}

TEST(RelayFramesTest, FramesMayComeByteByByte) {
    const std::string bytes = EncodeBatch(SomeBatch());
    FrameReader reader;
    for (size_t i = 0; i < bytes.size(); ++i) {
        EXPECT_FALSE(reader.Next().has_value()) << i;
        ASSERT_TRUE(reader.Add(bytes.substr(i, 1)).Ok()) << i;
    }
    EXPECT_TRUE(reader.Next().has_value());
}

TEST(RelayFramesTest, BodiesThatAreCutOrLongerAreRefused) {
    const std::string batch = BodyOf(EncodeBatch(SomeBatch()));
    for (size_t length = 0; length < batch.size(); ++length) {
        EXPECT_FALSE(DecodeBatch(batch.substr(0, length)).Ok()) << length;
    }
    EXPECT_FALSE(DecodeBatch(batch + '\0').Ok());
    const std::string answer = BodyOf(EncodeAnswer(SomeAnswer()));
    for (size_t length = 0; length < answer.size(); ++length) {
        EXPECT_FALSE(DecodeAnswer(answer.substr(0, length)).Ok()) << length;
    }
    EXPECT_FALSE(DecodeAnswer(answer + '\0').Ok());
}

TEST(RelayFramesTest, BatchesBeyondABoundAreRefusedByBothSides) {
    const std::vector<std::pair<const char*, std::function<void(BatchFrame&)>>> cases{
        {"no process", [](BatchFrame& f) { f.process.clear(); }},
        {"long process", [](BatchFrame& f) { f.process.assign(kMostProcessBytes + 1, 'p'); }},
        {"spool", [](BatchFrame& f) { f.batch.spool = "00000000000000a/"; }},
        {"short spool", [](BatchFrame& f) { f.batch.spool.pop_back(); }},
        {"negative", [](BatchFrame& f) { f.batch.after = -1; }},
        {"after is first", [](BatchFrame& f) { f.batch.after = f.batch.first; }},
        {"turned round", [](BatchFrame& f) { f.batch.last = f.batch.first - 1; }},
        {"no events", [](BatchFrame& f) { f.events = 0; }},
        {"more events than numbers", [](BatchFrame& f) { f.events = 6; }},
        {"one event of two numbers", [](BatchFrame& f) { f.events = 1; }},
        {"too many events", [](BatchFrame& f) { f.batch.last = 1000, f.events = kMostEvents + 1; }},
        {"empty", [](BatchFrame& f) { f.payload.clear(); }},
        {"large batch", [](BatchFrame& f) { f.payload.assign(kMostBatchBytes + 1, 'x'); }},
        {"large event",
         [](BatchFrame& f) {
             f.batch.last = f.batch.first, f.events = 1;
             f.payload.assign(kMostEventBytes + 1, 'x');
         }},
    };
    for (const auto& one : cases) {
        BatchFrame frame = SomeBatch();
        one.second(frame);
        EXPECT_FALSE(CheckBatch(frame).Ok()) << one.first;
        EXPECT_FALSE(DecodeBatch(BodyOf(EncodeBatch(frame))).Ok()) << one.first;
    }
}

TEST(RelayFramesTest, LargestBatchAndLargestEventTravel) {
    BatchFrame batch = SomeBatch();
    batch.batch.last = std::numeric_limits<int64_t>::max();
    batch.events = kMostEvents;
    batch.payload.assign(kMostBatchBytes, 'x');
    BatchFrame event = SomeBatch();
    event.process.assign(kMostProcessBytes, 'p');
    event.batch.last = event.batch.first;
    event.events = 1;
    event.payload.assign(kMostEventBytes, 'x');
    for (const BatchFrame& frame : {batch, event}) {
        FrameReader reader;
        ASSERT_TRUE(reader.Add(EncodeBatch(frame)).Ok());
        const auto got = reader.Next();
        ASSERT_TRUE(got.has_value());
        EXPECT_TRUE(DecodeBatch(got->body).Ok());
    }
}

TEST(RelayFramesTest, NumbersBeyondWhatIsSignedAreRefused) {
    std::string body = BodyOf(EncodeBatch(SomeBatch()));
    const size_t last = 4 + 7 + 4 + 16 + 8 + 8;
    ASSERT_EQ(body[last], 9);
    body[last + 7] = static_cast<char>(0x80);
    EXPECT_FALSE(DecodeBatch(body).Ok());
    for (const size_t highest : {3u + 7u, 3u + 8u + 7u}) {
        std::string answer = BodyOf(EncodeAnswer(SomeAnswer()));
        answer[highest] = static_cast<char>(0x80);
        EXPECT_FALSE(DecodeAnswer(answer).Ok()) << highest;
    }
}

TEST(RelayFramesTest, AnswersOfNoKnownKindAreRefused) {
    for (const size_t at : {0u, 1u, 2u}) {
        for (int value = 0; value < 256; ++value) {
            std::string body = BodyOf(EncodeAnswer(SomeAnswer()));
            body[at] = static_cast<char>(value);
            const bool known = at == 0 ? value >= 2 && value <= 4 : value <= 5;
            EXPECT_EQ(DecodeAnswer(body).Ok(), known) << at << " " << value;
        }
    }
}

TEST(RelayFramesTest, AnAnswerKeepsNobodyAwayForLong) {
    AnswerFrame frame = SomeAnswer();
    frame.step.pauseMs = std::numeric_limits<int64_t>::max();
    frame.reason.assign(kMostReasonBytes + 7, 'r');
    const auto got = DecodeAnswer(BodyOf(EncodeAnswer(frame)));
    ASSERT_TRUE(got.Ok());
    EXPECT_EQ(got->step.pauseMs, PublishRule::kMostPauseMs);
    EXPECT_EQ(got->reason.size(), kMostReasonBytes);
}

TEST(RelayFramesTest, HeadsThatAreNoneEndTheTalk) {
    const std::string good = EncodeBatch(SomeBatch());
    for (size_t at = 0; at < 4; ++at) {
        std::string bytes = good;
        bytes[at] = 0x7f;
        FrameReader reader;
        EXPECT_FALSE(reader.Add(bytes).Ok()) << at;
        EXPECT_FALSE(reader.Next().has_value()) << at;
        EXPECT_FALSE(reader.Add(good).Ok()) << at;
        EXPECT_EQ(reader.Kept(), 0u) << at;
    }
}

TEST(RelayFramesTest, NoByteOfABodyBeyondTheBoundIsKept) {
    FrameReader reader(16);
    const std::string head{1, 1, 0, 0, 17, 0, 0, 0};
    const base::Status added = reader.Add(head + std::string(1000, 'x'));
    ASSERT_FALSE(added.Ok());
    EXPECT_EQ(added.GetError().kind, base::ErrorKind::kTooLarge);
    EXPECT_EQ(reader.Kept(), 0u);
}

TEST(RelayFramesTest, WhatComesBehindAFrameEndsTheTalk) {
    FrameReader reader;
    EXPECT_FALSE(reader.Add(EncodeAnswer(SomeAnswer()) + "x").Ok());
    EXPECT_FALSE(reader.Next().has_value());
}

}  // namespace
}  // namespace fleet
