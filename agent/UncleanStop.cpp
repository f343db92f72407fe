// Mark, note and verdict.
#include "UncleanStop.h"

#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "AgentPaths.h"
#include "ExitCode.h"
#include "JsonText.h"
#include "base/Clock.h"
#include "base/FileIo.h"
#include "base/FileReplace.h"
#include "base/KernelLog.h"
#include "base/ProcFiles.h"
#include "base/TrustedRead.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace agent {

namespace {

constexpr size_t kMostFileBytes = 4096;
constexpr size_t kMostLineBytes = 300;
constexpr size_t kMostWordBytes = 64;
constexpr mode_t kFileMode = 0640;
/// The clock of the kernel's log and CLOCK_MONOTONIC run apart by this much at most.
constexpr int64_t kClockSlackUs = 2000000;
constexpr const char* kCauseNames[] = {"unknown", "out_of_memory", "signal", "exit", "reboot"};

std::string Clock(int64_t seconds) {
    const time_t time = static_cast<time_t>(seconds);
    tm local{};
    std::array<char, 32> text{};
    if (localtime_r(&time, &local) != nullptr) strftime(text.data(), text.size(), "%F %T", &local);
    return text.data();
}

/// A word from outside: letters, digits, '-' and '_'; empty when it is anything else.
std::string PlainWord(const char* text) {
    const std::string word = text == nullptr ? "" : text;
    const bool plain = word.size() <= kMostWordBytes && std::all_of(word.begin(), word.end(), [](unsigned char c) {
                           return c < 0x80 && (isalnum(c) != 0 || c == '-' || c == '_');
                       });
    return plain ? word : "";
}

std::string Text(const Json::Value& object, const char* key) {
    return object[key].isString() ? object[key].asString() : "";
}

int64_t Number(const Json::Value& object, const char* key, int64_t otherwise) {
    return object[key].isInt64() ? object[key].asInt64() : otherwise;
}

base::Result<Json::Value> ParseObject(const std::string& text) {
    base::Result<Json::Value> root = ParseJson(text);
    if (root && !root->isObject()) return base::SentenceError("no object", base::ErrorKind::kMalformed);
    return root;
}

KernelWord AskKernel(const RunMark& mark) {
    KernelWord word;
    const auto walked = base::WalkKernelLog(base::kKernelLogFile, [&](const base::KernelMessage& message) {
        const bool since = static_cast<int64_t>(message.sinceBootUs) + kClockSlackUs >= mark.startedUs;
        if (since && IsKillOf(mark.pid, message.text)) word.kill = message.text.substr(0, kMostLineBytes);
        return word.kill.empty();
    });
    if (!walked) word.problem = walked.GetError().Text();
    return word;
}

std::string TextOf(const EndNote& note) {
    return "service manager: result " + note.result + ", " + note.code + " " + note.status;
}

void AddWords(Json::Value& body, const char* key, const std::vector<std::string>& words) {
    Json::Value& list = body[key] = Json::Value(Json::arrayValue);
    for (const std::string& word : words) list.append(word);
}

std::string Join(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : "; ") + word;
    return text;
}

}  // namespace

bool IsKillOf(int pid, std::string_view line) {
    // Without the name: the kernel gives that of a thread, which a process may have set to anything.
    const std::string words = "Killed process " + std::to_string(pid) + " (";
    if (line.find("ut of memory") != std::string_view::npos) return line.find(words) != std::string_view::npos;
    // Older kernels say why on a line before it, which can name another process.
    return line.substr(0, words.size()) == words && line.find(" total-vm:") != std::string_view::npos;
}

