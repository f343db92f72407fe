// The kernel's own log and the texts of control files. A reader takes what it understands and never more than is there,
// and two readers of one text agree.
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "UncleanStop.h"
#include "base/KernelLog.h"
#include "base/ProcFiles.h"
#include "base/TextScan.h"
#include "kernel/ControlText.h"
#include "kernel/LimitUnits.h"
#include "kernel/Limits.h"

namespace {

using fuzzing::Require;
using zel::cgroup::Version;

void CheckKernelLog(std::string_view text) {
    const std::optional<base::KernelMessage> message = base::ParseKernelMessage(text);
    if (!message) return;
    Require(message->text.find('\n') == std::string_view::npos, "a message is one line");
    Require(
        message->text.data() >= text.data() && message->text.data() + message->text.size() <= text.data() + text.size(),
        "a message is a part of its record");
    const std::string record = "6,1," + std::to_string(message->sinceBootUs) + ",-;" + std::string(message->text);
    const std::optional<base::KernelMessage> again = base::ParseKernelMessage(record);
    Require(again && again->sinceBootUs == message->sinceBootUs && again->text == message->text, "it says the same");
    if (agent::IsKillOf(12, message->text)) {
        Require(message->text.find("Killed process 12 (") != std::string_view::npos, "a kill names its process");
        Require(
            !agent::IsKillOf(1, message->text) || message->text.find("Killed process 1 (") != std::string_view::npos,
            "nobody else is killed by it");
    }
}

void CheckControlText(const std::string& text) {
    const std::map<std::string, int64_t> keyed = zel::cgroup::ParseFlatKeyed(text);
    std::string written;
    for (const auto& [key, value] : keyed) written += key + " " + std::to_string(value) + "\n";
    Require(zel::cgroup::ParseFlatKeyed(written) == keyed, "what was read can be written");
    for (const auto& [key, value] : keyed) {
        Require(!key.empty() && key.find_first_of(" \t\r\n") == std::string::npos, "a key is one word");
    }
    for (const int pid : zel::cgroup::ParsePids(text)) Require(pid > 0, "a process has a number");
    const auto number = zel::cgroup::ParseNumberOrMax(text);
    if (number && *number > 0) {
        const auto again = zel::cgroup::ParseNumberOrMax(std::to_string(*number));
        Require(again && *again == *number, "a number says the same");
    }
    for (const Version version : {Version::kV1, Version::kV2}) {
        for (const bool swap : {false, true}) {
            const int64_t none = zel::cgroup::SumFixedBytes(text, version, swap, 0);
            Require(zel::cgroup::SumFixedBytes(text, version, swap, 4096) >= none, "what comes back is not less");
        }
    }
}

void CheckVmStat(std::string_view text) {
    const std::optional<uint64_t> value = base::ParseVmStat(text, "pgmajfault");
    if (!value) return;
    const std::string line = "pgmajfault " + std::to_string(*value) + "\n";
    Require(base::ParseVmStat(line, "pgmajfault") == value, "a counter says the same");
}

/// The conversions of limits, for any amount: what comes back from the kernel's figures is what was asked for.
void CheckAmounts(std::string_view text) {
    const std::optional<int64_t> asked = base::ParseSigned(text.substr(0, text.find('\n')));
    if (!asked) return;
    for (const auto controller : zel::cgroup::kAllControllers) {
        const zel::cgroup::Limit limit = zel::cgroup::LimitFromAmount(controller, *asked);
        const int back = zel::cgroup::AmountOf(controller, limit);
        Require(*asked > 0 || back == 0, "nothing asked is no limit");
        Require(back >= 0 && (back <= *asked || *asked < 10), "what holds is not above what was asked");
        Require(!zel::cgroup::IsTighter(controller, limit, limit), "nothing is tighter than itself");
        Require(zel::cgroup::SwapLimitFor(Version::kV1, limit.bytes) >= limit.bytes, "with swap it is no less");
    }
    const zel::cgroup::CpuQuota pieces = zel::cgroup::QuotaInPieces(*asked);
    Require(pieces.Unlimited() || (pieces.quotaUs >= 1000 && pieces.periodUs <= 1000000), "the kernel takes it");
    const int plain = zel::cgroup::QuotaTo100Times(zel::cgroup::QuotaFrom100Times(*asked));
    Require(zel::cgroup::QuotaTo100Times(pieces) == plain, "in pieces it is as much");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy of exactly this size: the sanitizer sees a step beyond it.
    const std::vector<char> bytes(data, data + size);
    const std::string_view text(bytes.data(), bytes.size());
    CheckKernelLog(text);
    CheckControlText(std::string(text));
    CheckVmStat(text);
    CheckAmounts(text);
    return 0;
}
