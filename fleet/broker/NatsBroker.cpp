// The broker's client behind the answers of the rule. Callbacks of the library come on threads of its own.
#include "broker/NatsBroker.h"

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <utility>

#include "base/Mutex.h"
#include "base/TrustedRead.h"
#include "broker/ServerInfo.h"
#include "rule/FleetNames.h"

namespace fleet {
namespace {

constexpr size_t kMostAuthorityBytes = 1 << 20;
// A frozen broker is noticed after so long twice; the library's own two minutes would be without events for as long.
constexpr int64_t kPingMs = 5000;
constexpr int kMostPings = 2;
constexpr int kLeastBuffer = 32 << 10;  // what waits for a connection waits in the spool
// Why there is no connection, the library does not say of attempts in the background: it is asked this often at most.
constexpr std::chrono::seconds kProbePeriod{5};
constexpr std::chrono::milliseconds kGreetingPatience{2000};
constexpr char kIdHeader[] = "Nats-Msg-Id";
constexpr char kFirstHeader[] = "Zel-First";
// The stream takes no message of this length.
constexpr int kCodeMessageTooLong = 10054;

struct FreeOptions {
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
};
struct FreeMessage {
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};
struct FreeAck {
    void operator()(jsPubAck* ack) const { jsPubAck_Destroy(ack); }
};
using Options = std::unique_ptr<natsOptions, FreeOptions>;
using Message = std::unique_ptr<natsMsg, FreeMessage>;

base::Error ErrorOf(natsStatus status, const char* what) {
    const char* detail = nats_GetLastError(nullptr);
    return base::SentenceError(std::string(what) + ": " + (detail != nullptr ? detail : natsStatus_GetText(status)));
}

Answer::Outcome OutcomeOf(natsStatus status, int code) {
    if (code == kCodeMessageTooLong) return Answer::Outcome::kTooLarge;
    switch (status) {
        case NATS_OK: return Answer::Outcome::kOk;
        case NATS_TIMEOUT: return Answer::Outcome::kTimeout;
        case NATS_NO_RESPONDERS: return Answer::Outcome::kNoResponders;
        case NATS_NOT_FOUND: return Answer::Outcome::kNotFound;
        case NATS_MAX_PAYLOAD: return Answer::Outcome::kTooLarge;
        case NATS_CONNECTION_CLOSED:
        case NATS_CONNECTION_DISCONNECTED:
        case NATS_NO_SERVER:
        case NATS_STALE_CONNECTION:
        case NATS_IO_ERROR: return Answer::Outcome::kDisconnected;
        default: return Answer::Outcome::kError;
    }
}

}  // namespace

uint64_t SequenceInText(const std::string& text) {
    constexpr char kWords[] = "wrong last sequence: ";
    const size_t at = text.find(kWords);
    if (at == std::string::npos) return 0;
    uint64_t sequence = 0;
    for (size_t i = at + sizeof(kWords) - 1; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        sequence = sequence * 10 + static_cast<uint64_t>(text[i] - '0');
    }
    return sequence;
}

struct NatsBroker::Impl {
    /// What the library's callbacks touch. They may come after a connection is closed, so it lives until the last one.
    struct Heard {
        std::atomic<uint64_t> connections{0};
        std::atomic<uint64_t> refusals{0};        // of a right
        std::atomic<bool> answersRefused{false};  // on this connection: no answer can come
        base::Mutex lock;
        std::string refused ZEL_GUARDED_BY(lock);  // the broker's words

        void NoteRefusal(natsConnection* of) {
            const char* words = nullptr;
            natsConnection_GetLastError(of, &words);
            base::MutexLock held(lock);
            refused = words != nullptr ? words : "";
            // The subscription that answers come by is made once: without it every request ends in silence.
            if (refused.find("ubscription") != std::string::npos) answersRefused = true;
            ++refusals;
        }
    };
    using Share = std::shared_ptr<Heard>;

