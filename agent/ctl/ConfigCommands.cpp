// The commands. A change is written like this: under a lock of the directory, first the list of changes, then the file,
// each replaced whole; after a crash in between `undo` sees that the change was not made.
#include "ConfigCommands.h"

#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>

#include "AskAgent.h"
#include "ConfigFiles.h"
#include "ConfigJournal.h"
#include "ConfigPicture.h"
#include "CtlExit.h"
#include "Health.h"
#include "JsonText.h"
#include "Printable.h"
#include "StatusJson.h"
#include "View.h"
#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/FileReplace.h"
#include "base/TrustedRead.h"
#include "fleet/RemoteConfig.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

constexpr mode_t kNewFileMode = 0640;
constexpr mode_t kOthersMayWrite = 022;
constexpr int kLockTries = 50;
constexpr unsigned int kLockPauseMs = 100;

using Value = std::optional<std::string>;

int Fail(CtlExit code, const std::string& sentence) {
    fprintf(stderr, "tervanectl: %s\n", sentence.c_str());
    return code;
}

/// A value of agent.json may be a password.
std::string Shown(const SettableKey& key, const Value& value) {
    if (!value) return "nothing";
    return key.name == "http.header" ? "(not shown)" : Printable(*value);
}

/// Keeps two consoles from changing the configuration of one directory at the same time.
base::Result<base::Fd> LockPlace(const std::string& appDir) {
    const std::string place = base::DirectoryOf(appDir + zel::kConfigChangesFileName);
    const base::Result<base::Fd> trusted = base::OpenTrustedDirectory(place);
    if (!trusted) {
        return base::SentenceError("nothing is written: " + place + ": " + base::ReasonOf(trusted.GetError(), place),
                                   trusted.GetError().kind);
    }
    base::Result<base::Fd> directory = base::OpenOwnDirectory(place);
    if (!directory) return directory;
    // Whoever may read the directory may hold the lock.
    for (int tries = 0; flock(directory->Get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || tries >= kLockTries)
            return base::ErrnoError(errno, "lock", place, "another program holds it");
        zel::CToolUtil::msleep(kLockPauseMs);
    }
    return directory;
}

base::Status WriteConfig(const std::string& path, const std::string& text) {
    const std::string place = base::DirectoryOf(path);
    const base::Result<base::Fd> trusted = base::OpenTrustedDirectory(place);
    if (!trusted) return base::SentenceError(place + ": " + base::ReasonOf(trusted.GetError(), place));
    struct stat info {};
    const bool there = lstat(path.c_str(), &info) == 0;
    const mode_t mode = there ? info.st_mode & 0777 & ~kOthersMayWrite : kNewFileMode;
    return base::ReplaceFile(path, text, mode, base::Durability::kSynced, base::Owner::kAsBefore);
}

/// What the running agent says to a change, and what the kernel said to the agent.
struct Outcome {
    std::string words;
    std::optional<Trouble> refused;
};

/// Waits for what comes of a memory limit that the agent has taken over: it goes through the groups, and the kernel may
/// refuse it. Blocks: a few seconds. Returns: the refusal that is there at the end.
std::optional<Trouble> AwaitRefusal(const ConfigOptions& options, const SettableKey& key) {
    constexpr int kLooks = 9;  // the agent calls it settled after two seconds
    constexpr unsigned int kLookPauseMs = 500;
    std::optional<Trouble> refused;
    for (int look = 0; look < kLooks; ++look) {
        if (look > 0) zel::CToolUtil::msleep(kLookPauseMs);
        const base::Result<StatusReport> status = ReadStatus(AskAgent(options.appDir, options.process, "status"));
        if (!status || (ModeToHold(*status) & zel::kModeMemory) == 0) return std::nullopt;
        refused = FindRefusedMemory(*status, key.name);
    }
    return refused;
}

bool IsMemoryLimit(const SettableKey& key) {
    return key.name == "groupMaxMemory" || key.name == "maxMemory";
}

/// Of a value that is in the file already.
Outcome JudgeAsItIs(const ConfigOptions& options, const SettableKey& key) {
    const std::optional<Trouble> refused = IsMemoryLimit(key) ? AwaitRefusal(options, key) : std::nullopt;
    if (refused) return {"nothing is changed, and it is not in force: " + refused->what, refused};
    return {"nothing is changed", {}};
}

