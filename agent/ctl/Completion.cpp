// Two shells, one table: what may follow each command and each option.
#include "Completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <vector>

#include "ConfigFiles.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

/// What may stand in one place.
struct Choice {
    std::string words;  ///< between blanks
    std::string kind;   ///< "file", "directory", "process"; empty: the words alone
};

struct ValuedOption {
    std::string path;   ///< command that it belongs to; "*": all of them
    std::string names;  ///< "--type|-t"
    Choice choice;
};

struct Command {
    std::string path;      ///< " config set"; empty: the program
    std::string commands;  ///< below it, between blanks
    std::string options;
    Choice place;  ///< of its arguments
};

struct Table {
    std::vector<Command> commands;
    std::vector<ValuedOption> valued;
};

std::string Joined(const std::string& text, const std::string& more, const char* between) {
    return text.empty() || more.empty() ? text + more : text + between + more;
}

std::string Keys(bool withSign, bool ofFleet) {
    std::string words;
    for (const SettableKey& key : SettableKeys()) {
        if (!ofFleet || key.file == ConfigFile::kOnline) words = Joined(words, key.name + (withSign ? "=" : ""), " ");
    }
    return words;
}

Choice ChoiceOf(const std::string& type) {
    if (type == "FILE") return {"", "file"};
    if (type == "DIRECTORY") return {"", "directory"};
    if (type == "PROCESS" || type == "COMPONENT") return {"", "process"};
    if (type == "KEY" || type == "KEY=VALUE") return {Keys(type != "KEY", false), ""};
    if (type == "FLEET-KEY" || type == "FLEET-KEY=VALUE") return {Keys(type != "FLEET-KEY", true), ""};
    const size_t begin = type.find('{');
    const size_t end = type.find('}', begin == std::string::npos ? 0 : begin);
    if (begin == std::string::npos || end == std::string::npos) return {};
    std::string words = type.substr(begin + 1, end - begin - 1);
    for (char& c : words) c = c == ',' ? ' ' : c;
    return {words, ""};
}

void AddOption(const CLI::Option& option, Command& command, Table& table) {
    std::string names;
    for (const std::string& name : option.get_lnames()) names = Joined(names, "--" + name, "|");
    for (const std::string& name : option.get_snames()) names = Joined(names, "-" + name, "|");
    const Choice choice = ChoiceOf(option.get_type_name());
    if (names.empty()) {
        command.place = choice;
        return;
    }
    const bool help = !command.path.empty() && option.get_lnames() == std::vector<std::string>{"help"};
    for (const std::string& name : option.get_lnames()) {
        if (!help) command.options = Joined(command.options, "--" + name, " ");  // the program's own stands there
    }
    if (option.get_items_expected_max() == 0) return;
    table.valued.push_back({command.path.empty() ? "*" : command.path, names, choice});
}

/// inherited: options of the group that the command is of.
void AddCommand(const CLI::App& app, const std::string& path, const std::string& inherited, Table& table) {
    Command command;
    command.path = path;
    command.options = inherited;
    for (const CLI::Option* option : app.get_options()) AddOption(*option, command, table);
    const std::vector<const CLI::App*> below = app.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* one : below) command.commands = Joined(command.commands, one->get_name(), " ");
    table.commands.push_back(command);
    const std::string handedDown = path.empty() ? "" : command.options;
    for (const CLI::App* one : below) AddCommand(*one, path + " " + one->get_name(), handedDown, table);
}

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

/// `case` over the options that take a value, by command: sets `list` or `kind`.
std::string ValueCases(const Table& table) {
    std::string text;
    for (const ValuedOption& option : table.valued) {
        const std::string path = option.path == "*" ? "*" : Quoted(option.path) + "*";  // taken below it as well
        std::string pattern;
        for (size_t at = 0; at < option.names.size();) {
            const size_t end = std::min(option.names.find('|', at), option.names.size());
            pattern = Joined(pattern, path + Quoted(" " + option.names.substr(at, end - at)), "|");
            at = end + 1;
        }
        text += "        " + pattern + ") list=" + Quoted(option.choice.words) +
                " kind=" + (option.choice.kind.empty() ? "none" : option.choice.kind) + " ;;\n";
    }
    return text;
}

std::string ValuedNames(const Table& table) {
    std::string names;
    for (const ValuedOption& option : table.valued) names = Joined(names, option.names, "|");
    return names;
}

std::string CommandNames(const Table& table) {
    std::string names;
    for (const Command& command : table.commands) {
        if (!command.path.empty()) names = Joined(names, Quoted(command.path), "|");
    }
    return names;
}

std::string OptionCases(const Table& table) {
    std::string text;
    for (const Command& command : table.commands) {
        const std::string& global = table.commands[0].options;
        const std::string options = command.path.empty() ? global : Joined(command.options, global, " ");
        text += "            " + Quoted(command.path) + ") list=" + Quoted(options) + " ;;\n";
    }
    return text;
}

