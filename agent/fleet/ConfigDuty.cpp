// From the levels at the broker to the file, in steps of which each one that fails leaves the file that is there.
#include "fleet/ConfigDuty.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "Printable.h"
#include "base/FilePath.h"
#include "base/FileReplace.h"
#include "base/TrustedRead.h"
#include "platform/zel/AgentNames.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr char kOlderEnd[] = ".1";  // behind the kept file's name: the one that was kept before
constexpr mode_t kNewMode = 0640;
constexpr mode_t kMostMode = 0644;
/// An answer may be lost, and a broker may be away for a moment: that is said when it lasts.
constexpr int kSaidAfter = 3;

bool IsBlank(const std::optional<std::string>& text) {
    return !text || text->find_first_not_of(" \t\r\n") == std::string::npos;
}

/// Returns: the revision of a text that the fleet wrote; 0: it did not.
uint64_t RevisionOf(const std::optional<std::string>& text) {
    const std::optional<FleetOrigin> origin = text ? ReadFleetOrigin(*text) : std::nullopt;
    return origin ? origin->revision : 0;
}

/// Whether the fleet's file is not what the same levels at the same revision give. Other groups of the host, for one,
/// make another file as well.
bool IsChangedByHand(const std::optional<std::string>& local, const std::string& text) {
    const std::optional<FleetOrigin> before = local ? ReadFleetOrigin(*local) : std::nullopt;
    const std::optional<FleetOrigin> now = ReadFleetOrigin(text);
    return before && now && before->revision == now->revision && before->levels == now->levels;
}

/// Whether the fleet once gave something and now gives nothing at all.
bool IsEmptied(const std::vector<RemoteLevel>& levels, const std::optional<std::string>& local) {
    const auto named = [&levels](const std::string& name) {
        return std::any_of(levels.begin(), levels.end(), [&](const RemoteLevel& l) { return l.name == name; });
    };
    bool emptied = false;
    for (const RemoteLevel& level : levels) {
        if (level.text) return false;
        emptied = emptied || level.revision > 0;
    }
    const std::optional<FleetOrigin> origin = local ? ReadFleetOrigin(*local) : std::nullopt;
    if (!origin) return emptied;
    // A group that this host has left gives it nothing any more.
    return emptied || std::any_of(origin->levels.begin(), origin->levels.end(),
                                  [&](const auto& level) { return !named(level.second); });
}

}  // namespace

std::vector<std::string> ConfigLevels(const std::string& host, const std::vector<std::string>& groups) {
    std::vector<std::string> names{"all"};
    for (const std::string& group : groups) names.push_back("group." + fleet::EscapeName(group));
    names.push_back("host." + fleet::EscapeName(host));
    return names;
}

ConfigDuty::ConfigDuty(ConfigDutyOptions options)
    : m_options(std::move(options)),
      m_path(m_options.appDir + zel::kOnlineConfigFileName),
      m_keptPath(m_path + kBeforeFleetEnd),
      m_names(ConfigLevels(m_options.host, m_options.groups)) {}

ConfigDuty::Outcome ConfigDuty::Look(FleetKeys& keys) {
    const base::Result<Local> local = ReadLocal();
    if (local) NoteFile(local->text);
    const base::Status usable = keys.Judge();
    std::vector<RemoteLevel> levels;
    const base::Status read = usable ? ReadLevels(keys, levels) : usable;
    if (!read) {
        const bool isFinal = read.GetError().kind == base::ErrorKind::kRefused;
        if (++m_unreadable < kSaidAfter && !isFinal) return Outcome::kAgain;
        return Fail("the fleet's configuration is not read: " + read.GetError().Text());
    }
    m_unreadable = 0;
    if (IsStale(levels, local ? RevisionOf(local->text) : 0)) return Outcome::kAgain;
    for (const RemoteLevel& level : levels) m_seen = std::max(m_seen, level.revision);
    return local ? Settle(levels, *local) : Fail(local.GetError().Text());
}

