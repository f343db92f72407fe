// Completion for shells, made from the command line's own definition. Pure.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace agent {

/// The text of a completion for "bash" or "zsh", for the program and all its commands and options. What is between
/// braces in the name of a type is a list of words; types named FILE, DIRECTORY, PROCESS, COMPONENT, KEY and KEY=VALUE
/// are completed by what they name.
std::string MakeCompletion(const CLI::App& app, const std::string& shell);

}  // namespace agent
