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

void AgentConfigFile::Tell(const std::string& problem) {
    if (problem != m_told && !problem.empty()) LogLine(problem, zel::kLogWarning);
    m_told = problem;
}

bool AgentConfigFile::Renew() {
    m_path = ConfigurationFile(m_appDir, zel::kAgentConfigFileName);
    const base::FileMark mark = base::ReadFileMark(m_path);
    if (m_seen == mark) return false;
    base::Result<AgentConfig> loaded = LoadAgentConfig(m_path);
    if (loaded || loaded.GetError().kind == base::ErrorKind::kMalformed) m_seen = mark;
    if (!loaded) {
        Tell("agent configuration refused, the old values stay: " + loaded.GetError().Text());
        return false;
    }
    m_config = std::move(*loaded);
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
        Tell("agent configuration " + m_path + ": " + problem + "; it is tried again");
        return false;
    }
    m_sinksInForce = m_config.sinks;
    m_told.clear();
    return true;
}

bool AgentConfigFile::FollowTextFile(zelhost::CHostServices& services) {
    if (!services.SetTextFile(m_config.textFile, m_config.textFileSeconds * kMsPerSecond)) {
        Tell("agent configuration " + m_path + ": this process has no metrics, so no text file of them");
        return false;
    }
    m_textFileFrom = m_config;
    m_told.clear();
    return true;
}

}  // namespace agent