base::Status ConfigDuty::ReadLevels(FleetKeys& keys, std::vector<RemoteLevel>& levels) {
    for (const std::string& name : m_names) {
        const fleet::KvRead read = keys.GetLevel(name);
        RemoteLevel level;
        level.name = name;
        if (read.entry) {
            level.revision = read.entry->revision;
            if (!read.entry->deleted) level.text = read.entry->value;
        } else if (read.answer.outcome != fleet::Answer::Outcome::kNotFound) {
            return base::SentenceError("\"" + name + "\": " + Printable(read.answer.text),
                                       read.answer.notPermitted ? base::ErrorKind::kRefused : base::ErrorKind::kOther);
        }
        levels.push_back(std::move(level));
    }
    return {};
}

bool ConfigDuty::IsStale(const std::vector<RemoteLevel>& levels, uint64_t fileRevision) {
    std::vector<uint64_t> revisions;
    uint64_t highest = 0;
    bool older = false;
    for (const RemoteLevel& level : levels) {
        revisions.push_back(level.revision);
        highest = std::max(highest, level.revision);
        const auto known = m_read.find(level.name);
        older = older || (known != m_read.end() && level.revision < known->second);
    }
    // Before anything was read, the file says what the fleet had.
    if (m_read.empty()) older = highest < fileRevision;
    if (older && revisions != m_doubted) {
        m_doubted = std::move(revisions);
        return true;
    }
    if (older) m_seen = 0;
    m_doubted.clear();
    for (const RemoteLevel& level : levels) m_read[level.name] = level.revision;
    return false;
}

base::Result<ConfigDuty::Local> ConfigDuty::ReadLocal() const {
    Local local;
    local.mark = base::ReadFileMark(m_path);
    base::Result<std::string> text = base::ReadTrusted(m_path, kMostRemoteBytes, base::TrustScope::kWithPlace);
    if (text) {
        local.text = std::move(*text);
        return local;
    }
    const auto stays = [this](const base::Error& error) {
        return base::SentenceError(m_path + " stays as it is: " + base::ReasonOf(error, m_path));
    };
    if (text.GetError().kind != base::ErrorKind::kNotFound) return stays(text.GetError());
    const base::Result<base::Fd> place = base::OpenTrustedDirectory(base::DirectoryOf(m_path));
    if (!place) return stays(place.GetError());
    return local;
}

ConfigDuty::Outcome ConfigDuty::Settle(const std::vector<RemoteLevel>& levels, const Local& local) {
    const RemoteDecision decision = DecideRemoteConfig(levels, local.text);
    m_pinned = local.text && IsPinned(*local.text);
    if (!m_pinned && IsEmptied(levels, local.text)) {
        const base::Status fallen = FallBack(local);
        if (!fallen) return Fail(fallen.GetError().Text());
        SetError("");
        return Outcome::kDone;
    }
    if (decision.action == RemoteAction::kWrite) {
        const base::Status written = Write(decision.text, decision.revision, local);
        if (!written) return Fail(written.GetError().Text());
    }
    SetError(m_pinned ? "" : decision.error);
    return Outcome::kDone;
}

mode_t ConfigDuty::ModeOf(const Local& local) const {
    struct stat info {};
    if (!local.text || lstat(m_path.c_str(), &info) != 0) return kNewMode;
    return info.st_mode & kMostMode;
}

base::Status ConfigDuty::CheckUnchanged(const Local& local) const {
    if (base::ReadFileMark(m_path) == local.mark) return {};
    return base::SentenceError(m_path + " was changed by somebody else meanwhile, and is looked at again");
}

base::Status ConfigDuty::KeepOwn(const Local& local) {
    if (IsBlank(local.text) || RevisionOf(local.text) > 0) return {};
    if (base::ReadFileMark(m_keptPath).exists) {
        const auto kept = base::ReadTrusted(m_keptPath, kMostRemoteBytes, base::TrustScope::kWithPlace);
        if (kept && *kept == *local.text) return {};
        if (!kept) {
            return base::SentenceError(
                m_path + " stays: " + m_keptPath +
                ", which is to give way to it, is not read: " + base::ReasonOf(kept.GetError(), m_keptPath));
        }
        // The newest is the host's own one; what was kept before may be of years ago.
        const std::string older = m_keptPath + kOlderEnd;
        const base::Status moved =
            base::ReplaceFile(older, *kept, ModeOf(local), base::Durability::kSynced, base::Owner::kAsBefore);
        if (!moved) return moved;
        Say(m_path + " was not the fleet's and gives way to it; what was kept before is " + older + " now. \"" +
            kPinnedRemark + "\": true in the file keeps the fleet's away");
    }
    const base::Status kept =
        base::ReplaceFile(m_keptPath, *local.text, ModeOf(local), base::Durability::kSynced, base::Owner::kAsBefore);
    if (!kept) return kept;
    Say("the host's own online configuration is kept as " + m_keptPath);
    return {};
}

