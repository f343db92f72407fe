// The host's HTTP service.
#include "events/HttpService.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "base/TrustedRead.h"
#include "platform/zel/LogMessage.h"

IHttp* GetHttpInstance() {
    return &zelhost::CHttpService::Instance();
}

namespace zelhost {
namespace {

constexpr unsigned int kRetryPauseMs = 200;
constexpr long kMostAnswerBytes = 64 * 1024;
constexpr size_t kMostAuthorityBytes = 4 * 1024 * 1024;  // a system's store has a quarter of one

/// The functions of libcurl that are used; null when the library is not installed.
struct Curl {
    decltype(&curl_global_init) globalInit = nullptr;
    decltype(&curl_easy_init) easyInit = nullptr;
    decltype(&::curl_easy_setopt) setopt = nullptr;
    decltype(&curl_easy_perform) perform = nullptr;
    decltype(&::curl_easy_getinfo) getinfo = nullptr;
    decltype(&curl_easy_cleanup) cleanup = nullptr;
    decltype(&curl_easy_strerror) strerror = nullptr;
    decltype(&curl_slist_append) append = nullptr;
    decltype(&curl_slist_free_all) freeAll = nullptr;
    base::Status usable;

    Curl() {
        void* library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            const char* reason = dlerror();
            usable = base::SentenceError(std::string("libcurl cannot be loaded (package libcurl4): ") +
                                         (reason != nullptr ? reason : ""));
            return;
        }
        const auto find = [&](auto& function, const char* name) {
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
            if (function == nullptr) usable = base::SentenceError(std::string("libcurl has no ") + name);
        };
        find(globalInit, "curl_global_init");
        find(easyInit, "curl_easy_init");
        find(setopt, "curl_easy_setopt");
        find(perform, "curl_easy_perform");
        find(getinfo, "curl_easy_getinfo");
        find(cleanup, "curl_easy_cleanup");
        find(strerror, "curl_easy_strerror");
        find(append, "curl_slist_append");
        find(freeAll, "curl_slist_free_all");
        if (usable && globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            usable = base::SentenceError("libcurl does not start");
        }
    }
};

const Curl& LoadedCurl() {
    static const Curl* curl = new Curl;  // never unloaded
    return *curl;
}

/// The answer's content is not wanted; a peer that sends without end is cut off.
size_t CountAnswer(char*, size_t size, size_t count, void* user) {
    long& total = *static_cast<long*>(user);
    total += static_cast<long>(size * count);
    return total > kMostAnswerBytes ? 0 : size * count;
}

bool IsStopped(const HttpRequest& request) {
    return request.stop != nullptr && *request.stop;
}

/// libcurl asks at least once a second, and ends the transfer for any answer but 0.
int AskToGoOn(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return IsStopped(*static_cast<const HttpRequest*>(user)) ? 1 : 0;
}

/// The text of the authorities that the request names, judged each time: whoever can write that file can pose as the
/// peer. Returns: an empty one where the system's store counts, or nobody's word is asked for.
base::Result<std::string> ReadAuthorities(const HttpRequest& request) {
    if (request.caFile.empty() || !request.verifyTls) return std::string();
    base::Result<std::string> text =
        base::ReadTrusted(request.caFile, kMostAuthorityBytes, base::TrustScope::kWithPlace);
    if (text && !text->empty()) return text;
    const std::string reason = text ? "it is empty" : base::ReasonOf(text.GetError(), request.caFile);
    return base::SentenceError("the authorities of " + request.caFile + " are not used: " + reason);
}

/// One request that is being made; `request` and `authorities` must outlive it.
class CurlPost {
public:
    CurlPost(const Curl& curl, const HttpRequest& request, const std::string& authorities)
        : m_curl(curl), m_handle(curl.easyInit()) {
        if (m_handle == nullptr) return;
        SetContent(request);
        SetBounds(request);
        SetAuthorities(authorities);
    }
    ~CurlPost() {
        if (m_headers != nullptr) m_curl.freeAll(m_headers);
        if (m_handle != nullptr) m_curl.cleanup(m_handle);
    }
    CurlPost(const CurlPost&) = delete;
    CurlPost& operator=(const CurlPost&) = delete;

