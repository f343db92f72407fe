// A changed file handed to the services.
#include "AgentConfigFile.h"

#include <tuple>

#include "AgentLog.h"
#include "AgentPaths.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr unsigned int kMsPerSecond = 1000;

auto TextFileOf(const AgentConfig& config) {
    return std::tie(config.textFile, config.textFileSeconds);
}

}  // namespace

void AgentConfigFile::Tell(const std::string& problem, int level) {
    if (problem != m_told && !problem.empty()) LogLine(problem, level);
    m_told = problem;
}

void AgentConfigFile::Refuse(const base::Error& error) {
    if (m_standing == Standing::kTaken) {
        return Tell("agent configuration refused, the old values stay: " + error.Text(), zel::kLogWarning);
    }
    // What it orders is not known: a host that is to be left untouched must not be touched for a slip of the pen.
    m_standing = Standing::kNeverRead;
    Tell("agent configuration refused, and limits are only observed until it can be read: " + error.Text() +
             "; correct it there, or remove it, and it is taken within seconds",
         zel::kLogError);
}

bool AgentConfigFile::IsInExchange(const base::FileMark& mark) {
    const bool gone = !mark.exists && m_isThere;
    const bool first = gone && !m_missed;
    m_missed = first;
    return first;
}

bool AgentConfigFile::Renew() {
    m_path = ConfigurationFile(m_appDir, zel::kAgentConfigFileName);
    const base::FileMark mark = base::ReadFileMark(m_path);
    if (IsInExchange(mark) || m_seen == mark) return false;
    m_isThere = mark.exists;
    base::Result<AgentConfig> loaded = LoadAgentConfig(m_path);
    if (loaded && base::ReadFileMark(m_path) != mark) {
        loaded = base::SentenceError(m_path + ": it changes while it is read", base::ErrorKind::kBusy);
    }
    if (loaded || loaded.GetError().kind == base::ErrorKind::kMalformed) m_seen = mark;
    if (!loaded) {
        Refuse(loaded.GetError());
        return false;
    }
    m_config = std::move(*loaded);
    if (m_config.fleet) m_config.sinks.fleetSocket = m_appDir + zel::kFleetSocketFile;
    m_standing = Standing::kTaken;
    m_told.clear();
    return true;
}

const AgentConfig& AgentConfigFile::Read() {
    Renew();
    m_sinksInForce = m_config.sinks;
    m_textFileFrom = m_config;
    return m_config;
}

void AgentConfigFile::Follow(zelhost::CHostServices& services) {
    const bool renewed = Renew();
    // What stays as it is goes on undisturbed.
    const bool sinks = m_config.sinks != m_sinksInForce;
    const bool textFile = m_isMain && TextFileOf(m_config) != TextFileOf(m_textFileFrom);
    if (sinks && !FollowSinks(services)) return;
    if (textFile && !FollowTextFile(services)) return;
    if (renewed || sinks || textFile) LogLine("agent configuration " + m_path + " is read again", zel::kLogInfo);
}

bool AgentConfigFile::FollowSinks(zelhost::CHostServices& services) {
    std::string problem;
    if (!services.SetSinks(m_config.sinks, problem)) {
        Tell("agent configuration " + m_path + ": " + problem + "; it is tried again", zel::kLogWarning);
        return false;
    }
    m_sinksInForce = m_config.sinks;
    m_told.clear();
    return true;
}

bool AgentConfigFile::FollowTextFile(zelhost::CHostServices& services) {
    if (!services.SetTextFile(m_config.textFile, m_config.textFileSeconds * kMsPerSecond)) {
        Tell("agent configuration " + m_path + ": this process has no metrics, so no text file of them",
             zel::kLogWarning);
        return false;
    }
    m_textFileFrom = m_config;
    m_told.clear();
    return true;
}

}  // namespace agent
