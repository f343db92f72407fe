// One question and one answer over netlink for each connection. Source: sock_diag(7).
#include "base/LoopbackPeer.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace base {
namespace {

struct Question {
    nlmsghdr header;
    inet_diag_req_v2 wanted;
};

bool FillEnd(const sockaddr_storage& address, __be32* place, __be16& port, int family) {
    if (address.ss_family != family) return false;
    if (family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
        std::memcpy(place, &v6->sin6_addr, sizeof v6->sin6_addr);
        port = v6->sin6_port;
        return true;
    }
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
    place[0] = v4->sin_addr.s_addr;
    port = v4->sin_port;
    return true;
}

/// The other end's own view: what is its address there is the peer's address here.
bool MakeQuestion(int socket, Question& question) {
    sockaddr_storage theirs{};
    sockaddr_storage ours{};
    socklen_t theirSize = sizeof theirs;
    socklen_t ourSize = sizeof ours;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&theirs), &theirSize) != 0 ||
        getsockname(socket, reinterpret_cast<sockaddr*>(&ours), &ourSize) != 0) {
        return false;
    }
    const int family = theirs.ss_family;
    if (family != AF_INET && family != AF_INET6) return false;
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.wanted.sdiag_family = static_cast<__u8>(family);
    question.wanted.sdiag_protocol = IPPROTO_TCP;
    question.wanted.idiag_states = ~0U;
    inet_diag_sockid& id = question.wanted.id;
    id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return FillEnd(theirs, id.idiag_src, id.idiag_sport, family) && FillEnd(ours, id.idiag_dst, id.idiag_dport, family);
}

}  // namespace

LoopbackPeers::LoopbackPeers()
    : m_kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG)) {}

uid_t LoopbackPeers::UserOf(int socket) const {
    Question question{};
    if (!m_kernel || !MakeQuestion(socket, question)) return kNobodyKnown;
    // What a former question left unread is no answer to this one.
    alignas(nlmsghdr) char answer[1024];
    while (recv(m_kernel.Get(), answer, sizeof answer, MSG_DONTWAIT) > 0) {
    }
    if (send(m_kernel.Get(), &question, sizeof question, MSG_DONTWAIT) < 0) return kNobodyKnown;
    const ssize_t got = recv(m_kernel.Get(), answer, sizeof answer, MSG_DONTWAIT);
    const auto* header = reinterpret_cast<const nlmsghdr*>(answer);
    if (got < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(inet_diag_msg))) || header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
        return kNobodyKnown;
    }
    inet_diag_msg found{};
    std::memcpy(&found, answer + NLMSG_HDRLEN, sizeof found);
    // A socket that its process has closed has no owner any more, and would pass for root's.
    return found.idiag_inode == 0 ? kNobodyKnown : found.idiag_uid;
}

}  // namespace base
