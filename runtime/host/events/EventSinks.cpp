// Where messages of the spool end.
#include "events/EventSinks.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/Fd.h"
#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/FileReplace.h"
#include "base/MakeDirectories.h"
#include "base/TrustedRead.h"
#include "platform/zel/LogMessage.h"

namespace zelhost {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr size_t kQuotes = 2;       // around a text
constexpr size_t kMostDigits = 20;  // of a count

base::Error Stopping() {
    return base::SentenceError("the process stops");
}

/// Length of the UTF-8 sequence at `at`, 0 when it is none.
size_t Utf8Length(const std::string& text, size_t at) {
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const unsigned int first = byte(at);
    const auto follows = [&](size_t i) { return (byte(i) & 0xc0) == 0x80; };
    if (first < 0x80) return 1;
    if (first >= 0xc2 && first <= 0xdf) return follows(at + 1) ? 2 : 0;
    if (first >= 0xe0 && first <= 0xef) {
        const unsigned int second = byte(at + 1);
        if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f)) return 0;
        return follows(at + 1) && follows(at + 2) ? 3 : 0;
    }
    if (first >= 0xf0 && first <= 0xf4) {
        const unsigned int second = byte(at + 1);
        if ((first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f)) return 0;
        return follows(at + 1) && follows(at + 2) && follows(at + 3) ? 4 : 0;
    }
    return 0;
}

/// Appends the character at `at` as it stands between quotes. Returns: how many bytes of the text it is.
size_t AppendEscaped(std::string& out, const std::string& text, size_t at) {
    const char c = text[at];
    const size_t length = Utf8Length(text, at);
    if (length == 0) {
        out += "\\ufffd";
        return 1;
    }
    if (c == '"' || c == '\\') {
        out += '\\';
        out += c;
    } else if (c == '\n') {
        out += "\\n";
    } else if (c == '\t') {
        out += "\\t";
    } else if (static_cast<unsigned char>(c) < 0x20) {
        char escape[8];
        std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(c));
        out += escape;
    } else {
        out.append(text, at, length);
    }
    return length;
}

/// Appends what of the text fits between quotes in `most` bytes. Returns: how many bytes of it are left out.
size_t AppendQuoted(std::string& out, const std::string& text, size_t most = SIZE_MAX) {
    const size_t begin = out.size();
    out += '"';
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = out.size();
        const size_t length = AppendEscaped(out, text, at);
        if (out.size() - begin >= most) {  // the closing quote has no room any more
            out.resize(end);
            break;
        }
        at += length;
    }
    out += '"';
    return text.size() - at;
}

std::string OneLine(const std::string& text) {
    std::string out;
    for (char c : text) {
        const bool blank = c == ' ' || static_cast<unsigned char>(c) < 0x20;
        if (blank && (out.empty() || out.back() == ' ')) continue;
        out += blank ? ' ' : c;
    }
    return out;
}

}  // namespace

std::string MessageJson(const SpoolMessage& message, const std::string& process) {
    std::string out = "{\"id\":";
    AppendQuoted(out, message.id);
    out += ",\"time\":" + std::to_string(message.time) + ",\"process\":";
    AppendQuoted(out, process);
    out += ",\"type\":";
    AppendQuoted(out, message.type);
    out += ",\"body\":";
    AppendQuoted(out, message.body);
    out += ",\"extra\":";
    AppendQuoted(out, message.extra);
    out += ",\"arg1\":" + std::to_string(message.arg1) + ",\"arg2\":" + std::to_string(message.arg2) + "}";
    return out;
}

std::string MessageJsonWithin(const SpoolMessage& message, const std::string& process, size_t most) {
    std::string whole = MessageJson(message, process);
    if (whole.size() <= most) return whole;
    SpoolMessage cut = message;
    cut.body.clear();
    cut.extra.clear();
    const std::string mark = ",\"cut\":";
    const size_t frame = MessageJson(cut, process).size() + mark.size() + kMostDigits;
    const size_t room = most > frame ? most - frame : 0;
    std::string body, extra;
    size_t missing = AppendQuoted(body, message.body, room + kQuotes);
    cut.body = message.body.substr(0, message.body.size() - missing);
    const size_t missingExtra = AppendQuoted(extra, message.extra, room + kQuotes - (body.size() - kQuotes));
    cut.extra = message.extra.substr(0, message.extra.size() - missingExtra);
    missing += missingExtra;
    whole = MessageJson(cut, process);
    whole.insert(whole.size() - 1, mark + std::to_string(missing));
    return whole;
}

