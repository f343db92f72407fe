// What is asked of the kernel about a loopback connection, byte for byte, and what is made of each answer: the kernel
// is played here.
#include "base/LoopbackPeer.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Question {
    nlmsghdr header;
    inet_diag_req_v2 wanted;
};

/// In the place of the kernel's socket for questions, and of the addresses of one connection.
struct Play {
    bool kernelIsThere = true;
    bool takesQuestions = true;
    base::Fd kernel;  // the other end
    std::vector<std::string> answers;
    std::vector<std::string> questions;
    sockaddr_storage theirs{};
    sockaddr_storage ours{};
    bool knowsTheirs = true;
    bool knowsOurs = true;
};
constexpr int kConnection = 1 << 20;  // no descriptor of this process
thread_local Play* t_play = nullptr;
thread_local int t_asked = -1;

int Tell(const sockaddr_storage& known, bool isKnown, sockaddr* address, socklen_t* size) {
    if (!isKnown) {
        errno = ENOTCONN;
        return -1;
    }
    std::memcpy(address, &known, std::min<size_t>(*size, sizeof known));
    *size = sizeof known;
    return 0;
}

template <class Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define ZEL_IN_FRONT extern "C" __attribute__((visibility("default")))

ZEL_IN_FRONT int socket(int family, int type, int protocol) noexcept {
    static const auto next = Next<int (*)(int, int, int)>("socket");
    if (t_play == nullptr || family != AF_NETLINK) return next(family, type, protocol);
    int ends[2];
    if (!t_play->kernelIsThere || protocol != NETLINK_SOCK_DIAG ||
        socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        errno = EPROTONOSUPPORT;
        return -1;
    }
    t_play->kernel.Reset(ends[1]);
    t_asked = ends[0];
    return ends[0];
}

ZEL_IN_FRONT ssize_t send(int fd, const void* bytes, size_t size, int flags) {
    static const auto next = Next<ssize_t (*)(int, const void*, size_t, int)>("send");
    if (t_play == nullptr || fd != t_asked) return next(fd, bytes, size, flags);
    if (!t_play->takesQuestions) {
        errno = ENOBUFS;
        return -1;
    }
    t_play->questions.emplace_back(static_cast<const char*>(bytes), size);
    for (const std::string& answer : t_play->answers) next(t_play->kernel.Get(), answer.data(), answer.size(), 0);
    return static_cast<ssize_t>(size);
}

ZEL_IN_FRONT int getpeername(int fd, sockaddr* address, socklen_t* size) noexcept {
    static const auto next = Next<int (*)(int, sockaddr*, socklen_t*)>("getpeername");
    if (t_play == nullptr || fd != kConnection) return next(fd, address, size);
    return Tell(t_play->theirs, t_play->knowsTheirs, address, size);
}

ZEL_IN_FRONT int getsockname(int fd, sockaddr* address, socklen_t* size) noexcept {
    static const auto next = Next<int (*)(int, sockaddr*, socklen_t*)>("getsockname");
    if (t_play == nullptr || fd != kConnection) return next(fd, address, size);
    return Tell(t_play->ours, t_play->knowsOurs, address, size);
}

namespace {

sockaddr_storage AddressOf(const char* text, uint16_t port) {
    sockaddr_storage made{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&made);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&made);
    if (inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
    } else {
        EXPECT_EQ(1, inet_pton(AF_INET6, text, &v6->sin6_addr));
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        v6->sin6_flowinfo = 0x01020304;
    }
    return made;
}

std::string AnswerOf(uid_t user, uint32_t inode, uint16_t type = SOCK_DIAG_BY_FAMILY) {
    nlmsghdr header{};
    header.nlmsg_len = NLMSG_LENGTH(sizeof(inet_diag_msg));
    header.nlmsg_type = type;
    inet_diag_msg found{};
    found.idiag_uid = user;
    found.idiag_inode = inode;
    std::string text(NLMSG_LENGTH(sizeof found), '\0');
    std::memcpy(text.data(), &header, sizeof header);
    std::memcpy(text.data() + NLMSG_HDRLEN, &found, sizeof found);
    return text;
}

