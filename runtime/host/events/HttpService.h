// The host's HTTP service: POSTs with a time limit, TLS verified, failures counted. libcurl is loaded on the first
// request, so a process that makes none does not pay for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "base/Result.h"
#include "platform/host/Http.h"

namespace zelhost {

struct HttpRequest {
    std::string url;
    std::string body;
    std::string contentType = "application/json";
    std::vector<std::string> headers;  ///< "Name: value"
    std::string caFile;                ///< empty: the system's store; used when only root or this user can write it
    bool verifyTls = true;
    unsigned int timeoutMs = 5000;            ///< of one attempt, connecting included
    unsigned int attempts = 1;                ///< at most; further ones are taken from the retry budget
    const std::atomic<bool>* stop = nullptr;  ///< once it is set the request is given up, within about a second
};

struct HttpResult {
    base::Status outcome;  ///< good: an answer of the 200 family
    long status = 0;       ///< 0: no answer
    unsigned int attempts = 0;
};

/// Tokens for repeated attempts: each answered request earns a tenth of one, each repetition costs one. A peer that
/// fails for everybody is so asked at most a tenth more often than without repetitions.
class RetryBudget {
public:
    bool Take() {
        if (m_tenths < 10) return false;
        m_tenths -= 10;
        return true;
    }
    void Earn() {
        if (m_tenths < kMostTenths) ++m_tenths;
    }
    unsigned int Tenths() const { return m_tenths; }
    static constexpr unsigned int kMostTenths = 100;

private:
    unsigned int m_tenths = kMostTenths;
};

/// Thread-safety: every operation from any thread.
class CHttpService final : public IHttp {
public:
    static CHttpService& Instance();

    unsigned int GetFailCount() override;

    /// Blocks: up to attempts x timeoutMs and the pauses between them.
    HttpResult Post(const HttpRequest& request);

private:
    void CountFailure();
    /// Returns: whether the budget has one more repetition.
    bool TakeRetry();

    base::Mutex m_lock;
    unsigned int m_failures ZEL_GUARDED_BY(m_lock) = 0;
    RetryBudget m_budget ZEL_GUARDED_BY(m_lock);
};

/// "http://host/..." or "https://host/...", no blanks, control characters or bytes beyond ASCII.
bool IsHttpUrl(const std::string& url);

}  // namespace zelhost