Outcome TellAgent(const ConfigOptions& options, const SettableKey& key) {
    const ConfigFile file = key.file;
    if (file == ConfigFile::kResource) return {"in force when the agent starts next", {}};
    const base::Result<Answer> answer = AskAgent(options.appDir, options.process, "reload");
    if (!answer && answer.GetError().kind == base::ErrorKind::kNotFound)
        return {"no agent runs here: in force at its start", {}};
    if (!answer) return {"the agent was not reached, it reads the file by itself: " + answer.GetError().Text(), {}};
    if (!answer->ok) return {"the agent refuses: " + Printable(answer->body.substr(0, answer->body.find('\n'))), {}};
    if (file != ConfigFile::kOnline) return {"in force within seconds", {}};
    std::optional<Trouble> refused;
    if (IsMemoryLimit(key)) refused = AwaitRefusal(options, key);
    if (refused) return {"the agent has read it, and it is not in force: " + refused->what, refused};
    return {"the agent has taken it over", {}};
}

int PrintChange(const ConfigOptions& options, const SettableKey& key, const ConfigChange& change,
                const Outcome& outcome, const std::string& note) {
    const CtlExit code = outcome.refused ? kRefused : kOk;
    if (!options.json) {
        printf("%s: %s -> %s in %s, revision %llu; %s\n", key.name.c_str(), Shown(key, change.before).c_str(),
               Shown(key, change.after).c_str(), change.file.c_str(), static_cast<unsigned long long>(change.revision),
               outcome.words.c_str());
        if (outcome.refused) printf("do: %s\n", outcome.refused->remedy.c_str());
        if (!note.empty()) printf("%s\n", note.c_str());
        return code;
    }
    Json::Value view = NewView("config-change");
    view["file"] = change.file;
    view["key"] = key.name;
    view["before"] = change.before ? Json::Value(Shown(key, change.before)) : Json::Value();
    view["after"] = change.after ? Json::Value(Shown(key, change.after)) : Json::Value();
    view["revision"] = Json::UInt64(change.revision);
    view["outcome"] = outcome.words;
    view["refused"] = outcome.refused ? outcome.refused->what : "";
    view["remedy"] = outcome.refused ? outcome.refused->remedy : "";
    view["note"] = note;
    fputs(ViewText(view).c_str(), stdout);
    return code;
}

int Refuse(const ConfigOptions& options, const std::string& path, const std::vector<ConfigFinding>& findings) {
    Json::Value view = NewView("config-check");
    view["file"] = path;
    view["accepted"] = findings.empty();
    view["refused"] = Json::Value(Json::arrayValue);
    for (const ConfigFinding& finding : findings) {
        view["refused"].append(RefusalJson(path, finding));
        if (!options.json) fprintf(stderr, "%s\n", WordRefusal(path, finding).c_str());
    }
    if (options.json) fputs(ViewText(view).c_str(), stdout);
    if (!options.json && findings.empty()) printf("%s: the agent takes all of it\n", path.c_str());
    return findings.empty() ? kOk : kRefused;
}

/// A change under way: the text that is there, and the one that is to be.
struct Edit {
    SettableKey key;
    std::string path;
    std::string text;
    Value before;
};

base::Result<Edit> BeginEdit(const SettableKey& key, const std::string& path) {
    Edit edit{key, path, "", std::nullopt};
    const base::Result<std::string> text = ReadConfigText(edit.path);
    if (text) {
        edit.text = *text;
    } else if (text.GetError().kind != base::ErrorKind::kNotFound) {
        return base::SentenceError(edit.path + ": " + text.GetError().Text(), text.GetError().kind);
    } else if (key.file == ConfigFile::kResource) {
        return base::SentenceError(edit.path + " is not there: copy the sample of the installation there first",
                                   base::ErrorKind::kNotFound);
    }
    edit.before = FindValue(key, edit.text);
    return edit;
}

/// What the change adds to what the agent refuses of the file already.
std::vector<ConfigFinding> NewFindings(const Edit& edit, const std::string& changed) {
    const std::vector<ConfigFinding> old = JudgeConfigText(edit.key.file, edit.text.empty() ? "{}" : edit.text);
    std::vector<ConfigFinding> findings;
    for (const ConfigFinding& finding : JudgeConfigText(edit.key.file, changed)) {
        const bool known = edit.key.file == ConfigFile::kResource && finding.key != edit.key.name;
        bool stood = false;
        for (const ConfigFinding& one : old) stood = stood || (one.key == finding.key && one.value == finding.value);
        if (!(known && stood)) findings.push_back(finding);
    }
    return findings;
}