UncleanStop JudgeUncleanStop(const RunMark& mark, const std::string& bootId, const std::optional<EndNote>& noteFound,
                             const KernelWord& kernel) {
    UncleanStop stop;
    const bool rebooted = !mark.bootId.empty() && !bootId.empty() && mark.bootId != bootId;
    const bool noted = noteFound && noteFound->pid == mark.pid;
    const EndNote note = noted ? *noteFound : EndNote();
    if (rebooted) {
        stop.known.emplace_back("the host was started anew since");
        stop.unknown.emplace_back("whether it had ended before; the kernel's log of that time is gone");
    } else if (!kernel.kill.empty()) {
        stop.known.push_back("kernel: " + kernel.kill);
    } else if (!kernel.problem.empty()) {
        stop.unknown.push_back("the kernel's log cannot be read: " + kernel.problem);
    } else {
        stop.known.emplace_back("the kernel's log, as far as it is kept, has no kill of it for want of memory");
    }
    if (noted) {
        stop.known.push_back(TextOf(note));
        if (note.kills > 0) {
            stop.known.push_back("out-of-memory kills in its own group: " + std::to_string(note.kills));
        } else if (note.kills < 0) {
            stop.unknown.emplace_back("the counters of its own group, which was gone");
        }
    } else {
        stop.unknown.emplace_back("exit status or signal: no service manager left a note (ExecStopPost=)");
    }
    const bool killed = note.code == "killed" || note.code == "dumped";
    if (!rebooted && !kernel.kill.empty()) {
        stop.cause = EndCause::kOutOfMemory;
        stop.certain = true;
    } else if (noted && killed && note.status == "KILL" && note.kills > 0) {
        // Also beside a log without a word of it: that is a ring, and older lines go first.
        stop.cause = EndCause::kOutOfMemory;
    } else if (noted && (killed || note.code == "exited")) {
        stop.cause = killed ? EndCause::kSignal : EndCause::kExit;
        stop.certain = true;
    } else if (rebooted) {
        stop.cause = EndCause::kReboot;
    }
    if (stop.cause == EndCause::kSignal) stop.unknown.emplace_back("who sent the signal");
    if (stop.cause == EndCause::kOutOfMemory) {
        stop.unknown.emplace_back("which limit was reached: a service manager removes the groups with their counters");
    }
    return stop;
}

std::string DescribeUncleanStop(const RunMark& mark, const UncleanStop& stop) {
    static constexpr const char* kWords[] = {"for an unknown reason", "because memory ran out", "by a signal",
                                             "by itself", "with the host"};
    return "the last run (process " + std::to_string(mark.pid) + ", since " + Clock(mark.startedAt) +
           ") did not end in order but " + (stop.certain ? "" : "probably ") + kWords[static_cast<size_t>(stop.cause)] +
           "; known: " + Join(stop.known) + "; not known: " + Join(stop.unknown);
}

std::string FormatUncleanStop(const RunMark& mark, const UncleanStop& stop, int64_t now) {
    Json::Value body(Json::objectValue);
    body["process"] = zel::kMainProcessName;
    body["pid"] = mark.pid;
    body["started_at"] = Json::Int64(mark.startedAt);
    body["detect_time"] = Json::Int64(now);
    body["cause"] = kCauseNames[static_cast<size_t>(stop.cause)];
    body["certain"] = stop.certain;
    AddWords(body, "known", stop.known);
    AddWords(body, "unknown", stop.unknown);
    return body.toStyledString();
}

std::string FormatRunMark(const RunMark& mark) {
    Json::Value root(Json::objectValue);
    root["pid"] = mark.pid;
    root["boot_id"] = mark.bootId;
    root["started_at"] = Json::Int64(mark.startedAt);
    root["started_us"] = Json::Int64(mark.startedUs);
    return root.toStyledString();
}

base::Result<RunMark> ParseRunMark(const std::string& text) {
    const base::Result<Json::Value> root = ParseObject(text);
    if (!root) return root.GetError();
    RunMark mark;
    mark.pid = (*root)["pid"].isInt() ? (*root)["pid"].asInt() : 0;
    mark.bootId = Text(*root, "boot_id");
    mark.startedAt = Number(*root, "started_at", 0);
    mark.startedUs = Number(*root, "started_us", 0);
    if (mark.pid <= 0) return base::SentenceError("no process in it", base::ErrorKind::kMalformed);
    return mark;
}

std::string FormatEndNote(const EndNote& note) {
    Json::Value root(Json::objectValue);
    root["pid"] = note.pid;
    root["result"] = note.result;
    root["code"] = note.code;
    root["status"] = note.status;
    root["kills"] = Json::Int64(note.kills);
    return root.toStyledString();
}