base::Status ConfigDuty::Write(const std::string& text, uint64_t revision, const Local& local) {
    if (IsChangedByHand(local.text, text)) {
        Say(m_path + " is not what the fleet's revision " + std::to_string(revision) +
            " gives this host, and is set back; \"" + kPinnedRemark + "\": true in it keeps a change");
    }
    base::Status status = KeepOwn(local);
    if (status) status = CheckUnchanged(local);
    if (!status) return status;
    status = base::ReplaceFile(m_path, text, ModeOf(local), base::Durability::kSynced, base::Owner::kAsBefore);
    const bool written = status || status.GetError().kind == base::ErrorKind::kNotSynced;
    if (!written) return status;
    NoteFile(text);
    m_unread = true;
    Say("the fleet's configuration, revision " + std::to_string(revision) + ", is written to " + m_path +
        (status ? "" : ", but " + status.GetError().Text()));
    return {};
}

base::Status ConfigDuty::FallBack(const Local& local) {
    base::Result<std::string> kept = base::ReadTrusted(m_keptPath, kMostRemoteBytes, base::TrustScope::kWithPlace);
    const bool none = !kept && kept.GetError().kind == base::ErrorKind::kNotFound;
    if (RevisionOf(local.text) == 0) {
        // A way back that was cut short, between its two steps.
        return kept && local.text == *kept ? base::RemoveReplaced(m_keptPath) : base::Status();
    }
    if (!kept && !none) {
        return base::SentenceError(m_keptPath + " is not put back: " + base::ReasonOf(kept.GetError(), m_keptPath));
    }
    base::Status status = CheckUnchanged(local);
    if (!status) return status;
    if (none) {
        status = base::RemoveReplaced(m_path);
    } else {
        status = base::ReplaceFile(m_path, *kept, ModeOf(local), base::Durability::kSynced, base::Owner::kAsBefore);
        if (status) status = base::RemoveReplaced(m_keptPath);
    }
    if (!status) return status;
    NoteFile(none ? std::nullopt : std::optional<std::string>(std::move(*kept)));
    m_unread = true;
    Say("the fleet gives this host no configuration any more: " +
        (none ? m_path + " is removed" : "the host's own file is back as " + m_path));
    return {};
}

void ConfigDuty::OnRead(const std::string& problem) {
    if (!m_known) return;
    m_unread = false;
    OnProblem(problem);
}

void ConfigDuty::OnProblem(const std::string& problem) {
    if (m_unread) return;
    m_problem = problem;
    if (problem.empty()) m_applied = m_fileRevision;
}

AppliedConfig ConfigDuty::Get() const {
    AppliedConfig config;
    config.seen = m_seen;
    config.applied = m_pinned ? 0 : m_applied;
    config.pinned = m_pinned;
    config.error = m_error;
    if (config.error.empty() && !m_problem.empty()) config.error = "the agent refuses the file: " + m_problem;
    return config;
}

void ConfigDuty::NoteFile(const std::optional<std::string>& text) {
    const uint64_t revision = RevisionOf(text);
    if (!m_known || revision != m_fileRevision) m_unread = true;
    m_known = true;
    m_fileRevision = revision;
}

ConfigDuty::Outcome ConfigDuty::Fail(const std::string& error) {
    SetError(error);
    return Outcome::kAgain;
}

void ConfigDuty::SetError(const std::string& error) {
    if (error != m_error && !error.empty()) Say(error);
    m_error = error;
}

void ConfigDuty::Say(const std::string& sentence) const {
    if (m_options.log) m_options.log(sentence);
}

}  // namespace agent
