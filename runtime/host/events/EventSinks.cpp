// Where messages of the spool end.
#include "events/EventSinks.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "HttpService.h"
#include "platform/zel/LogMessage.h"

namespace zelhost {
namespace {

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

void AppendQuoted(std::string& out, const std::string& text) {
    out += '"';
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        const size_t length = Utf8Length(text, i);
        if (length == 0) {
            out += "\\ufffd";
            ++i;
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
            ++i;
        } else if (c == '\n') {
            out += "\\n";
            ++i;
        } else if (c == '\t') {
            out += "\\t";
            ++i;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(c));
            out += escape;
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    out += '"';
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

// --- JSON lines ---

CJsonLinesSink::CJsonLinesSink(std::string path, uint64_t maxBytes, unsigned int keep, std::string process)
    : m_path(std::move(path)), m_maxBytes(maxBytes), m_keep(keep), m_process(std::move(process)) {}

bool CJsonLinesSink::OpenFile(std::string& reason) {
    struct stat st {};
    // Somebody may have moved or removed the file under us (a log rotator): what counts is the name.
    if (m_fd && lstat(m_path.c_str(), &st) == 0 && st.st_ino == m_inode) return true;
    m_fd.Reset();
    if (!MakeDirectories(DirectoryOf(m_path), reason)) return false;
    m_fd.Reset(open(m_path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0640));
    if (!m_fd || fstat(m_fd.Get(), &st) != 0) {
        reason = "cannot open " + m_path + ": " + base::ErrnoText(errno);
        m_fd.Reset();
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        reason = m_path + " is not a regular file";
        m_fd.Reset();
        return false;
    }
    m_inode = st.st_ino;
    m_size = static_cast<uint64_t>(st.st_size);
    return CutTornLine(reason);
}

bool CJsonLinesSink::CutTornLine(std::string& reason) {
    uint64_t keep = m_size;
    char buffer[4096];
    while (keep > 0) {
        const uint64_t from = keep > sizeof(buffer) ? keep - sizeof(buffer) : 0;
        const ssize_t got = pread(m_fd.Get(), buffer, static_cast<size_t>(keep - from), static_cast<off_t>(from));
        if (got <= 0) break;
        const void* end = memrchr(buffer, '\n', static_cast<size_t>(got));
        if (end != nullptr) {
            keep = from + static_cast<uint64_t>(static_cast<const char*>(end) - buffer) + 1;
            break;
        }
        keep = from;
    }
    if (keep == m_size) return true;
    if (ftruncate(m_fd.Get(), static_cast<off_t>(keep)) != 0) {
        reason = "cannot cut " + m_path + ": " + base::ErrnoText(errno);
        return false;
    }
    m_size = keep;
    return true;
}

void CJsonLinesSink::Rotate() {
    m_fd.Reset();
    if (m_keep == 0) {
        unlink(m_path.c_str());
        return;
    }
    for (unsigned int i = m_keep; i > 1; --i) {
        std::rename((m_path + "." + std::to_string(i - 1)).c_str(), (m_path + "." + std::to_string(i)).c_str());
    }
    std::rename(m_path.c_str(), (m_path + ".1").c_str());
}

size_t CJsonLinesSink::Deliver(const std::vector<SpoolMessage>& messages, std::string& reason) {
    size_t safe = 0;
    for (size_t next = 0; next < messages.size();) {
        if (!OpenFile(reason)) return safe;
        if (m_size > 0 && m_size >= m_maxBytes) {
            Rotate();
            continue;
        }
        std::string text;
        while (next < messages.size() && m_size + text.size() < m_maxBytes) {
            text += MessageJson(messages[next++], m_process) + "\n";
        }
        if (text.empty()) text = MessageJson(messages[next++], m_process) + "\n";
        const bool written = WriteAll(m_fd.Get(), text.data(), text.size()) && fdatasync(m_fd.Get()) == 0;
        if (!written) {
            reason = "cannot write " + m_path + ": " + base::ErrnoText(errno);
            // What got in is taken back: the same messages come again.
            if (ftruncate(m_fd.Get(), static_cast<off_t>(m_size)) != 0) m_fd.Reset();
            return safe;
        }
        m_size += text.size();
        safe = next;
    }
    return safe;
}

// --- syslog ---

CSyslogSink::CSyslogSink(std::string process) : m_process(std::move(process)) {}
CSyslogSink::~CSyslogSink() = default;

bool CSyslogSink::Connect(std::string& reason) {
    if (m_socket) return true;
    // syslog(3) itself cannot tell that nobody listens, and openlog belongs to the host: so the socket directly.
    base::Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    timeval limit{2, 0};
    if (!fd || setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0 ||
        connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        reason = "no syslog daemon at /dev/log: " + base::ErrnoText(errno);
        return false;
    }
    m_socket = std::move(fd);
    return true;
}

size_t CSyslogSink::Deliver(const std::vector<SpoolMessage>& messages, std::string& reason) {
    // RFC 3164 asks for lines that daemons take whole; the journal and rsyslog take 8 KiB.
    constexpr size_t kMostBytes = 8000;
    for (size_t i = 0; i < messages.size(); ++i) {
        if (!Connect(reason)) return i;
        const SpoolMessage& m = messages[i];
        std::string line = "<" + std::to_string(LOG_DAEMON | LOG_WARNING) + ">" + m_process + "[" +
                           std::to_string(getpid()) + "]: " + m.id + " " + m.type + " " + OneLine(m.body);
        if (line.size() > kMostBytes) line.resize(kMostBytes);
        if (send(m_socket.Get(), line.data(), line.size(), MSG_NOSIGNAL) < 0) {
            reason = "syslog: " + base::ErrnoText(errno);
            m_socket.Reset();
            return i;
        }
    }
    return messages.size();
}

// --- HTTP ---

CHttpSink::CHttpSink(const DeliveryOptions& options, std::string process)
    : m_options(options), m_process(std::move(process)) {}

size_t CHttpSink::Deliver(const std::vector<SpoolMessage>& messages, std::string& reason) {
    for (size_t i = 0; i < messages.size(); ++i) {
        const SpoolMessage& message = messages[i];
        HttpRequest request;
        request.url = m_options.httpUrl;
        request.body = MessageJson(message, m_process) + "\n";
        request.caFile = m_options.httpCaFile;
        request.verifyTls = m_options.httpVerifyTls;
        request.timeoutMs = m_options.httpTimeoutMs;
        request.headers.push_back("Idempotency-Key: " + message.id);
        if (!m_options.httpHeader.empty()) request.headers.push_back(m_options.httpHeader);
        const HttpResult result = CHttpService::Instance().Post(request);
        if (result.ok) continue;
        const bool refused =
            result.status == 400 || result.status == 413 || result.status == 415 || result.status == 422;
        if (refused) {
            m_refusals = m_refusedSeq == message.seq ? m_refusals + 1 : 1;
            m_refusedSeq = message.seq;
        }
        if (refused && m_refusals >= kMostRefusals) {
            zel::CLogMessage::GetInstance()->log(zel::kLogError, "EventSinks", __LINE__,
                                                 "message %s is given up: %s refuses it with %ld", message.id.c_str(),
                                                 m_options.httpUrl.c_str(), result.status);
            continue;
        }
        reason = m_options.httpUrl + ": " + result.error;
        return i;
    }
    return messages.size();
}

}  // namespace zelhost