base::Result<EndNote> ParseEndNote(const std::string& text) {
    const base::Result<Json::Value> root = ParseObject(text);
    if (!root) return root.GetError();
    EndNote note;
    note.pid = (*root)["pid"].isInt() ? (*root)["pid"].asInt() : 0;
    note.result = PlainWord(Text(*root, "result").c_str());
    note.code = PlainWord(Text(*root, "code").c_str());
    note.status = PlainWord(Text(*root, "status").c_str());
    note.kills = Number(*root, "kills", -1);
    return note;
}

RunRecord::RunRecord(const std::string& appDir)
    : m_markFile(RunMarkFile(appDir, zel::kMainProcessName)), m_noteFile(EndNoteFile(appDir, zel::kMainProcessName)) {}

std::optional<LastRun> RunRecord::Begin() {
    std::optional<LastRun> last;
    const int64_t now = time(nullptr);
    const std::string bootId = base::ReadBootId();
    const auto left = base::ReadTrusted(m_markFile, kMostFileBytes, base::TrustScope::kWithPlace);
    const base::Result<RunMark> mark = left ? ParseRunMark(*left) : base::Result<RunMark>(left.GetError());
    if (mark) {
        std::optional<EndNote> note;
        const auto text = base::ReadTrusted(m_noteFile, kMostFileBytes, base::TrustScope::kWithPlace);
        if (text) {
            if (const base::Result<EndNote> parsed = ParseEndNote(*text)) note = *parsed;
        }
        const UncleanStop stop = JudgeUncleanStop(*mark, bootId, note, AskKernel(*mark));
        last = LastRun{DescribeUncleanStop(*mark, stop), FormatUncleanStop(*mark, stop, now)};
    }
    (void)base::RemoveFile(m_noteFile);  // one that stays is about another process than the next mark
    const RunMark own{getpid(), bootId, now, base::ClockNs(CLOCK_MONOTONIC) / 1000};
    const base::Status marked = base::ReplaceFile(m_markFile, FormatRunMark(own), kFileMode, base::Durability::kSynced);
    // The mark of the run before, which has been told of, must not be told of again after this one.
    if (!marked && marked.GetError().kind != base::ErrorKind::kNotSynced) (void)base::RemoveFile(m_markFile);
    m_begun = true;
    return last;
}

void RunRecord::End() {
    if (!m_begun) return;
    // One that cannot be removed makes the next start tell of an end that was in order, with what is known of it.
    (void)base::RemoveFile(m_noteFile);
    (void)base::RemoveFile(m_markFile);
}

int NoteEnd(const std::string& appDir) {
    const std::string markFile = RunMarkFile(appDir, zel::kMainProcessName);
    const auto text = base::ReadTrusted(markFile, kMostFileBytes, base::TrustScope::kWithPlace);
    if (!text) return kExitClean;  // it has ended in order
    const base::Result<RunMark> mark = ParseRunMark(*text);
    if (!mark) return kExitInternal;
    EndNote note{mark->pid, PlainWord(getenv("SERVICE_RESULT")), PlainWord(getenv("EXIT_CODE")),
                 PlainWord(getenv("EXIT_STATUS")), -1};
    zel::CgroupTreeStatus tree;
    std::string problem;
    if (zel::ReadCgroupTreeStatus(tree, problem)) {
        for (const zel::CgroupNodeStatus& node : tree.nodes) {
            const bool own = node.level == zel::CgroupLevel::kComponent && node.name == zel::kMainComponent;
            if (own && node.memory.present) note.kills = node.memory.oomKills;
        }
    }
    const std::string file = EndNoteFile(appDir, zel::kMainProcessName);
    const base::Status written = base::ReplaceFile(file, FormatEndNote(note), kFileMode, base::Durability::kRenewed);
    if (written) return kExitClean;
    fprintf(stderr, "tervane: %s\n", written.GetError().Text().c_str());
    return kExitInternal;
}

}  // namespace agent