    static Heard& Of(void* share) { return **static_cast<Share*>(share); }
    static void OnConnected(natsConnection*, void* share) { ++Of(share).connections; }
    static void OnDisconnected(natsConnection*, void* share) { Of(share).answersRefused = false; }
    static void OnError(natsConnection* connection, natsSubscription*, natsStatus status, void* share) {
        if (status == NATS_NOT_PERMITTED) Of(share).NoteRefusal(connection);
    }
    // The last one.
    static void OnClosed(natsConnection*, void* share) { delete static_cast<Share*>(share); }

    BrokerOptions options;
    Share heard = std::make_shared<Heard>();
    natsConnection* connection = nullptr;
    jsCtx* stream = nullptr;
    base::Mutex probeLock;
    std::string probed ZEL_GUARDED_BY(probeLock);  // why the last attempt failed
    std::chrono::steady_clock::time_point probeDue ZEL_GUARDED_BY(probeLock);
    base::Mutex judgeLock;
    std::optional<uint64_t> judged ZEL_GUARDED_BY(judgeLock);  // which connection
    base::Status verdict ZEL_GUARDED_BY(judgeLock);

    ~Impl() {
        jsCtx_Destroy(stream);
        natsConnection_Destroy(connection);
    }

    /// What every attempt to connect has.
    base::Result<Options> MakeOptions() const;
    base::Status SetAuthorities(natsOptions* made) const;
    /// Has the library go on trying, and call back.
    static natsStatus TryForEver(natsOptions* made, int64_t waitMs, Share* share);
    base::Status Connect();
    std::string Probe();
    Answer AnswerOf(natsStatus status, int code, uint64_t refusalsBefore);
    Answer NotConnected();
    base::Status JudgeConnected() const;
};

base::Status NatsBroker::Impl::SetAuthorities(natsOptions* made) const {
    if (options.caFile.empty()) return {};
    const auto text = base::ReadTrusted(options.caFile, kMostAuthorityBytes, base::TrustScope::kWithPlace);
    if (!text) {
        return base::SentenceError("the authorities of " + options.caFile +
                                   " are not used: " + base::ReasonOf(text.GetError(), options.caFile));
    }
    natsStatus status = natsOptions_SetSecure(made, true);
    if (status == NATS_OK) status = natsOptions_SetCATrustedCertificates(made, text->c_str());
    if (status != NATS_OK) return ErrorOf(status, "the broker's authorities");
    return {};
}

base::Result<Options> NatsBroker::Impl::MakeOptions() const {
    natsOptions* made = nullptr;
    natsStatus status = natsOptions_Create(&made);
    if (status != NATS_OK) return ErrorOf(status, "the broker's client");
    Options owned(made);
    std::vector<const char*> servers;
    for (const std::string& server : options.servers) servers.push_back(server.c_str());
    const std::string inbox = "_INBOX." + EscapeName(options.host);
    const auto then = [&](natsStatus next) { status = status == NATS_OK ? next : status; };
    then(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())));
    then(natsOptions_SetName(made, options.host.c_str()));
    then(natsOptions_SetCustomInboxPrefix(made, inbox.c_str()));
    then(natsOptions_SetPingInterval(made, kPingMs));
    then(natsOptions_SetMaxPingsOut(made, kMostPings));
    then(natsOptions_SetReconnectBufSize(made, kLeastBuffer));
    then(natsOptions_SetFailRequestsOnDisconnect(made, true));
    then(natsOptions_SetAllowReconnect(made, false));
    if (status != NATS_OK) return ErrorOf(status, "the broker's client");
    const base::Status authorities = SetAuthorities(made);
    if (!authorities) return authorities.GetError();
    return owned;
}