/// Returns: the resource file of the process that runs, when it was started with another; else empty.
std::string OtherResourceFile(const ConfigOptions& options, const std::string& path) {
    const std::string used = AskResourceFile(options.appDir, options.process);
    return used == path ? "" : used;
}

/// Why a change of the file will not last or has no effect; empty where it has.
std::string NoteOf(const ConfigOptions& options, const SettableKey& key, const std::string& changed) {
    if (key.file == ConfigFile::kOnline && ReadFleetOrigin(changed) && !IsPinned(changed)) {
        return "the fleet wrote this file and puts it back: change the value there, or add \"" +
               std::string(kPinnedRemark) + "\": true to the file";
    }
    if (key.file != ConfigFile::kResource || key.limit->onlineName == nullptr) return "";
    const ConfigPicture picture = ReadConfigPicture(options.appDir, options.process);
    const ConfigRow* row = FindRow(picture, key.limit->onlineName);
    if (row == nullptr || row->fileKey != key.limit->onlineName) return "";
    return "it stays without effect while " + OriginOf(*row) + " is there";
}

int Change(const ConfigOptions& options, const SettableKey& key, const Value& after) {
    base::Result<base::Fd> lock = LockPlace(options.appDir);
    if (!lock) return Fail(kUnreachable, lock.GetError().Text());
    const std::string path = PathOf(key.file, options.appDir);
    const std::string other = key.file == ConfigFile::kResource ? OtherResourceFile(options, path) : "";
    if (!other.empty()) {
        return Fail(kRefused, "the agent that runs reads " + other + ", not " + path + ": change " + key.name +
                                  " there, by hand");
    }
    base::Result<Edit> edit = BeginEdit(key, path);
    if (!edit) return Fail(kUnreachable, edit.GetError().Text());
    const base::Result<std::string> changed = ChangeValue(key, after, edit->text);
    if (!changed)
        return Fail(kRefused, edit->path + " is no configuration, mend it first: " + changed.GetError().Text());
    const std::vector<ConfigFinding> findings = NewFindings(*edit, *changed);
    if (!findings.empty()) return Refuse(options, edit->path, findings);
    base::Result<ConfigJournal> journal = ReadConfigJournal(options.appDir);
    if (!journal) return Fail(kUnreachable, journal.GetError().Text());
    const Value now = FindValue(key, *changed);
    ConfigChange change{journal->lastRevision + 1, time(nullptr), geteuid(), edit->path, key.name, edit->before, now};
    if (now == edit->before) {
        const std::string same = key.name + " is " + Shown(key, now) + " already, nothing is changed";
        change.revision = journal->lastRevision;
        lock->Reset();  // the agent is waited for: nobody else has to
        const Outcome outcome = JudgeAsItIs(options, key);
        return options.json || outcome.refused ? PrintChange(options, key, change, outcome, "") : Fail(kOk, same);
    }
    journal->lastRevision = change.revision;
    journal->changes.push_back(change);
    base::Status written = WriteConfigJournal(options.appDir, *journal);
    if (written) written = WriteConfig(edit->path, *changed);
    if (!written) return Fail(kUnreachable, "nothing is changed: " + written.GetError().Text());
    lock->Reset();  // the agent is waited for: nobody else has to
    return PrintChange(options, key, change, TellAgent(options, key), NoteOf(options, key, *changed));
}

int Set(const ConfigOptions& options) {
    const size_t equals = options.argument.find('=');
    if (equals == std::string::npos || equals == 0) return Fail(kUsage, "config set takes KEY=VALUE");
    const base::Result<SettableKey> key = FindSettable(options.argument.substr(0, equals));
    if (!key) return Fail(kRefused, key.GetError().Text());
    const std::string value = options.argument.substr(equals + 1);
    if (value.find_first_of("\r\n") != std::string::npos) return Fail(kRefused, "a value is one line");
    return Change(options, *key, value);
}

int Unset(const ConfigOptions& options) {
    const base::Result<SettableKey> key = FindSettable(options.argument);
    if (!key) return Fail(kRefused, key.GetError().Text());
    return Change(options, *key, std::nullopt);
}

