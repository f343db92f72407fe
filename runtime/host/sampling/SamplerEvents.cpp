// How the sampling class tells the host what it found.
#include "sampling/SamplerEvents.h"

#include <cstdio>
#include <ctime>

#include "sampling/SamplerLog.h"
#include "sampling/ThreadFacts.h"

namespace zelhost {
namespace {

const char* StageText(WarningStage stage) {
    switch (stage) {
        case WarningStage::kReached: return "at its maximum";
        case WarningStage::kSustained: return "at its maximum for a whole breach period";
        case WarningStage::kRecovered: break;
    }
    return "below its maximum again";
}

void NameBusiestThread(ResourceWarning& warning) {
    if (warning.kind != ResourceKind::kCpu || warning.stage == WarningStage::kRecovered) return;
    const auto top = CThreadFacts::Instance().Busiest(1);
    if (top.empty() || top[0].avgLoad == 0) return;
    warning.tid = top[0].tid;
    warning.name = top[0].name;
}

template <class Call>
void Guarded(const char* complaint, Call call) {
    try {
        call();
    } catch (...) {
        LogSampler(zel::kLogWarning, __LINE__, "%s", complaint);
    }
}

}  // namespace

std::string QuantityText(ResourceKind kind, int64_t value) {
    char text[64];
    switch (kind) {
        case ResourceKind::kCpu:
        case ResourceKind::kWatchedCpu:
            std::snprintf(text, sizeof(text), "%lld.%02lld %%", static_cast<long long>(value / 100),
                          static_cast<long long>(value % 100));
            break;
        case ResourceKind::kMemory:
        case ResourceKind::kWatchedMemory:
            std::snprintf(text, sizeof(text), "%lld KB", static_cast<long long>(value));
            break;
        case ResourceKind::kReadIo:
        case ResourceKind::kWriteIo:
            std::snprintf(text, sizeof(text), "%lld KB/s", static_cast<long long>(value));
            break;
        default: std::snprintf(text, sizeof(text), "%lld", static_cast<long long>(value)); break;
    }
    return text;
}

std::string ServingWords(const std::string& threadName) {
    if (threadName.compare(0, 7, "Metrics") == 0) return ": it answers scrapes of the metrics, look at who asks";
    if (threadName == "zel-io") return ": it takes in scrapes, consoles and messages, look at who asks";
    if (threadName.compare(0, 7, "console") == 0) return ": it answers the console, look at who asks";
    return "";
}

void CSamplerEvents::Warn(const Finding& finding) {
    ResourceWarning warning;
    warning.kind = finding.kind;
    warning.stage = finding.stage;
    warning.value = finding.value;
    warning.limit = finding.limit;
    warning.sustainedMs = finding.sustainedMs;
    warning.wallTime = time(nullptr);
    warning.name = finding.name;
    NameBusiestThread(warning);
    warning.text = finding.text;
    if (warning.text.empty()) {
        warning.text = std::string(ResourceKindName(finding.kind)) + " " + StageText(finding.stage) + ": " +
                       QuantityText(finding.kind, finding.value) + " of " + QuantityText(finding.kind, finding.limit);
    }
    if (warning.tid != 0) {
        warning.text +=
            ", busiest thread " + std::to_string(warning.tid) + " (" + warning.name + ")" + ServingWords(warning.name);
    }
    LogSampler(finding.stage == WarningStage::kRecovered ? zel::kLogInfo : zel::kLogWarning, __LINE__, "%s",
               warning.text.c_str());
    if (m_sink == nullptr) return;
    Guarded("the event sink threw on a warning", [&] { m_sink->OnResourceWarning(warning); });
}

void CSamplerEvents::AskToStop(const SelfKillRecord& record) {
    if (m_sink == nullptr) return;
    Guarded("the event sink threw on a self-kill", [&] { m_sink->OnSelfKill(record); });
}

void CSamplerEvents::TellStall(const ThreadStall& stall) {
    if (m_sink == nullptr) return;
    Guarded("the event sink threw on a stalled thread", [&] { m_sink->OnThreadStalled(stall); });
}

std::string CSamplerEvents::ExtraForRecord(ResourceKind kind) {
    std::string extra;
    if (m_sink != nullptr) m_sink->OnBuildRecord(kind, extra);
    return extra;
}

}  // namespace zelhost
