// The files that an administrator writes: which of them holds a key, what the agent would refuse of a text, and a text
// with one value changed. Judged by the agent's own parsers.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/Result.h"
#include "platform/zel/LimitKeys.h"

namespace agent {

enum class ConfigFile { kResource, kOnline, kAgent, kComponents };

/// Names as they are typed and shown, in the order of ConfigFile.
constexpr const char* kConfigFileNames[] = {"resource_config", "online_config.json", "agent.json", "components.json"};
const char* NameOf(ConfigFile file);

/// Something for which the agent refuses a file, or passes over a line of it.
struct ConfigFinding {
    std::string key;     ///< empty: it is about the whole file
    std::string value;   ///< as it stands there; may be empty
    std::string reason;  ///< one sentence
};

/// The place of a file in an application directory.
std::string PathOf(ConfigFile file, const std::string& appDir);
/// By the last part of a path; none when the name is no such file's.
std::optional<ConfigFile> ConfigFileOf(const std::string& path);

/// Reads a file as the agent does: trusted with its place. Errors: kNotFound when there is none; otherwise why the
/// agent would not read it.
base::Result<std::string> ReadConfigText(const std::string& path);

/// As much as the agent reads of a file: a longer one is refused as a whole.
size_t MostBytesOf(ConfigFile file);
/// That it is longer.
ConfigFinding TooLong(ConfigFile file);

/// Returns: empty when the agent takes all of the text. Pure.
std::vector<ConfigFinding> JudgeConfigText(ConfigFile file, const std::string& text);

/// One key that can be set.
struct SettableKey {
    std::string name;
    ConfigFile file = ConfigFile::kOnline;
    const zel::LimitKey* limit = nullptr;  ///< null: a key of agent.json
};
/// All of them: the online configuration's, the resource file's, those of agent.json.
std::vector<SettableKey> SettableKeys();
/// Letter case does not matter. Errors: what is known.
base::Result<SettableKey> FindSettable(const std::string& name);

/// The value of a key as the text has it: none when it has not. Pure.
std::optional<std::string> FindValue(const SettableKey& key, const std::string& text);

/// The text with the key's value changed, or without the key when `value` is none; the rest stays as it is, comments
/// of the resource file included. Pure. Errors: the text cannot be changed because it is no configuration.
base::Result<std::string> ChangeValue(const SettableKey& key, const std::optional<std::string>& value,
                                      const std::string& text);

}  // namespace agent
