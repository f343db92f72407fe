// The host's HTTP service.
#include "HttpService.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "platform/zel/LogMessage.h"

IHttp* GetHttpInstance() {
    return &zelhost::CHttpService::Instance();
}

namespace zelhost {
namespace {

constexpr unsigned int kRetryPauseMs = 200;
constexpr long kMostAnswerBytes = 64 * 1024;

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
    std::string problem;

    Curl() {
        void* library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            const char* reason = dlerror();
            problem = std::string("libcurl cannot be loaded (package libcurl4): ") + (reason != nullptr ? reason : "");
            return;
        }
        const auto find = [&](auto& function, const char* name) {
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
            if (function == nullptr) problem = std::string("libcurl has no ") + name;
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
        if (problem.empty() && globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) problem = "libcurl does not start";
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

}  // namespace

bool IsHttpUrl(const std::string& url) {
    for (char c : url) {
        if (c <= ' ' || c == 0x7f) return false;
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

std::string CHttpService::WhyUnavailable() {
    return LoadedCurl().problem;
}

HttpResult CHttpService::PostOnce(const HttpRequest& request) {
    HttpResult result;
    const Curl& curl = LoadedCurl();
    if (!curl.problem.empty()) {
        result.error = curl.problem;
        return result;
    }
    CURL* handle = curl.easyInit();
    if (handle == nullptr) {
        result.error = "libcurl gives no handle";
        return result;
    }
    curl_slist* headers = curl.append(nullptr, ("Content-Type: " + request.contentType).c_str());
    headers = curl.append(headers, "Expect:");
    for (const std::string& header : request.headers) headers = curl.append(headers, header.c_str());
    char error[CURL_ERROR_SIZE] = "";
    long answered = 0;
    const long verify = request.verifyTls ? 1L : 0L;
    curl.setopt(handle, CURLOPT_URL, request.url.c_str());
    curl.setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl.setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl.setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl.setopt(handle, CURLOPT_POST, 1L);
    curl.setopt(handle, CURLOPT_POSTFIELDS, request.body.c_str());
    curl.setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl.setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl.setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeoutMs));
    curl.setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.timeoutMs));
    curl.setopt(handle, CURLOPT_SSL_VERIFYPEER, verify);
    curl.setopt(handle, CURLOPT_SSL_VERIFYHOST, verify * 2);
    if (!request.caFile.empty()) curl.setopt(handle, CURLOPT_CAINFO, request.caFile.c_str());
    curl.setopt(handle, CURLOPT_ERRORBUFFER, error);
    curl.setopt(handle, CURLOPT_WRITEFUNCTION, CountAnswer);
    curl.setopt(handle, CURLOPT_WRITEDATA, &answered);
    const CURLcode code = curl.perform(handle);
    curl.getinfo(handle, CURLINFO_RESPONSE_CODE, &result.status);
    if (code != CURLE_OK) {
        result.error = error[0] != '\0' ? error : curl.strerror(code);
    } else if (result.status < 200 || result.status > 299) {
        result.error = "the server answered " + std::to_string(result.status);
    } else {
        result.ok = true;
    }
    curl.freeAll(headers);
    curl.cleanup(handle);
    return result;
}

HttpResult CHttpService::Post(const HttpRequest& request) {
    HttpResult result;
    if (!IsHttpUrl(request.url)) {
        result.error = "not an http or https address";
        base::MutexLock lock(m_lock);
        ++m_failures;
        return result;
    }
    for (unsigned int attempt = 1;; ++attempt) {
        result = PostOnce(request);
        result.attempts = attempt;
        base::MutexLock lock(m_lock);
        if (result.ok) {
            m_budget.Earn();
            return result;
        }
        ++m_failures;
        // An answer of the 400 family will not get better, but for these two.
        const long status = result.status;
        const bool hopeless = status >= 400 && status < 500 && status != 408 && status != 429;
        if (attempt >= request.attempts || hopeless || !m_budget.Take()) return result;
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(kRetryPauseMs * attempt));
    }
}

}  // namespace zelhost
