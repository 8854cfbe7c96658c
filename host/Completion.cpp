#include "host/Completion.h"

#include <CLI/App.hpp>

#include <utility>

namespace quendo::host {
namespace {

struct Choice {
    std::string name;
    std::string description;
};

std::vector<Choice> commandsOf(const CLI::App& app) {
    std::vector<Choice> result;
    for (const auto* command : app.get_subcommands([](const CLI::App*) { return true; }))
        result.push_back({command->get_name(), command->get_description()});
    return result;
}

std::vector<Choice> optionsOf(const CLI::App& app) {
    std::vector<Choice> result;
    for (const auto* option : app.get_options()) {
        for (const auto& name : option->get_snames())
            result.push_back({"-" + name, option->get_description()});
        for (const auto& name : option->get_lnames())
            result.push_back({"--" + name, option->get_description()});
    }
    return result;
}

std::string namesOf(const std::vector<Choice>& choices) {
    std::string result;
    for (const auto& choice : choices)
        result += (result.empty() ? "" : " ") + choice.name;
    return result;
}

/// In single quotes; `apostrophe` is how the shell writes one inside them.
std::string quoted(const std::string& text, const std::string& apostrophe) {
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? apostrophe : std::string(1, c);
    return result + "'";
}

std::string joined(const std::vector<std::string>& words) {
    std::string result;
    for (const auto& word : words)
        result += (result.empty() ? "" : " ") + word;
    return result;
}

/// What follows these options, and what these commands take.
const std::vector<std::pair<std::string, std::string>> optionValues = {
    {"--log", "detail notice exception"},
    {"--color", "auto always never"},
};
std::vector<std::pair<std::string, std::string>> commandValues(const CLI::App& app) {
    return {{"completion", joined(completionShells())}, {"help", namesOf(commandsOf(app))}};
}

/// A case for each option that takes a value, in a statement about the word before the current one.
std::string optionCases(const std::string& before, const std::string& after) {
    std::string cases;
    for (const auto& [option, words] : optionValues)
        cases += "    " + option + ") " + before + words + after + " ;;\n";
    return cases;
}

/// A case for each command that takes words of its own, in a statement about the command.
std::string commandCases(const CLI::App& app, const std::string& before, const std::string& after) {
    std::string cases;
    for (const auto& [command, words] : commandValues(app))
        cases += "            " + command + ") " + before + words + after + " ;;\n";
    return cases;
}

std::string bashScript(const CLI::App& app) {
    std::string cases;
    for (const auto& command : commandsOf(app))
        cases += "        " + command.name + ") words='" +
                 namesOf(optionsOf(*app.get_subcommand(command.name))) + "' ;;\n";
    return "_quendo() {\n"
           "    local current=\"${COMP_WORDS[COMP_CWORD]}\" "
           "previous=\"${COMP_WORDS[COMP_CWORD-1]}\"\n"
           "    local command='' words='' i\n"
           "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "        case \"${COMP_WORDS[i]}\" in\n"
           "        --log|--color|-C) ((i++)) ;;\n"
           "        -*) ;;\n"
           "        *) command=\"${COMP_WORDS[i]}\"; break ;;\n"
           "        esac\n"
           "    done\n"
           "    COMPREPLY=()\n"
           "    case \"$command\" in\n"
           "        '') words='" +
           namesOf(commandsOf(app)) + " " + namesOf(optionsOf(app)) + "' ;;\n" + cases +
           "    esac\n"
           "    case \"$previous\" in\n"
           "    -C) compopt -o dirnames 2>/dev/null; return ;;\n" +
           optionCases("words='", "'") +
           "    *)\n"
           "        if [[ \"$current\" != -* ]]; then\n"
           "            case \"$command\" in\n"
           "            '') ;;\n" +
           commandCases(app, "words='", "'") +
           "            *) compopt -o default 2>/dev/null; return ;;\n"
           "            esac\n"
           "        fi ;;\n"
           "    esac\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
           "}\n"
           "complete -F _quendo quendo\n";
}

std::string zshScript(const CLI::App& app) {
    const auto described = [](const std::vector<Choice>& choices) {
        std::string result;
        for (const auto& choice : choices)
            result += " " + quoted(choice.name + ":" + choice.description, "'\\''");
        return result;
    };
    std::string cases;
    for (const auto& command : commandsOf(app))
        cases += "        " + command.name + ") choices=(" +
                 described(optionsOf(*app.get_subcommand(command.name))) + " ) ;;\n";
    return "#compdef quendo\n"
           "_quendo() {\n"
           "    local -a choices\n"
           "    local command=''\n"
           "    local -i i\n"
           "    for ((i = 2; i < CURRENT; i++)); do\n"
           "        case \"$words[i]\" in\n"
           "        --log|--color|-C) ((i++)) ;;\n"
           "        -*) ;;\n"
           "        *) command=\"$words[i]\"; break ;;\n"
           "        esac\n"
           "    done\n"
           "    case \"$command\" in\n"
           "        '') choices=(" +
           described(commandsOf(app)) + described(optionsOf(app)) + " ) ;;\n" + cases +
           "    esac\n"
           "    case \"$words[CURRENT-1]\" in\n"
           "    -C) _files -/; return ;;\n" +
           optionCases("compadd -- ", "; return") +
           "    esac\n"
           "    if [[ \"$words[CURRENT]\" == -* ]]; then\n"
           "        _describe -o 'option' choices\n"
           "    elif [[ -n \"$command\" ]]; then\n"
           "        case \"$command\" in\n" +
           commandCases(app, "compadd -- ", "") +
           "            *) _files ;;\n"
           "        esac\n"
           "    else\n"
           "        _describe 'command' choices\n"
           "    fi\n"
           "}\n"
           // When zsh autoloads the installed file, the whole script runs as the first call.
           "if [[ \"$funcstack[1]\" == _quendo ]]; then\n"
           "    _quendo \"$@\"\n"
           "else\n"
           "    compdef _quendo quendo\n"
           "fi\n";
}

std::string fishScript(const CLI::App& app) {
    const auto option = [](const Choice& choice, const std::string& condition) {
        const bool isLong = choice.name.starts_with("--");
        std::string line = "complete -c quendo -n '" + condition + "' " +
                           (isLong ? "-l " + choice.name.substr(2) : "-o " + choice.name.substr(1));
        for (const auto& [name, words] : optionValues)
            if (choice.name == name)
                line += " -xa '" + words + "'";
        if (choice.name == "-C")
            line += " -xa '(__fish_complete_directories)'";
        return line + " -d " + quoted(choice.description, "\\'") + "\n";
    };
    const std::string none = "not __fish_seen_subcommand_from " + namesOf(commandsOf(app));
    std::string result;
    for (const auto& choice : optionsOf(app))
        result += option(choice, none);
    for (const auto& command : commandsOf(app)) {
        result += "complete -c quendo -f -n '" + none + "' -a " + command.name + " -d " +
                  quoted(command.description, "\\'") + "\n";
        for (const auto& choice : optionsOf(*app.get_subcommand(command.name)))
            result += option(choice, "__fish_seen_subcommand_from " + command.name);
    }
    for (const auto& [command, words] : commandValues(app))
        result += "complete -c quendo -f -n '__fish_seen_subcommand_from " + command + "' -a '" +
                  words + "'\n";
    return result;
}

} // namespace

const std::vector<std::string>& completionShells() {
    static const std::vector<std::string> shells = {"bash", "zsh", "fish"};
    return shells;
}

std::string completionScript(const CLI::App& app, const std::string& shell) {
    return shell == "bash" ? bashScript(app) : shell == "zsh" ? zshScript(app) : fishScript(app);
}

} // namespace quendo::host