// --- JSON lines ---

CJsonLinesSink::CJsonLinesSink(std::string path, uint64_t maxBytes, unsigned int keep, std::string process)
    : m_path(std::move(path)), m_maxBytes(maxBytes), m_keep(keep), m_process(std::move(process)) {}

base::Status CJsonLinesSink::OpenFile() {
    struct stat st {};
    // Somebody may have moved or removed the file under us (a log rotator): what counts is the name.
    if (m_fd && lstat(m_path.c_str(), &st) == 0 && st.st_dev == m_device && st.st_ino == m_inode) return {};
    m_fd.Reset();
    const base::Status made = base::MakeDirectories(base::DirectoryOf(m_path));
    if (!made) return made;
    const base::Result<base::Fd> place = base::OpenNamedDirectory(base::DirectoryOf(m_path));
    if (!place) return place.GetError();
    base::Result<base::Fd> fd = base::OpenForAppending(place->Get(), base::FileNameOf(m_path), kFileMode);
    if (!fd) {
        base::Error error = fd.GetError();
        error.path = m_path;
        return error;
    }
    if (fstat(fd->Get(), &st) != 0) return base::ErrnoError(errno, "open", m_path);
    if (st.st_size == 0) {
        // A name that is gone with the power takes every line behind it along, and they were confirmed.
        const base::Status named = base::SyncNames(*place, base::DirectoryOf(m_path));
        if (!named) return named;
    }
    m_fd = std::move(*fd);
    m_device = st.st_dev;
    m_inode = st.st_ino;
    m_size = static_cast<uint64_t>(st.st_size);
    const base::Status cut = CutTornLine();
    if (!cut) m_fd.Reset();  // nothing is written behind half a line: the next opening looks again
    return cut;
}

base::Status CJsonLinesSink::CutTornLine() {
    uint64_t keep = m_size;
    char buffer[4096];
    while (keep > 0) {
        const uint64_t from = keep > sizeof(buffer) ? keep - sizeof(buffer) : 0;
        const ssize_t got = base::RetryOnSignal(
            [&] { return pread(m_fd.Get(), buffer, static_cast<size_t>(keep - from), static_cast<off_t>(from)); });
        if (got <= 0) return base::ErrnoError(got < 0 ? errno : EIO, "read", m_path);  // 0: somebody has cut it since
        const void* end = memrchr(buffer, '\n', static_cast<size_t>(got));
        if (end != nullptr) {
            keep = from + static_cast<uint64_t>(static_cast<const char*>(end) - buffer) + 1;
            break;
        }
        keep = from;
    }
    if (keep == m_size) return {};
    if (ftruncate(m_fd.Get(), static_cast<off_t>(keep)) != 0) return base::ErrnoError(errno, "cut", m_path);
    m_size = keep;
    return {};
}

base::Status CJsonLinesSink::Rotate() {
    m_fd.Reset();
    if (m_keep == 0) return base::RemoveFile(m_path);
    for (unsigned int i = m_keep; i > 1; --i) {
        // Ignoring a generation that is not there, or cannot make room: the younger one takes its place then.
        static_cast<void>(base::RenameFile(m_path + "." + std::to_string(i - 1), m_path + "." + std::to_string(i)));
    }
    return base::RenameFile(m_path, m_path + ".1");
}

base::Status CJsonLinesSink::Write(const std::string& text) {
    base::Status written = base::WriteAll(m_fd, text, m_path);
    if (written && fdatasync(m_fd.Get()) != 0) written = base::ErrnoError(errno, "write", m_path);
    if (written) {
        m_size += text.size();
    } else if (ftruncate(m_fd.Get(), static_cast<off_t>(m_size)) != 0) {
        // What got in could not be taken back, and the same messages come again: opening cuts off a torn line.
        m_fd.Reset();
    }
    return written;
}