natsStatus NatsBroker::Impl::TryForEver(natsOptions* made, int64_t waitMs, Share* share) {
    natsStatus status = NATS_OK;
    const auto then = [&](natsStatus next) { status = status == NATS_OK ? next : status; };
    then(natsOptions_SetAllowReconnect(made, true));
    then(natsOptions_SetMaxReconnect(made, -1));
    then(natsOptions_SetReconnectWait(made, waitMs));
    then(natsOptions_SetReconnectJitter(made, waitMs, waitMs));
    then(natsOptions_SetRetryOnFailedConnect(made, true, OnConnected, share));
    then(natsOptions_SetReconnectedCB(made, OnConnected, share));
    then(natsOptions_SetDisconnectedCB(made, OnDisconnected, share));
    then(natsOptions_SetErrorHandler(made, OnError, share));
    then(natsOptions_SetClosedCB(made, OnClosed, share));
    return status;
}

base::Status NatsBroker::Impl::Connect() {
    const auto made = MakeOptions();
    if (!made) return made.GetError();
    auto share = std::make_unique<Share>(heard);
    natsStatus status = TryForEver(made->get(), options.reconnectMs, share.get());
    if (status == NATS_OK) status = natsConnection_Connect(&connection, made->get());
    if (status == NATS_OK) ++heard->connections;
    if (connection != nullptr) static_cast<void>(share.release());  // of the callbacks from now on
    if (status != NATS_OK && status != NATS_NOT_YET_CONNECTED) return ErrorOf(status, "the broker");
    jsOptions defaults;
    status = jsOptions_Init(&defaults);
    defaults.Wait = options.requestMs;
    if (status == NATS_OK) status = natsConnection_JetStream(&stream, connection, &defaults);
    if (status != NATS_OK) return ErrorOf(status, "the broker's streams");
    return {};
}

std::string NatsBroker::Impl::Probe() {
    const auto made = MakeOptions();
    if (!made) return made.GetError().Text();
    natsConnection* one = nullptr;
    const natsStatus status = natsConnection_Connect(&one, made->get());
    natsConnection_Destroy(one);
    if (status == NATS_OK) return "it is being made";
    const char* detail = nats_GetLastError(nullptr);
    return detail != nullptr && *detail != '\0' ? detail : natsStatus_GetText(status);
}

