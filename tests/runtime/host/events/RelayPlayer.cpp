// A relay that answers as a test says.
#include "events/RelayPlayer.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <sstream>
#include <utility>

namespace support {
namespace {

Reply Answer(fleet::Step::Kind kind, int64_t number) {
    fleet::AnswerFrame answer;
    answer.step.kind = kind;
    answer.step.number = number;
    answer.state = fleet::State::kSending;
    return {fleet::EncodeAnswer(answer), false, false};
}

/// Of this thread alone, whatever the C library would do to the others.
void ActAs(uid_t user) {
    EXPECT_EQ(0, syscall(SYS_setresuid, -1, user, -1));
}

bool IsReadable(int fd, int ms) {
    pollfd wanted{fd, POLLIN, 0};
    return poll(&wanted, 1, ms) > 0;
}

}  // namespace

Reply Stored(int64_t number) {
    return Answer(fleet::Step::Kind::kStored, number);
}

Reply GoBackTo(int64_t number) {
    return Answer(fleet::Step::Kind::kGoBack, number);
}

Reply Later(int64_t pauseMs, fleet::State state, const std::string& reason) {
    fleet::AnswerFrame answer;
    answer.step.kind = fleet::Step::Kind::kPause;
    answer.step.pauseMs = pauseMs;
    answer.state = state;
    answer.reason = reason;
    return {fleet::EncodeAnswer(answer), false, false};
}

Reply NoAnswer() {
    return {};
}

Reply Closing() {
    return {"", false, true};
}

RelayPlayer::RelayPlayer(const std::string& path, Play play, uid_t user) : m_play(std::move(play)), m_path(path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    unlink(path.c_str());
    m_listener = base::Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address))) << path;
    if (user != 0) ActAs(user);
    EXPECT_EQ(0, listen(m_listener.Get(), 8));
    if (user != 0) ActAs(0);
    m_thread = std::thread([this] { Run(); });
}

RelayPlayer::~RelayPlayer() {
    m_stop = true;
    m_thread.join();
    unlink(m_path.c_str());
}

std::vector<fleet::BatchFrame> RelayPlayer::Batches() {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_batches;
}

void RelayPlayer::Say(const std::string& bytes) {
    const std::lock_guard<std::mutex> lock(m_lock);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), send(m_client, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

void RelayPlayer::SetClient(int client) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_client = client;
}

void RelayPlayer::Run() {
    while (!m_stop) {
        if (!IsReadable(m_listener.Get(), 5)) continue;
        const base::Fd client(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client) continue;
        SetClient(client.Get());
        ++m_connections;
        fleet::FrameReader reader;
        while (!m_stop) {
            if (m_asleep || !IsReadable(client.Get(), 5)) {
                std::this_thread::yield();
            } else if (!Serve(client.Get(), reader)) {
                break;
            }
        }
        SetClient(-1);
    }
}

bool RelayPlayer::Serve(int client, fleet::FrameReader& reader) {
    char buffer[16384];
    const ssize_t got = recv(client, buffer, sizeof(buffer), 0);
    if (got <= 0) return false;
    const base::Status taken = reader.Add({buffer, static_cast<size_t>(got)});
    EXPECT_TRUE(taken) << taken.GetError().Text();
    const std::optional<fleet::Frame> frame = reader.Next();
    if (!frame) return taken.Ok();
    const base::Result<fleet::BatchFrame> batch = fleet::DecodeBatch(frame->body);
    EXPECT_TRUE(batch) << batch.GetError().Text();
    if (!batch) return false;
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_batches.push_back(*batch);
    }
    const Reply reply = m_play(*batch);
    const size_t step = reply.torn ? 1 : reply.bytes.size();
    for (size_t at = 0; at < reply.bytes.size(); at += step) {
        // Ignoring a failure: the other side may have gone meanwhile.
        static_cast<void>(send(client, reply.bytes.data() + at, step, MSG_NOSIGNAL));
    }
    return !reply.close;
}

std::vector<int64_t> NumbersOf(const fleet::BatchFrame& batch) {
    std::vector<int64_t> numbers;
    std::istringstream lines(batch.payload);
    for (std::string line; std::getline(lines, line);) {
        Json::Value event;
        EXPECT_TRUE(Json::Reader().parse(line, event)) << line.substr(0, 200);
        const std::string id = event["id"].asString();
        EXPECT_EQ(batch.batch.spool, id.substr(0, 16));
        EXPECT_EQ(batch.process, event["process"].asString());
        numbers.push_back(std::stoll(id.substr(17)));
    }
    return numbers;
}

}  // namespace support