Handover CJsonLinesSink::Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) {
    size_t safe = 0;
    for (size_t next = 0; next < messages.size();) {
        if (stop) return {safe, Stopping()};
        const base::Status opened = OpenFile();
        if (!opened) return {safe, opened};
        if (m_size > 0 && m_size >= m_maxBytes) {
            const base::Status rotated = Rotate();
            if (!rotated) return {safe, rotated};
            continue;
        }
        std::string text;
        while (next < messages.size() && m_size + text.size() < m_maxBytes) {
            text += MessageJson(messages[next++], m_process) + "\n";
        }
        if (text.empty()) text = MessageJson(messages[next++], m_process) + "\n";
        const base::Status written = Write(text);
        if (!written) return {safe, written};
        safe = next;
    }
    return {safe, {}};
}

// --- syslog ---

CSyslogSink::CSyslogSink(std::string process) : m_process(std::move(process)) {}
CSyslogSink::~CSyslogSink() = default;

base::Status CSyslogSink::Connect() {
    if (m_socket) return {};
    // syslog(3) itself cannot tell that nobody listens, and openlog belongs to the host: so the socket directly.
    base::Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    timeval limit{1, 0};  // as long as a stop may wait for a delivery
    if (!fd || setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0 ||
        connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return base::SentenceError("no syslog daemon at /dev/log: " + base::ErrnoText(errno));
    }
    m_socket = std::move(fd);
    return {};
}

base::Status CSyslogSink::Send(const SpoolMessage& message) {
    // RFC 3164 asks for lines that daemons take whole; the journal and rsyslog take 8 KiB.
    constexpr size_t kMostBytes = 8000;
    const base::Status connected = Connect();
    if (!connected) return connected;
    std::string line = "<" + std::to_string(LOG_DAEMON | LOG_WARNING) + ">" + m_process + "[" +
                       std::to_string(getpid()) + "]: " + message.id + " " + OneLine(message.type) + " " +
                       OneLine(message.body);
    if (line.size() > kMostBytes) line.resize(kMostBytes);
    if (send(m_socket.Get(), line.data(), line.size(), MSG_NOSIGNAL) >= 0) return {};
    const int error = errno;
    m_socket.Reset();
    return base::SentenceError("syslog: " + base::ErrnoText(error));
}

Handover CSyslogSink::Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) {
    for (size_t i = 0; i < messages.size(); ++i) {
        if (stop) return {i, Stopping()};
        const base::Status sent = Send(messages[i]);
        if (!sent) return {i, sent};
    }
    return {messages.size(), {}};
}

// --- HTTP ---

CHttpSink::CHttpSink(const DeliveryOptions& options, std::string process)
    : m_options(options), m_process(std::move(process)) {}

HttpResult CHttpSink::Post(const SpoolMessage& message, const std::atomic<bool>& stop) const {
    HttpRequest request;
    request.stop = &stop;
    request.url = m_options.httpUrl;
    request.body = MessageJson(message, m_process) + "\n";
    request.caFile = m_options.httpCaFile;
    request.verifyTls = m_options.httpVerifyTls;
    request.timeoutMs = m_options.httpTimeoutMs;
    request.headers.push_back("Idempotency-Key: " + message.id);
    if (!m_options.httpHeader.empty()) request.headers.push_back(m_options.httpHeader);
    return CHttpService::Instance().Post(request);
}

bool CHttpSink::IsHopeless(const SpoolMessage& message, const HttpResult& result) {
    const bool refused = result.status == 400 || result.status == 413 || result.status == 415 || result.status == 422;
    if (!refused) return false;
    m_refusals = m_refusedSeq == message.seq ? m_refusals + 1 : 1;
    m_refusedSeq = message.seq;
    return m_refusals >= kMostRefusals;
}

Handover CHttpSink::Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) {
    Handover handed;
    for (const SpoolMessage& message : messages) {
        if (stop) {
            handed.rest = Stopping();
            return handed;
        }
        const HttpResult result = Post(message, stop);
        if (!result.outcome && !IsHopeless(message, result)) {
            handed.rest = base::SentenceError(m_options.httpUrl + ": " + result.outcome.GetError().Text());
            return handed;
        }
        ++handed.safe;
        if (result.outcome) continue;
        ++handed.givenUp;
        zel::CLogMessage::GetInstance()->log(zel::kLogError, "EventSinks", __LINE__,
                                             "message %s is given up: %s refuses it with %ld", message.id.c_str(),
                                             m_options.httpUrl.c_str(), result.status);
    }
    return handed;
}

}  // namespace zelhost
