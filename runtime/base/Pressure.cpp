// The kernel's pressure files, read and armed.
#include "base/Pressure.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "base/FileIo.h"
#include "base/ProcFiles.h"

namespace base {

namespace {

constexpr const char* kNames[kPressureResources] = {"memory", "io", "cpu"};
constexpr const char* kFiles[kPressureResources] = {kMemoryPressureFile, kIoPressureFile, kCpuPressureFile};
constexpr unsigned int kUsPerMs = 1000;
constexpr int kPercent = 100;
constexpr size_t kMostPressureBytes = 4096;

/// Returns: what stands behind "<key>=" up to the next blank; empty when it is not there.
std::string_view FieldOf(std::string_view line, std::string_view key) {
    for (size_t at = line.find(key); at != std::string_view::npos; at = line.find(key, at + 1)) {
        const std::string_view rest = line.substr(at + key.size());
        if (at == 0 || line[at - 1] != ' ' || rest.empty() || rest[0] != '=') continue;
        return rest.substr(1, rest.find(' ') == std::string_view::npos ? rest.size() : rest.find(' ') - 1);
    }
    return {};
}

template <class Number>
std::optional<Number> NumberOf(std::string_view text) {
    Number value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

/// "12.34" to 1234.
std::optional<int> HundredthsOf(std::string_view text) {
    const size_t point = text.find('.');
    if (point == std::string_view::npos || text.size() != point + 3) return std::nullopt;
    const std::optional<unsigned int> whole = NumberOf<unsigned int>(text.substr(0, point));
    const std::optional<unsigned int> part = NumberOf<unsigned int>(text.substr(point + 1));
    if (!whole || !part || *whole > kPercent) return std::nullopt;
    return static_cast<int>(*whole * kPercent + *part);
}

std::optional<PressureLine> ParseLine(std::string_view line) {
    const std::optional<int> avg10 = HundredthsOf(FieldOf(line, "avg10"));
    const std::optional<int> avg60 = HundredthsOf(FieldOf(line, "avg60"));
    const std::optional<int> avg300 = HundredthsOf(FieldOf(line, "avg300"));
    const std::optional<uint64_t> total = NumberOf<uint64_t>(FieldOf(line, "total"));
    if (!avg10 || !avg60 || !avg300 || !total) return std::nullopt;
    return PressureLine{*avg10, *avg60, *avg300, *total};
}

}  // namespace

const char* PressureName(PressureResource resource) {
    return kNames[static_cast<size_t>(resource)];
}

const char* PressureFile(PressureResource resource) {
    return kFiles[static_cast<size_t>(resource)];
}

std::optional<Pressure> ParsePressure(std::string_view text) {
    Pressure out;
    bool some = false;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const bool isSome = line.substr(0, 5) == "some ";
        const bool isFull = line.substr(0, 5) == "full ";
        if (!isSome && !isFull) continue;
        const std::optional<PressureLine> parsed = ParseLine(line);
        if (isFull) out.full = parsed;
        if (!isSome) continue;
        if (!parsed) return std::nullopt;
        out.some = *parsed;
        some = true;
    }
    return some ? std::optional<Pressure>(out) : std::nullopt;
}

Result<Pressure> ReadPressure(PressureResource resource) {
    const char* const path = PressureFile(resource);
    const Result<std::string> text = ReadProcText(path, kMostPressureBytes);
    if (!text) return text.GetError();
    const std::optional<Pressure> parsed = ParsePressure(*text);
    return parsed ? Result<Pressure>(*parsed) : MakeError(ErrorKind::kMalformed, "parse", path);
}

std::string FormatPressureTrigger(const PressureTrigger& trigger) {
    const unsigned int windowUs = kPressureWindowMs * kUsPerMs;
    const unsigned int stallUs = windowUs / kPercent * static_cast<unsigned int>(trigger.percent);
    return std::string(trigger.full ? "full " : "some ") + std::to_string(stallUs) + " " + std::to_string(windowUs);
}

Result<Fd> OpenPressureTrigger(PressureResource resource, const PressureTrigger& trigger) {
    const char* const path = PressureFile(resource);
    Fd file(open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    if (!file) return ErrnoError(errno, "open", path);
    const Status armed = ArmPressureTrigger(file, FormatPressureTrigger(trigger), path);
    if (!armed) return armed.GetError();
    return file;
}

Status ArmPressureTrigger(const Fd& file, const std::string& trigger, const std::string& path) {
    // With its zero, as the kernel's document has it.
    if (write(file.Get(), trigger.c_str(), trigger.size() + 1) >= 0) return {};
    return ErrnoError(errno, "write " + trigger, path);
}

}  // namespace base
