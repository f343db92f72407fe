// conf/agent.json: where the events of this agent go beside its own file, and its metrics beside their socket; changed
// while it runs.
#pragma once

#include <string>

#include "base/FileIo.h"
#include "base/Result.h"
#include "platform/host/HostServices.h"

namespace agent {

/// What the file may say; without it nothing but the JSON-lines file is written.
struct AgentConfig {
    bool syslog = false;
    std::string httpUrl;  ///< empty: off
    std::string httpCaFile;
    std::string httpHeader;
    bool httpVerifyTls = true;
    unsigned int httpTimeoutMs = 5000;
    std::string textFile;  ///< empty: none
    unsigned int textFileSeconds = 15;
};

/// Errors: which key, and what it takes. Pure.
base::Result<AgentConfig> ParseAgentConfig(const std::string& text);

/// Reads the file; one that is not there says nothing. Errors: named with the path; also when others could write it.
base::Result<AgentConfig> LoadAgentConfig(const std::string& path);

/// Fills in what the file says about the delivery.
void ApplyDelivery(const AgentConfig& config, zelhost::DeliveryOptions& delivery);
/// Fills in all of it. The text file is the main process's: the others have none.
void ApplyAgentConfig(const AgentConfig& config, zelhost::HostOptions& host);

/// Follows the file. Thread-safety: the main thread alone.
class AgentConfigFile {
public:
    AgentConfigFile(std::string path, bool isMain) : m_path(std::move(path)), m_isMain(isMain) {}

    /// Returns: what the file says now, what a bad file said before it; the log says why it is bad.
    const AgentConfig& Read();
    /// Hands a file that has changed to the services. A bad one changes nothing and is told once.
    void Follow(zelhost::CHostServices& services);

private:
    /// Returns: whether there is a new state of the file that can be used.
    bool Renew();

    void FollowSinks(zelhost::CHostServices& services) const;
    void FollowTextFile(zelhost::CHostServices& services) const;

    const std::string m_path;
    const bool m_isMain;
    base::FileMark m_mark;
    AgentConfig m_config;
};

}  // namespace agent