NatsBroker::NatsBroker(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

NatsBroker::~NatsBroker() = default;

base::Result<std::unique_ptr<NatsBroker>> NatsBroker::Open(const BrokerOptions& options) {
    if (options.servers.empty() || options.host.empty()) {
        return base::SentenceError("a broker needs an address, and this host a name", base::ErrorKind::kInvalidValue);
    }
    auto impl = std::make_unique<Impl>();
    impl->options = options;
    const base::Status status = impl->Connect();
    if (!status) return status.GetError();
    return std::unique_ptr<NatsBroker>(new NatsBroker(std::move(impl)));
}

base::Status NatsBroker::Impl::JudgeConnected() const {
    char url[512] = "";
    const natsStatus status = natsConnection_GetConnectedUrl(connection, url, sizeof(url));
    if (status != NATS_OK) return base::SentenceError("the connection to the broker is gone again");
    const auto info = ReadServerInfo(PlaceOf(url), kGreetingPatience);
    if (!info) return info.GetError();
    return JudgeServer(*info);
}

base::Status NatsBroker::Judge() {
    if (!IsConnected()) return base::SentenceError(m_impl->NotConnected().text);
    base::MutexLock held(m_impl->judgeLock);
    const uint64_t connection = m_impl->heard->connections;
    if (m_impl->judged == connection) return m_impl->verdict;
    m_impl->verdict = m_impl->JudgeConnected();
    // One that has not said what it is is asked again.
    const bool isSaid = m_impl->verdict.Ok() || m_impl->verdict.GetError().kind == base::ErrorKind::kRefused;
    m_impl->judged.reset();
    if (isSaid) m_impl->judged = connection;
    return m_impl->verdict;
}

bool NatsBroker::IsConnected() const {
    return natsConnection_Status(m_impl->connection) == NATS_CONN_STATUS_CONNECTED;
}

uint64_t NatsBroker::Connections() const {
    return m_impl->heard->connections;
}

const std::string& NatsBroker::Host() const {
    return m_impl->options.host;
}

Answer NatsBroker::Impl::NotConnected() {
    Answer answer;
    answer.outcome = Answer::Outcome::kDisconnected;
    base::MutexLock held(probeLock);
    const auto now = std::chrono::steady_clock::now();
    if (now >= probeDue) {
        probed = Probe();
        probeDue = std::chrono::steady_clock::now() + kProbePeriod;
    }
    answer.text = probed;
    return answer;
}

Answer NatsBroker::Impl::AnswerOf(natsStatus status, int code, uint64_t refusalsBefore) {
    Answer answer;
    answer.outcome = OutcomeOf(status, code);
    answer.code = code;
    if (status == NATS_OK) return answer;
    const char* detail = nats_GetLastError(nullptr);
    answer.text = detail != nullptr && *detail != '\0' ? detail : natsStatus_GetText(status);
    if (code == kCodeWrongSequence) answer.sequence = SequenceInText(answer.text);
    if (status != NATS_TIMEOUT) return answer;
    answer.text = natsStatus_GetText(status);
    if (heard->refusals == refusalsBefore && !heard->answersRefused) return answer;
    answer.notPermitted = true;
    base::MutexLock held(heard->lock);
    answer.text = heard->refused;
    return answer;
}

Answer NatsBroker::Publish(const BrokerMessage& message) {
    if (!IsConnected()) return m_impl->NotConnected();
    const uint64_t refusals = m_impl->heard->refusals;
    natsMsg* made = nullptr;
    natsStatus status = natsMsg_Create(&made, message.subject.c_str(), nullptr, message.payload->data(),
                                       static_cast<int>(message.payload->size()));
    Message owned(made);
    if (status == NATS_OK) status = natsMsgHeader_Set(made, kFirstHeader, std::to_string(message.first).c_str());
    jsPubOptions options;
    if (status == NATS_OK) status = jsPubOptions_Init(&options);
    if (status != NATS_OK) return m_impl->AnswerOf(status, 0, refusals);
    options.MaxWait = m_impl->options.requestMs;
    options.MsgId = message.id.c_str();
    options.ExpectStream = m_impl->options.stream.c_str();
    options.ExpectLastSubjectSeq = message.expected;
    options.ExpectNoMessage = message.expected == 0;
    jsPubAck* got = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    status = js_PublishMsg(&got, m_impl->stream, made, &options, &code);
    const std::unique_ptr<jsPubAck, FreeAck> ack(got);
    Answer answer = m_impl->AnswerOf(status, static_cast<int>(code), refusals);
    if (status != NATS_OK) return answer;
    answer.sequence = ack->Sequence;
    answer.duplicate = ack->Duplicate;
    return answer;
}

Answer NatsBroker::ReadLast(const std::string& subject) {
    if (!IsConnected()) return m_impl->NotConnected();
    const uint64_t refusals = m_impl->heard->refusals;
    jsDirectGetMsgOptions which;
    natsStatus status = jsDirectGetMsgOptions_Init(&which);
    which.LastBySubject = subject.c_str();
    natsMsg* got = nullptr;
    if (status == NATS_OK) {
        status = js_DirectGetMsg(&got, m_impl->stream, m_impl->options.stream.c_str(), nullptr, &which);
    }
    const Message owned(got);
    Answer answer = m_impl->AnswerOf(status, 0, refusals);
    if (status != NATS_OK) return answer;
    answer.sequence = natsMsg_GetSequence(got);
    const char* text = nullptr;
    if (natsMsgHeader_Get(got, kIdHeader, &text) != NATS_OK || text == nullptr) return answer;
    const auto id = ParseMessageId(m_impl->options.host, text);
    if (!id) return answer;
    answer.spool = id->spool;
    answer.number = id->number;
    return answer;
}

}  // namespace fleet