/// The key of a change, in the file that it was made in.
base::Result<SettableKey> KeyOf(const ConfigChange& change) {
    base::Result<SettableKey> key = FindSettable(change.key);
    const std::optional<ConfigFile> file = ConfigFileOf(change.file);
    if (key && (!file || *file != key->file)) return base::SentenceError(change.file + " holds no " + change.key);
    return key;
}

int Undo(const ConfigOptions& options) {
    base::Result<base::Fd> lock = LockPlace(options.appDir);
    if (!lock) return Fail(kUnreachable, lock.GetError().Text());
    base::Result<ConfigJournal> journal = ReadConfigJournal(options.appDir);
    if (!journal) return Fail(kUnreachable, journal.GetError().Text());
    if (journal->changes.empty()) return Fail(kRefused, "there is no change of this console's that could be undone");
    const ConfigChange last = journal->changes.back();
    const base::Result<SettableKey> key = KeyOf(last);
    if (!key) return Fail(kRefused, key.GetError().Text());
    base::Result<Edit> edit = BeginEdit(*key, last.file);
    if (!edit) return Fail(kUnreachable, edit.GetError().Text());
    if (edit->before != last.after && edit->before != last.before) {
        return Fail(kRefused, key->name + " is " + Shown(*key, edit->before) + " in " + last.file + ", not " +
                                  Shown(*key, last.after) +
                                  " as it was set: somebody has changed it since; say what it "
                                  "should be with config set");
    }
    const base::Result<std::string> changed = ChangeValue(*key, last.before, edit->text);
    if (!changed) return Fail(kRefused, last.file + ": " + changed.GetError().Text());
    const std::vector<ConfigFinding> findings = NewFindings(*edit, *changed);
    if (!findings.empty()) return Refuse(options, last.file, findings);
    const base::Status written = edit->before == last.before ? base::Status() : WriteConfig(last.file, *changed);
    if (!written) return Fail(kUnreachable, "nothing is undone: " + written.GetError().Text());
    journal->changes.pop_back();
    const base::Status listed = WriteConfigJournal(options.appDir, *journal);
    ConfigChange undone = last;
    std::swap(undone.before, undone.after);
    lock->Reset();
    const Outcome outcome = TellAgent(options, *key);
    if (listed) return PrintChange(options, *key, undone, outcome, "taken back");
    PrintChange(options, *key, undone, outcome, "taken back, and the list of changes still has it");
    return Fail(kUnreachable, listed.GetError().Text());
}

int Check(const ConfigOptions& options) {
    const std::optional<ConfigFile> file = ConfigFileOf(options.as.empty() ? options.argument : options.as);
    if (!file) {
        return Fail(kUsage, "config check: say with --as which file " + options.argument +
                                " is to be: resource_config, online_config.json, agent.json or components.json");
    }
    // What an operator prepares may stand anywhere: only its content is judged.
    const base::Result<std::string> text = base::ReadWholeFile(options.argument, MostBytesOf(*file));
    const bool tooLong = !text && text.GetError().kind == base::ErrorKind::kTooLarge;
    if (tooLong) return Refuse(options, options.argument, {TooLong(*file)});
    const bool none = !text && text.GetError().kind == base::ErrorKind::kNotFound;
    if (none) {
        return Fail(kUnreachable, options.argument +
                                      ": there is no such file, so nothing is judged: name one that is "
                                      "there, with its whole path or from the directory you are in");
    }
    if (!text) return Fail(kUnreachable, options.argument + ": " + text.GetError().Reason());
    return Refuse(options, options.argument, JudgeConfigText(*file, *text));
}

int Show(const ConfigOptions& options) {
    const ConfigPicture picture = ReadConfigPicture(options.appDir, options.process);
    const std::string text = options.json ? ViewText(ConfigJson(picture)) : WordConfig(picture);
    fputs(text.c_str(), stdout);
    return picture.refusals.empty() ? kOk : kRefused;
}

}  // namespace

int RunConfig(const ConfigOptions& options) {
    if (options.action == "check") return Check(options);
    if (options.action == "set") return Set(options);
    if (options.action == "unset") return Unset(options);
    return options.action == "undo" ? Undo(options) : Show(options);
}

}  // namespace agent