    base::Status Perform(long& status) {
        if (m_handle == nullptr) return base::SentenceError("libcurl gives no handle");
        if (!m_usable) return m_usable;
        const CURLcode code = m_curl.perform(m_handle);
        m_curl.getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status);
        if (code != CURLE_OK) return base::SentenceError(m_error[0] != '\0' ? m_error : m_curl.strerror(code));
        if (status < 200 || status > 299) return base::SentenceError("the server answered " + std::to_string(status));
        return {};
    }

private:
    void SetContent(const HttpRequest& request) {
        m_headers = m_curl.append(m_headers, ("Content-Type: " + request.contentType).c_str());
        m_headers = m_curl.append(m_headers, "Expect:");
        for (const std::string& header : request.headers) m_headers = m_curl.append(m_headers, header.c_str());
        m_curl.setopt(m_handle, CURLOPT_URL, request.url.c_str());
        m_curl.setopt(m_handle, CURLOPT_POST, 1L);
        m_curl.setopt(m_handle, CURLOPT_POSTFIELDS, request.body.c_str());
        m_curl.setopt(m_handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        m_curl.setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
    }
    void SetBounds(const HttpRequest& request) {
        const long verify = request.verifyTls ? 1L : 0L;
        m_curl.setopt(m_handle, CURLOPT_PROTOCOLS_STR, "http,https");
        m_curl.setopt(m_handle, CURLOPT_FOLLOWLOCATION, 0L);
        m_curl.setopt(m_handle, CURLOPT_NOSIGNAL, 1L);
        m_curl.setopt(m_handle, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeoutMs));
        m_curl.setopt(m_handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeoutMs));
        m_curl.setopt(m_handle, CURLOPT_SSL_VERIFYPEER, verify);
        m_curl.setopt(m_handle, CURLOPT_SSL_VERIFYHOST, verify * 2);
        m_curl.setopt(m_handle, CURLOPT_ERRORBUFFER, m_error);
        m_curl.setopt(m_handle, CURLOPT_NOPROGRESS, 0L);
        m_curl.setopt(m_handle, CURLOPT_XFERINFOFUNCTION, AskToGoOn);
        m_curl.setopt(m_handle, CURLOPT_XFERINFODATA, &request);
        m_curl.setopt(m_handle, CURLOPT_WRITEFUNCTION, CountAnswer);
        m_curl.setopt(m_handle, CURLOPT_WRITEDATA, &m_answered);
    }

    // By its text: what was judged is what is used.
    void SetAuthorities(const std::string& text) {
        if (text.empty()) return;
        curl_blob blob{};
        blob.data = const_cast<char*>(text.data());  // which is only read
        blob.len = text.size();
        blob.flags = CURL_BLOB_NOCOPY;
        const CURLcode code = m_curl.setopt(m_handle, CURLOPT_CAINFO_BLOB, &blob);
        if (code == CURLE_OK) return;
        m_usable =
            base::SentenceError(std::string("libcurl takes no authorities of one's own: ") + m_curl.strerror(code));
    }

    const Curl& m_curl;
    CURL* const m_handle;
    base::Status m_usable;
    curl_slist* m_headers = nullptr;
    char m_error[CURL_ERROR_SIZE] = "";
    long m_answered = 0;
};

base::Status PostOnce(const HttpRequest& request, long& status) {
    status = 0;
    const Curl& curl = LoadedCurl();
    if (!curl.usable) return curl.usable;
    const base::Result<std::string> authorities = ReadAuthorities(request);
    if (!authorities) return authorities.GetError();
    return CurlPost(curl, request, *authorities).Perform(status);
}

}  // namespace

bool IsHttpUrl(const std::string& url) {
    // Whether a char has a sign depends on the machine.
    for (const char c : url) {
        if (static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) >= 0x7f) return false;
    }
    return (url.compare(0, 7, "http://") == 0 && url.size() > 7) ||
           (url.compare(0, 8, "https://") == 0 && url.size() > 8);
}

CHttpService& CHttpService::Instance() {
    static CHttpService* service = new CHttpService;
    return *service;
}

unsigned int CHttpService::GetFailCount() {
    base::MutexLock lock(m_lock);
    return m_failures;
}

void CHttpService::CountFailure() {
    base::MutexLock lock(m_lock);
    ++m_failures;
}

HttpResult CHttpService::Post(const HttpRequest& request) {
    HttpResult result;
    if (!IsHttpUrl(request.url)) {
        result.outcome = base::SentenceError("not an http or https address", base::ErrorKind::kRefused);
        CountFailure();
        return result;
    }
    for (;;) {
        result.outcome = PostOnce(request, result.status);
        ++result.attempts;
        if (result.outcome) {
            base::MutexLock lock(m_lock);
            m_budget.Earn();
            return result;
        }
        if (IsStopped(request)) return result;  // no failure of the peer's
        CountFailure();
        // An answer of the 400 family will not get better, but for these two.
        const long status = result.status;
        const bool hopeless = status >= 400 && status < 500 && status != 408 && status != 429;
        if (result.attempts >= request.attempts || hopeless || !TakeRetry()) return result;
        std::this_thread::sleep_for(std::chrono::milliseconds(kRetryPauseMs * result.attempts));
    }
}

bool CHttpService::TakeRetry() {
    base::MutexLock lock(m_lock);
    return m_budget.Take();
}

}  // namespace zelhost
