// A broker of the distribution as a process of a test.
#include "fleet/RealBroker.h"

#include <fcntl.h>
#include <nats/nats.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "support/Waiting.h"

namespace fleet {
namespace {

constexpr char kProgram[] = "/usr/sbin/nats-server";
constexpr char kUrl[] = "://127.0.0.1:";

std::string UsualUsers() {
    return "authorization { users: [ { user: admin, password: pw }, { user: h1, password: pw } ] }\n"
           "no_auth_user: h1\n";
}

}  // namespace

bool RealBroker::IsInstalled() {
    return access(kProgram, X_OK) == 0;
}

RealBroker::RealBroker(std::string more) : m_more(std::move(more)) {
    if (m_more.find("user:") == std::string::npos) m_more += UsualUsers();
}

RealBroker::~RealBroker() {
    Kill();
}

int RealBroker::ReadPort() const {
    for (const std::string& name : support::NamesIn(m_directory / "ports")) {
        const std::string text = support::ReadText(m_directory / ("ports/" + name));
        const size_t at = text.find(kUrl);
        if (at != std::string::npos && text.back() == '}') return std::atoi(text.c_str() + at + sizeof(kUrl) - 1);
    }
    return -1;
}

bool RealBroker::Start() {
    const std::string config = m_directory / "server.conf";
    support::WriteText(m_directory / "ports/.keep", "");
    support::WriteText(config, "server_name: one\nlisten: \"127.0.0.1:" + std::to_string(m_port) +
                                   "\"\njetstream { store_dir: \"" + (m_directory / "store") +
                                   "\", max_memory_store: 8MB, max_file_store: 256MB }\n" + m_more);
    const std::string log = m_directory / "log";
    const std::string ports = m_directory / "ports";
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("GOMAXPROCS", "1", 1);
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(out, 1);
        dup2(out, 2);
        execl(kProgram, kProgram, "-c", config.c_str(), "--ports_file_dir", ports.c_str(), nullptr);
        _exit(127);
    }
    return support::Eventually([&] {
        const int port = ReadPort();
        if (port <= 0) return false;
        m_port = port;
        return true;
    });
}

void RealBroker::Kill() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
    for (const std::string& name : support::NamesIn(m_directory / "ports")) {
        unlink((m_directory / ("ports/" + name)).c_str());
    }
}

std::string RealBroker::Url(const std::string& user, const std::string& scheme) const {
    return scheme + "://" + user + ":pw@127.0.0.1:" + std::to_string(m_port);
}

std::string RealBroker::Address() const {
    return "nats://127.0.0.1:" + std::to_string(m_port);
}

BrokerAdmin::BrokerAdmin(const RealBroker& broker) {
    support::Eventually(
        [&] { return natsConnection_ConnectTo(&m_connection, broker.Url("admin").c_str()) == NATS_OK; });
    natsConnection_JetStream(&m_stream, m_connection, nullptr);
}

BrokerAdmin::~BrokerAdmin() {
    natsSubscription_Destroy(m_held);
    jsCtx_Destroy(m_stream);
    natsConnection_Destroy(m_connection);
}

bool BrokerAdmin::MakeStream(int64_t most) {
    RemoveStream();
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const char* subjects[] = {"zel.events.>"};
    config.Name = "EVENTS";
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.AllowDirect = true;
    if (most > 0) {
        config.MaxMsgs = most;
        config.Discard = js_DiscardNew;
    }
    jsErrCode code = static_cast<jsErrCode>(0);
    return js_AddStream(nullptr, m_stream, &config, nullptr, &code) == NATS_OK;
}

bool BrokerAdmin::MakeBucket(const std::string& bucket) {
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const std::string name = "KV_" + bucket, subject = "$KV." + bucket + ".>";
    const char* subjects[] = {subject.c_str()};
    config.Name = name.c_str();
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.AllowDirect = true;
    return js_AddStream(nullptr, m_stream, &config, nullptr, nullptr) == NATS_OK;
}

bool BrokerAdmin::RemoveStream() {
    jsErrCode code = static_cast<jsErrCode>(0);
    return js_DeleteStream(m_stream, "EVENTS", nullptr, &code) == NATS_OK;
}

bool BrokerAdmin::Hold(const std::string& subject) {
    natsSubscription_Destroy(m_held);
    m_held = nullptr;
    return natsConnection_SubscribeSync(&m_held, m_connection, subject.c_str()) == NATS_OK &&
           natsConnection_Flush(m_connection) == NATS_OK;
}

std::vector<BrokerAdmin::Stored> BrokerAdmin::ReadAll() {
    std::vector<Stored> all;
    jsErrCode code = static_cast<jsErrCode>(0);
    jsStreamInfo* info = nullptr;
    if (js_GetStreamInfo(&info, m_stream, "EVENTS", nullptr, &code) != NATS_OK) return all;
    const uint64_t last = info->State.LastSeq;
    jsStreamInfo_Destroy(info);
    for (uint64_t sequence = 1; sequence <= last; ++sequence) {
        natsMsg* message = nullptr;
        if (js_GetMsg(&message, m_stream, "EVENTS", sequence, nullptr, &code) != NATS_OK) continue;
        const char *id = "", *first = "";
        natsMsgHeader_Get(message, "Nats-Msg-Id", &id);
        natsMsgHeader_Get(message, "Zel-First", &first);
        all.push_back({natsMsg_GetSubject(message), id, first,
                       std::string(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)))});
        natsMsg_Destroy(message);
    }
    return all;
}

}  // namespace fleet
