// The broker's client behind the answers of the rule. Callbacks of the library come on threads of its own.
#include "broker/NatsBroker.h"

#include <nats/nats.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <utility>

#include "base/Mutex.h"
#include "base/QuietThread.h"
#include "base/TrustedRead.h"
#include "broker/NatsTexts.h"
#include "broker/ServerInfo.h"
#include "broker/SilenceWatch.h"
#include "rule/FleetNames.h"

namespace fleet {
namespace {

constexpr size_t kMostAuthorityBytes = 1 << 20;
constexpr size_t kMostRefusedSubjects = 256;
constexpr char kDirectRead[] = "$JS.API.DIRECT.GET.";
constexpr char kLeaderRead[] = "$JS.API.STREAM.MSG.GET.";
// A frozen broker is noticed after so long twice; the library's own two minutes would be without events for as long.
constexpr int64_t kPingMs = 5000;
constexpr int kMostPings = 2;
constexpr int kLeastBuffer = 32 << 10;  // what waits for a connection waits in the spool
// Why there is no connection, the library does not say of attempts in the background: it is asked this often at most.
constexpr std::chrono::seconds kProbePeriod{5};
constexpr std::chrono::seconds kProbePatience{5};
// An attempt of that length was cut as silent: an address that does not answer at all the library leaves after two.
constexpr std::chrono::seconds kCutProbe{4};
constexpr std::chrono::milliseconds kGreetingPatience{2000};
// Of an attempt to connect: to all addresses, and to one of them.
constexpr int64_t kConnectMs = 16000;
constexpr int64_t kLeastConnectMs = 500;
constexpr int64_t kMostConnectMs = 2000;
constexpr char kBeingMade[] = "it is being made";
constexpr char kInbox[] = "_INBOX.";
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
struct FreeSubscription {
    void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
};
using Options = std::unique_ptr<natsOptions, FreeOptions>;
using Message = std::unique_ptr<natsMsg, FreeMessage>;
using Subscription = std::unique_ptr<natsSubscription, FreeSubscription>;

StoredMessage Take(natsMsg* message) {
    return {HeaderOf(message, kIdHeader), RemovalOf(message), PayloadOf(message), natsMsg_GetTime(message) / 1000000};
}

base::Error ErrorOf(natsStatus status, const char* what) {
    return base::SentenceError(std::string(what) + ": " + DetailOf(status));
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

/// A connection as the library has it. It may have given up; then another one takes its place.
struct NatsBroker::Link {
    Link() = default;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    ~Link() {
        bells.clear();
        jsCtx_Destroy(stream);
        natsConnection_Destroy(connection);
    }
    natsConnection* connection = nullptr;
    jsCtx* stream = nullptr;
    std::vector<Subscription> bells;
};

struct NatsBroker::Impl {
    /// How often a right was refused, and the broker's words for the last time.
    struct Refusals {
        uint64_t count = 0;
        std::string words;
    };
    /// What the library's callbacks touch. They may come after a connection is closed, so it lives until the last one.
    struct Heard {
        std::atomic<uint64_t> connections{0};
        SilenceWatch watch;
        base::Mutex lock;
        // By subject: what one process may not says nothing of another one's silence.
        std::map<std::string, Refusals> refused ZEL_GUARDED_BY(lock);
        std::string answersRefused ZEL_GUARDED_BY(lock);  // on this connection: no answer can come
        std::string bellRefused ZEL_GUARDED_BY(lock);     // on this connection
        std::function<void()> news ZEL_GUARDED_BY(lock);

        void NoteRefusal(natsConnection* of) {
            const char* said = nullptr;
            natsConnection_GetLastError(of, &said);
            const std::string words = said != nullptr ? said : "";
            base::MutexLock held(lock);
            if (words.find("ubscription") != std::string::npos) {
                // The one that answers come by is made once: without it every request ends in silence.
                (words.find(kInbox) != std::string::npos ? answersRefused : bellRefused) = words;
            }
            const size_t begin = words.find('"'), end = words.find('"', begin + 1);
            if (begin == std::string::npos || end == std::string::npos) return;
            if (refused.size() >= kMostRefusedSubjects) refused.clear();
            Refusals& its = refused[words.substr(begin + 1, end - begin - 1)];
            ++its.count;
            its.words = words;
        }
        void ForgetAnswers() {
            base::MutexLock held(lock);
            answersRefused.clear();
            bellRefused.clear();
        }
        void TellNews() {
            base::MutexLock held(lock);
            if (news) news();
        }
        uint64_t RefusalsOf(const std::string& subject) {
            base::MutexLock held(lock);
            const auto found = refused.find(subject);
            return found == refused.end() ? 0 : found->second.count;
        }
        /// Returns: the broker's words where it has refused the subject since, or any answer; empty: neither.
        std::string WordsOf(const std::string& subject, uint64_t before) {
            base::MutexLock held(lock);
            const auto found = refused.find(subject);
            return found != refused.end() && found->second.count > before ? found->second.words : answersRefused;
        }
    };
    using Share = std::shared_ptr<Heard>;

    /// Attempts to see why there is no connection. The thread of one may outlive the broker.
    struct Probing {
        base::Mutex lock;
        base::Condition ended;
        bool underWay ZEL_GUARDED_BY(lock) = false;
        bool isWell ZEL_GUARDED_BY(lock) = false;             // the last one succeeded
        std::string words ZEL_GUARDED_BY(lock) = kBeingMade;  // why it failed
        size_t next ZEL_GUARDED_BY(lock) = 0;                 // which address
        std::chrono::steady_clock::time_point due ZEL_GUARDED_BY(lock);

        void Note(bool well, const std::string& said) ZEL_REQUIRES(lock) {
            isWell = well;
            words = said;
            due = std::chrono::steady_clock::now() + kProbePeriod;
        }
    };

    static Heard& Of(void* share) { return **static_cast<Share*>(share); }
    static void OnConnected(natsConnection*, void* share) {
        ++Of(share).connections;
        Of(share).watch.SetConnected(true);
        Of(share).TellNews();
    }
    static void OnBell(natsConnection*, natsSubscription*, natsMsg* message, void* share) {
        natsMsg_Destroy(message);
        Of(share).TellNews();
    }
    // The last one of a subscription.
    static void OnBellGone(void* share) { delete static_cast<Share*>(share); }
    static void OnDisconnected(natsConnection*, void* share) {
        Of(share).watch.SetConnected(false);
        Of(share).ForgetAnswers();
    }
    static void OnError(natsConnection* connection, natsSubscription*, natsStatus status, void* share) {
        if (status == NATS_NOT_PERMITTED) Of(share).NoteRefusal(connection);
    }
    // The last one.
    static void OnClosed(natsConnection*, void* share) { delete static_cast<Share*>(share); }

    BrokerOptions options;
    Share heard = std::make_shared<Heard>();
    mutable base::Mutex linkLock;
    std::shared_ptr<Link> link ZEL_GUARDED_BY(linkLock);
    std::vector<std::string> bells ZEL_GUARDED_BY(linkLock);  // subjects
    base::Mutex askLock;  // of what may well be refused: of two refusals at once the library tells one
    const std::shared_ptr<Probing> probing = std::make_shared<Probing>();
    base::Mutex judgeLock;
    std::optional<uint64_t> judged ZEL_GUARDED_BY(judgeLock);  // which connection
    base::Status verdict ZEL_GUARDED_BY(judgeLock);

    /// A request keeps the one that it began with.
    std::shared_ptr<Link> Now() const {
        base::MutexLock held(linkLock);
        return link;
    }

    std::string InboxPrefix() const {
        return kInbox + (options.token.empty() ? EscapeName(options.host) : options.token);
    }
    /// What every attempt to connect has.
    base::Result<Options> MakeOptions(const std::vector<std::string>& servers) const;
    base::Status SetAuthorities(natsOptions* made) const;
    base::Status SetCredentials(natsOptions* made) const;
    /// Has the library go on trying, and call back.
    static natsStatus TryForEver(natsOptions* made, int64_t waitMs, Share* share);
    /// Makes the connection, or another one in its place. `first`: which address is tried first; empty: by chance.
    base::Status Connect(const std::string& first = "");
    /// Has the connection hear the subjects, now or as soon as there is one.
    natsStatus HearBells(Link& on, const std::vector<std::string>& subjects) const;
    base::Status Probe(const std::string& server) const;
    /// One attempt to see why there is none; where it succeeds and the library has given up, another one is made.
    std::string TryAgain();
    Answer AnswerOf(natsStatus status, int code, const std::string& subject, uint64_t refusalsBefore);
    Answer NotConnected();
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

// The library reads the file itself, with each connection: nobody else can change it, nor its place, once it is judged.
base::Status NatsBroker::Impl::SetCredentials(natsOptions* made) const {
    if (options.credsFile.empty()) return {};
    const std::string what = "the credentials of " + options.credsFile + " are not used: ";
    const base::Result<base::Fd> file = base::OpenTrusted(options.credsFile, base::TrustScope::kWithPlace);
    if (!file) return base::SentenceError(what + base::ReasonOf(file.GetError(), options.credsFile));
    struct stat info {};
    if (fstat(file->Get(), &info) != 0 || (info.st_mode & 077U) != 0) {
        return base::SentenceError(what + "others may read them: chmod 600", base::ErrorKind::kRefused);
    }
    const natsStatus status = natsOptions_SetUserCredentialsFromFiles(made, options.credsFile.c_str(), nullptr);
    if (status != NATS_OK) return ErrorOf(status, "the broker's credentials");
    return {};
}

base::Result<Options> NatsBroker::Impl::MakeOptions(const std::vector<std::string>& addresses) const {
    natsOptions* made = nullptr;
    natsStatus status = natsOptions_Create(&made);
    if (status != NATS_OK) return ErrorOf(status, "the broker's client");
    Options owned(made);
    std::vector<const char*> servers;
    servers.reserve(addresses.size());
    for (const std::string& server : addresses) servers.push_back(server.c_str());
    const std::string inbox = InboxPrefix();
    const auto then = [&](natsStatus next) { status = status == NATS_OK ? next : status; };
    then(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())));
    then(natsOptions_SetName(made, options.host.c_str()));
    then(natsOptions_SetCustomInboxPrefix(made, inbox.c_str()));
    then(natsOptions_SetTimeout(
        made, std::clamp(kConnectMs / static_cast<int64_t>(servers.size()), kLeastConnectMs, kMostConnectMs)));
    then(natsOptions_SetPingInterval(made, kPingMs));
    then(natsOptions_SetMaxPingsOut(made, kMostPings));
    then(natsOptions_SetReconnectBufSize(made, kLeastBuffer));
    then(natsOptions_SetFailRequestsOnDisconnect(made, true));
    then(natsOptions_UseGlobalMessageDelivery(made, true));  // one thread for all subjects
    then(natsOptions_SetAllowReconnect(made, false));
    if (status != NATS_OK) return ErrorOf(status, "the broker's client");
    const base::Status authorities = SetAuthorities(made);
    if (!authorities) return authorities.GetError();
    const base::Status credentials = SetCredentials(made);
    if (!credentials) return credentials.GetError();
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

base::Status NatsBroker::Impl::Connect(const std::string& first) {
    std::vector<std::string> servers = options.servers;
    const auto at = std::find(servers.begin(), servers.end(), first);
    if (at != servers.end()) std::rotate(servers.begin(), at, servers.end());
    const auto made = MakeOptions(servers);
    if (!made) return made.GetError();
    natsOptions_SetNoRandomize(made->get(), !first.empty());
    auto share = std::make_unique<Share>(heard);
    auto next = std::make_shared<Link>();
    natsStatus status = TryForEver(made->get(), options.reconnectMs, share.get());
    if (status == NATS_OK) status = natsConnection_Connect(&next->connection, made->get());
    if (status == NATS_OK) ++heard->connections;
    if (status == NATS_OK) heard->watch.SetConnected(true);
    // It may have been lost again, and told so, before that.
    if (status == NATS_OK && natsConnection_Status(next->connection) != NATS_CONN_STATUS_CONNECTED)
        heard->watch.SetConnected(false);
    if (next->connection != nullptr) static_cast<void>(share.release());  // of the callbacks from now on
    if (status != NATS_OK && status != NATS_NOT_YET_CONNECTED) return ErrorOf(status, "the broker");
    jsOptions defaults;
    status = jsOptions_Init(&defaults);
    defaults.Wait = options.requestMs;
    if (status == NATS_OK) status = natsConnection_JetStream(&next->stream, next->connection, &defaults);
    if (status != NATS_OK) return ErrorOf(status, "the broker's streams");
    {
        base::MutexLock held(linkLock);
        status = HearBells(*next, bells);
        if (status != NATS_OK) return ErrorOf(status, "what the broker is listened to for");
        link.swap(next);
    }
    heard->TellNews();
    return {};
}

natsStatus NatsBroker::Impl::HearBells(Link& on, const std::vector<std::string>& subjects) const {
    for (const std::string& subject : subjects) {
        auto share = std::make_unique<Share>(heard);
        natsSubscription* made = nullptr;
        natsStatus status = natsConnection_Subscribe(&made, on.connection, subject.c_str(), OnBell, share.get());
        if (status != NATS_OK) return status;
        on.bells.emplace_back(made);
        // Of the callbacks from now on; where the last one cannot be asked for, it stays.
        status = natsSubscription_SetOnCompleteCB(made, OnBellGone, share.release());
        // The library has given up between the two calls.
        if (status == NATS_INVALID_SUBSCRIPTION) return NATS_CONNECTION_CLOSED;
        if (status != NATS_OK) return status;
    }
    return NATS_OK;
}

base::Status NatsBroker::Impl::Probe(const std::string& server) const {
    const auto made = MakeOptions({server});
    if (!made) return made.GetError();
    natsConnection* one = nullptr;
    const natsStatus status = natsConnection_Connect(&one, made->get());
    natsConnection_Destroy(one);
    if (status == NATS_OK) return {};
    // Newer libraries wait themselves for what a broker says first, and call that the same as an address without
    // answer.
    if (status == NATS_TIMEOUT) return base::SentenceError(server + " does not answer in time");
    return base::SentenceError(DetailOf(status));
}

std::string NatsBroker::Impl::TryAgain() {
    const std::shared_ptr<Probing> own = probing;
    base::MutexLock held(own->lock);
    if (own->underWay || std::chrono::steady_clock::now() < own->due) return own->words;
    // One address at a time: whoever asks has a batch in hand, whose owner waits for a minute.
    const std::string server = options.servers[own->next++ % options.servers.size()];
    // A broker that greets and then says nothing is waited for until its connection is cut: not by this thread.
    const std::string silent = server + " takes the connection and does not answer";
    const auto probe = [own, server, silent, copied = options] {
        Impl one;
        one.options = copied;
        const auto begun = std::chrono::steady_clock::now();
        const base::Status status = one.Probe(server);
        const bool isLate = std::chrono::steady_clock::now() - begun >= kCutProbe;
        base::MutexLock done(own->lock);
        own->Note(status.Ok(), status ? kBeingMade : isLate ? silent : status.GetError().Text());
        own->underWay = false;
        own->ended.notify_all();
    };
    base::Result<std::thread> started = base::StartQuietThread("broker-probe", probe);
    if (!started) {
        own->Note(false, started.GetError().Text());
        return own->words;
    }
    started->detach();
    own->underWay = true;
    const auto due = std::chrono::steady_clock::now() + kProbePatience;
    while (own->underWay && std::chrono::steady_clock::now() < due) own->ended.wait_until(own->lock, due);
    if (own->underWay) own->Note(false, silent);
    // The library closes a connection for good that was refused twice in the same words.
    if (!own->isWell || !natsConnection_IsClosed(Now()->connection)) return own->words;
    heard->ForgetAnswers();
    own->underWay = true;  // whoever asks meanwhile has its answer at once
    held.unlock();
    base::Status status;
    try {
        status = Connect(server);
    } catch (const std::exception& error) {
        status = base::SentenceError(error.what());  // for want of memory: the next one tries again
    }
    held.lock();
    own->underWay = false;
    if (!status) own->Note(false, status.GetError().Text());
    return own->words;
}

NatsBroker::NatsBroker(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

NatsBroker::~NatsBroker() = default;

base::Result<std::unique_ptr<NatsBroker>> NatsBroker::Open(const BrokerOptions& options) {
    if (options.servers.empty() || options.host.empty()) {
        return base::SentenceError("a broker needs an address, and this host a name", base::ErrorKind::kInvalidValue);
    }
    auto impl = std::make_unique<Impl>();
    impl->options = options;
    const base::Status watches = impl->heard->watch.Start();
    if (!watches) return watches.GetError();
    const base::Status status = impl->Connect();
    if (!status) return status.GetError();
    return std::unique_ptr<NatsBroker>(new NatsBroker(std::move(impl)));
}

base::Result<ServerInfo> NatsBroker::Greeting() {
    char url[512] = "";
    const natsStatus status = natsConnection_GetConnectedUrl(m_impl->Now()->connection, url, sizeof(url));
    if (status != NATS_OK) return base::SentenceError("the connection to the broker is gone again");
    return ReadServerInfo(PlaceOf(url), kGreetingPatience);
}

std::string NatsBroker::WhyNot() {
    return m_impl->NotConnected().text;
}

base::Status NatsBroker::Judge() {
    if (!IsConnected()) return base::SentenceError(m_impl->NotConnected().text);
    base::MutexLock held(m_impl->judgeLock);
    const uint64_t connection = m_impl->heard->connections;
    if (m_impl->judged == connection) return m_impl->verdict;
    const auto said = Greeting();
    m_impl->verdict = said ? JudgeServer(*said) : base::Status(said.GetError());
    // One that has not said what it is is asked again.
    const bool isSaid = m_impl->verdict.Ok() || m_impl->verdict.GetError().kind == base::ErrorKind::kRefused;
    m_impl->judged.reset();
    if (isSaid) m_impl->judged = connection;
    return m_impl->verdict;
}

bool NatsBroker::IsConnected() const {
    return natsConnection_Status(m_impl->Now()->connection) == NATS_CONN_STATUS_CONNECTED;
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
    answer.text = TryAgain();
    return answer;
}

Answer NatsBroker::Impl::AnswerOf(natsStatus status, int code, const std::string& subject, uint64_t refusalsBefore) {
    Answer answer;
    answer.outcome = OutcomeOf(status, code);
    answer.code = code;
    if (status == NATS_OK) return answer;
    answer.text = DetailOf(status);
    if (code == kCodeWrongSequence) answer.sequence = SequenceInText(answer.text);
    if (status != NATS_TIMEOUT) return answer;
    const std::string refused = heard->WordsOf(subject, refusalsBefore);
    answer.notPermitted = !refused.empty();
    answer.text = answer.notPermitted ? refused : natsStatus_GetText(status);
    return answer;
}

Answer NatsBroker::Publish(const BrokerMessage& message) {
    if (!IsConnected()) return m_impl->NotConnected();
    const std::shared_ptr<Link> link = m_impl->Now();
    const uint64_t refusals = m_impl->heard->RefusalsOf(message.subject);
    natsMsg* made = nullptr;
    natsStatus status = natsMsg_Create(&made, message.subject.c_str(), nullptr, message.payload->data(),
                                       static_cast<int>(message.payload->size()));
    Message owned(made);
    if (status == NATS_OK) status = natsMsgHeader_Set(made, kFirstHeader, std::to_string(message.first).c_str());
    jsPubOptions options;
    if (status == NATS_OK) status = jsPubOptions_Init(&options);
    if (status != NATS_OK) return m_impl->AnswerOf(status, 0, message.subject, refusals);
    options.MaxWait = m_impl->options.requestMs;
    options.MsgId = message.id.c_str();
    options.ExpectStream = m_impl->options.stream.c_str();
    options.ExpectLastSubjectSeq = message.expected;
    options.ExpectNoMessage = message.expected == 0;
    jsPubAck* got = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    status = js_PublishMsg(&got, link->stream, made, &options, &code);
    const std::unique_ptr<jsPubAck, FreeAck> ack(got);
    Answer answer = m_impl->AnswerOf(status, static_cast<int>(code), message.subject, refusals);
    if (status != NATS_OK) return answer;
    answer.sequence = ack->Sequence;
    answer.duplicate = ack->Duplicate;
    return answer;
}

Answer NatsBroker::ReadLast(const std::string& subject) {
    StoredMessage message;
    Answer answer = Read(m_impl->options.stream, subject, message);
    if (answer.outcome != Answer::Outcome::kOk) return answer;
    const auto id = ParseMessageId(m_impl->options.host, message.id);
    if (!id) return answer;
    answer.spool = id->spool;
    answer.number = id->number;
    return answer;
}

Answer NatsBroker::Read(const std::string& stream, const std::string& subject, StoredMessage& message) {
    if (!IsConnected()) return m_impl->NotConnected();
    const std::shared_ptr<Link> link = m_impl->Now();
    const std::string asked = kDirectRead + stream + "." + subject;
    const uint64_t refusals = m_impl->heard->RefusalsOf(asked);
    jsDirectGetMsgOptions which;
    natsStatus status = jsDirectGetMsgOptions_Init(&which);
    which.LastBySubject = subject.c_str();
    natsMsg* got = nullptr;
    if (status == NATS_OK) status = js_DirectGetMsg(&got, link->stream, stream.c_str(), nullptr, &which);
    const Message owned(got);
    Answer answer = m_impl->AnswerOf(status, 0, asked, refusals);
    if (status != NATS_OK) return answer;
    answer.sequence = natsMsg_GetSequence(got);
    message = Take(got);
    return answer;
}

Answer NatsBroker::ReadNewest(const std::string& stream, const std::string& subject, StoredMessage& message) {
    if (!IsConnected()) return m_impl->NotConnected();
    const std::shared_ptr<Link> link = m_impl->Now();
    const std::string asked = kLeaderRead + stream;
    base::MutexLock oneAtATime(m_impl->askLock);
    const uint64_t refusals = m_impl->heard->RefusalsOf(asked);
    natsMsg* got = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_GetLastMsg(&got, link->stream, stream.c_str(), subject.c_str(), nullptr, &code);
    const Message owned(got);
    Answer answer = m_impl->AnswerOf(status, static_cast<int>(code), asked, refusals);
    if (status != NATS_OK) return answer;
    answer.sequence = natsMsg_GetSequence(got);
    message = Take(got);
    return answer;
}

Answer NatsBroker::Ask(const std::string& subject, const std::string& body, std::string& reply) {
    if (!IsConnected()) return m_impl->NotConnected();
    const std::shared_ptr<Link> link = m_impl->Now();
    base::MutexLock oneAtATime(m_impl->askLock);
    const uint64_t refusals = m_impl->heard->RefusalsOf(subject);
    natsMsg* got = nullptr;
    const natsStatus status = natsConnection_Request(&got, link->connection, subject.c_str(), body.data(),
                                                     static_cast<int>(body.size()), m_impl->options.requestMs);
    const Message owned(got);
    if (status == NATS_OK) reply = PayloadOf(got);
    return m_impl->AnswerOf(status, 0, subject, refusals);
}

std::unique_ptr<Inbox> NatsBroker::OpenInbox() {
    const std::shared_ptr<Link> link = m_impl->Now();
    natsInbox* made = nullptr;
    if (!IsConnected() || natsInbox_Create(&made) != NATS_OK) return nullptr;
    // The library's own name of a new place, below the only prefix that there is a right to.
    const std::string subject = m_impl->InboxPrefix() + (made + sizeof(kInbox) - 2);
    natsInbox_Destroy(made);
    natsSubscription* heard = nullptr;
    if (natsConnection_SubscribeSync(&heard, link->connection, subject.c_str()) != NATS_OK) return nullptr;
    return std::make_unique<Inbox>(link, link->connection, heard, subject);
}

Answer NatsBroker::Put(const PlainMessage& message) {
    if (!IsConnected()) return m_impl->NotConnected();
    const std::shared_ptr<Link> link = m_impl->Now();
    const uint64_t refusals = m_impl->heard->RefusalsOf(message.subject);
    natsMsg* made = nullptr;
    natsStatus status = natsMsg_Create(&made, message.subject.c_str(), nullptr, message.payload.data(),
                                       static_cast<int>(message.payload.size()));
    const Message owned(made);
    if (status == NATS_OK && !message.operation.empty()) {
        status = natsMsgHeader_Set(made, kOperationHeader, message.operation.c_str());
    }
    jsPubOptions options;
    if (status == NATS_OK) status = jsPubOptions_Init(&options);
    if (status != NATS_OK) return m_impl->AnswerOf(status, 0, message.subject, refusals);
    options.MaxWait = m_impl->options.requestMs;
    options.ExpectStream = message.stream.c_str();
    options.ExpectLastSubjectSeq = message.expected.value_or(0);
    options.ExpectNoMessage = message.expected == 0U;
    jsPubAck* got = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    status = js_PublishMsg(&got, link->stream, made, &options, &code);
    const std::unique_ptr<jsPubAck, FreeAck> ack(got);
    Answer answer = m_impl->AnswerOf(status, static_cast<int>(code), message.subject, refusals);
    if (status == NATS_OK) answer.sequence = ack->Sequence;
    return answer;
}

base::Status NatsBroker::Listen(const std::vector<std::string>& subjects, std::function<void()> news) {
    {
        base::MutexLock held(m_impl->heard->lock);
        m_impl->heard->news = std::move(news);
    }
    base::MutexLock held(m_impl->linkLock);
    m_impl->bells = subjects;
    m_impl->link->bells.clear();
    const natsStatus status = m_impl->HearBells(*m_impl->link, subjects);
    // Where the library has given up already the connection that is made in its place hears them.
    if (status == NATS_CONNECTION_CLOSED) return {};
    return status == NATS_OK ? base::Status() : ErrorOf(status, "what the broker is listened to for");
}

std::string NatsBroker::ListenRefused() const {
    base::MutexLock held(m_impl->heard->lock);
    return m_impl->heard->bellRefused;
}

}  // namespace fleet