std::string PlaceCases(const Table& table) {
    std::string text;
    for (const Command& command : table.commands) {
        text += "            " + Quoted(command.path) +
                ") list=" + Quoted(Joined(command.commands, command.place.words, " ")) +
                " kind=" + (command.place.kind.empty() ? "none" : command.place.kind) + " ;;\n";
    }
    return text;
}

/// What both shells have in common: from `word`, `before`, `path`, `places` to `list` and `kind`.
std::string Decision(const Table& table) {
    return "    case \"$way $before\" in\n" + ValueCases(table) +
           "    esac\n"
           "    if [ -z \"$kind\" ]; then\n"
           "        case \"$word\" in\n"
           "        -*) case \"$way\" in\n" +
           OptionCases(table) +
           "            esac ;;\n"
           "        *) if [ \"$places\" -eq 0 ]; then case \"$way\" in\n" +
           PlaceCases(table) +
           "            esac; fi ;;\n"
           "        esac\n"
           "    fi\n";
}

/// One word before the cursor, in `one`.
std::string Step(const Table& table) {
    return "        case \"$one\" in\n"
           "        --app-dir) skip=1 ;;\n"
           "        " +
           ValuedNames(table) +
           ") skip=2 ;;\n"
           "        -*|=) ;;\n"
           "        *) case \"$way $one\" in\n"
           "            " +
           CommandNames(table) +
           ") way=\"$way $one\" ;;\n"
           "            *) places=$((places + 1)) ;;\n"
           "            esac ;;\n"
           "        esac\n";
}

std::string Locals() {
    return std::string("    local way= places=0 skip=0 list= kind= one name dir=${ZEL_APP_DIR:-") +
           zel::kDefaultAppDir + "}\n";
}

/// The names of processes by their sockets. One with other letters would be expanded by the shell.
std::string Sockets(const char* pattern) {
    return std::string("    process) for name in \"$dir\"/run/") + pattern +
           "; do\n"
           "            [ -S \"$name\" ] || continue\n"
           "            name=${name##*/}\n"
           "            name=${name%.ctl}\n"
           "            case \"$name\" in *[!A-Za-z0-9._-]*) continue ;; esac\n"
           "            list=\"$list $name\"\n"
           "        done ;;\n";
}

std::string Bash(const Table& table) {
    return "# Completion of tervanectl for bash, made by: tervanectl completion bash\n"
           "_tervanectl() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} at=1\n" +
           Locals() +
           "    if [ \"$word\" = = ]; then word=; else [ \"$before\" != = ] || before=${COMP_WORDS[COMP_CWORD-2]}; fi\n"
           "    while [ \"$at\" -lt \"$COMP_CWORD\" ]; do\n"
           "        one=${COMP_WORDS[at]} at=$((at + 1))\n"
           "        if [ \"$skip\" -ne 0 ]; then\n"
           "            [ \"$one\" != = ] || continue\n"
           "            [ \"$skip\" -ne 1 ] || dir=$one\n"
           "            skip=0\n"
           "            continue\n"
           "        fi\n" +
           Step(table) + "    done\n" + Decision(table) +
           "    COMPREPLY=()\n"
           "    case \"$kind\" in\n"
           "    file) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- \"$word\"); return ;;\n"
           "    directory) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- \"$word\"); return "
           ";;\n"
           "" +
           Sockets("*.ctl") +
           "    esac\n"
           "    mapfile -t COMPREPLY < <(compgen -W \"$list\" -- \"$word\")\n"
           "    case \"${COMPREPLY[0]}\" in *=) compopt -o nospace 2>/dev/null ;; esac\n"
           "    return 0\n"
           "}\n"
           "complete -F _tervanectl tervanectl\n";
}

std::string Zsh(const Table& table) {
    return "#compdef tervanectl\n"
           "# Completion of tervanectl for zsh, made by: tervanectl completion zsh\n"
           "_tervanectl() {\n"
           "    local word=${words[CURRENT]} before=${words[CURRENT-1]} at=2\n" +
           Locals() +
           "    while [ \"$at\" -lt \"$CURRENT\" ]; do\n"
           "        one=${words[at]} at=$((at + 1))\n"
           "        if [ \"$skip\" -ne 0 ]; then\n"
           "            [ \"$skip\" -ne 1 ] || dir=$one\n"
           "            skip=0\n"
           "            continue\n"
           "        fi\n" +
           Step(table) + "    done\n" + Decision(table) +
           "    case \"$kind\" in\n"
           "    file) _files; return ;;\n"
           "    directory) _files -/; return ;;\n"
           "" +
           Sockets("*.ctl(N)") +
           "    esac\n"
           "    case \"$list\" in\n"
           "    *=*) compadd -S '' -- ${=list} ;;\n"
           "    *) compadd -- ${=list} ;;\n"
           "    esac\n"
           "}\n"
           "if [ \"$funcstack[1]\" = _tervanectl ]; then _tervanectl \"$@\"; else compdef _tervanectl tervanectl; fi\n";
}

}  // namespace

std::string MakeCompletion(const CLI::App& app, const std::string& shell) {
    Table table;
    AddCommand(app, "", "", table);
    return shell == "zsh" ? Zsh(table) : Bash(table);
}

}  // namespace agent