class LoopbackQuestionTest : public testing::Test {
protected:
    void SetUp() override {
        t_play = &m_play;
        m_play.theirs = AddressOf("127.0.0.2", 40000);
        m_play.ours = AddressOf("127.0.0.3", 9090);
        m_play.answers = {AnswerOf(1234, 5)};
    }
    void TearDown() override {
        t_play = nullptr;
        t_asked = -1;
    }
    static uid_t User() { return base::LoopbackPeers().UserOf(kConnection); }
    void Asks(int family) {
        ASSERT_EQ(1U, m_play.questions.size());
        ASSERT_EQ(sizeof(Question), m_play.questions[0].size());
        Question asked{};
        std::memcpy(&asked, m_play.questions[0].data(), sizeof asked);
        EXPECT_EQ(sizeof(Question), asked.header.nlmsg_len);
        EXPECT_EQ(SOCK_DIAG_BY_FAMILY, asked.header.nlmsg_type);
        EXPECT_EQ(NLM_F_REQUEST, asked.header.nlmsg_flags) << "one socket, and no list of all";
        EXPECT_EQ(family, asked.wanted.sdiag_family);
        EXPECT_EQ(IPPROTO_TCP, asked.wanted.sdiag_protocol);
        EXPECT_EQ(~0U, asked.wanted.idiag_states);
        EXPECT_EQ(0, asked.wanted.idiag_ext);
        const inet_diag_sockid& id = asked.wanted.id;
        EXPECT_EQ(htons(40000), id.idiag_sport) << "the peer's own address is the source";
        EXPECT_EQ(htons(9090), id.idiag_dport);
        EXPECT_EQ(0U, id.idiag_if);
        for (const __u32 half : id.idiag_cookie) EXPECT_EQ(INET_DIAG_NOCOOKIE, half);
        __be32 theirs[4] = {};
        __be32 ours[4] = {};
        Words(m_play.theirs, theirs);
        Words(m_play.ours, ours);
        EXPECT_EQ(0, std::memcmp(theirs, id.idiag_src, sizeof theirs));
        EXPECT_EQ(0, std::memcmp(ours, id.idiag_dst, sizeof ours));
    }
    static void Words(const sockaddr_storage& address, __be32* words) {
        if (address.ss_family == AF_INET) {
            words[0] = reinterpret_cast<const sockaddr_in*>(&address)->sin_addr.s_addr;
        } else {
            std::memcpy(words, &reinterpret_cast<const sockaddr_in6*>(&address)->sin6_addr, 16);
        }
    }

    Play m_play;
};

TEST_F(LoopbackQuestionTest, OneOfTheFourthVersionIsAskedFor) {
    EXPECT_EQ(1234U, User());
    Asks(AF_INET);
}

TEST_F(LoopbackQuestionTest, OneOfTheSixthVersionIsAskedFor) {
    m_play.theirs = AddressOf("fd01:203:405:607:809:a0b:c0d:e0f", 40000);
    m_play.ours = AddressOf("fd02:304:506:708:90a:b0c:d0e:f10", 9090);
    EXPECT_EQ(1234U, User());
    Asks(AF_INET6);
}

TEST_F(LoopbackQuestionTest, WithoutTwoAddressesOfAFamilyNobodyAsks) {
    const sockaddr_storage v4 = m_play.ours;
    const sockaddr_storage v6 = AddressOf("::1", 9090);
    sockaddr_storage local{};
    local.ss_family = AF_UNIX;
    for (const auto& [theirs, ours] : {std::pair(v4, v6), std::pair(v6, v4), std::pair(local, local),
                                       std::pair(v4, local), std::pair(v6, local), std::pair(local, v4)}) {
        m_play.theirs = theirs;
        m_play.ours = ours;
        EXPECT_EQ(base::kNobodyKnown, User());
    }
    m_play.theirs = m_play.ours = v4;
    for (const bool theirs : {true, false}) {
        m_play.knowsTheirs = theirs;
        m_play.knowsOurs = !theirs;
        EXPECT_EQ(base::kNobodyKnown, User());
    }
    EXPECT_TRUE(m_play.questions.empty());
}

TEST_F(LoopbackQuestionTest, OnlyAWholeAnswerOfItsKindNamesAUser) {
    const std::string whole = AnswerOf(0, 5);
    for (const std::string& answer :
         {whole.substr(0, whole.size() - 1), whole.substr(0, sizeof(nlmsghdr)), std::string("x"),
          AnswerOf(0, 5, NLMSG_ERROR), AnswerOf(0, 5, NLMSG_DONE), AnswerOf(0, 0), AnswerOf(1234, 0)}) {
        m_play.answers = {answer};
        EXPECT_EQ(base::kNobodyKnown, User()) << answer.size();
    }
    m_play.answers = {};
    EXPECT_EQ(base::kNobodyKnown, User()) << "and no answer is none";
    for (const uid_t user : {0U, 1U, 65534U, 4294967294U}) {
        for (const std::string& after : {std::string(), std::string(400, '\0')}) {
            m_play.answers = {AnswerOf(user, UINT32_MAX) + after};
            EXPECT_EQ(user, User());
        }
    }
}

TEST_F(LoopbackQuestionTest, WithoutAKernelThatTakesItNobodyIsKnown) {
    m_play.takesQuestions = false;
    EXPECT_EQ(base::kNobodyKnown, User());
    m_play.kernelIsThere = false;
    EXPECT_EQ(base::kNobodyKnown, User());
}

TEST_F(LoopbackQuestionTest, AnOldAnswerIsNoneToTheNextQuestion) {
    const base::LoopbackPeers peers;
    m_play.answers = {AnswerOf(1, 5), AnswerOf(2, 5), AnswerOf(3, 5)};
    EXPECT_EQ(1U, peers.UserOf(kConnection));
    m_play.answers = {AnswerOf(4, 5)};
    EXPECT_EQ(4U, peers.UserOf(kConnection));
    m_play.answers = {};
    EXPECT_EQ(base::kNobodyKnown, peers.UserOf(kConnection));
    EXPECT_EQ(3U, m_play.questions.size());
}

}  // namespace
