#include "ruxctl/completion.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "ruxctl/client.h"
#include "ruxctl/database.h"

namespace ruxctl {
namespace {

bool isForPeople(const CLI::App& command) {
    return !command.get_group().empty();
}

/// The words that may follow a command: its subcommands and options.
std::string wordsOf(const CLI::App& command) {
    std::string words;
    for (const CLI::App* subcommand : command.get_subcommands({})) {
        if (isForPeople(*subcommand)) words += subcommand->get_name() + " ";
    }
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) words += "--" + name + " ";
    }
    if (!words.empty()) words.pop_back();
    return words;
}

/// What a positional argument of the command is: "spaces", "operations", "files", or nothing.
const char* argumentOf(const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
        if (option->nonpositional()) continue;
        const std::string name = option->get_name(true);
        if (name == "NAME" && command.get_name() != "getprop" && command.get_name() != "setprop")
            return "spaces";
        if (name == "OPERATION") return "operations";
        if (name == "DIR" || name == "PATH") return "files";
    }
    return "";
}

void printBash(const CLI::App& app) {
    std::cout << R"sh(# Completion of ruxctl for bash. Made by "ruxctl completion bash".
_ruxctl_spaces() { "${COMP_WORDS[0]}" completion spaces 2>/dev/null; }
_ruxctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} words='' argument='' command=''
    COMPREPLY=()
    if [ "$previous" = --space ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_ruxctl_spaces)" -- "$current")
        return
    elif [ "$previous" = --sort ]; then
        mapfile -t COMPREPLY < <(compgen -W 'size count' -- "$current")
        return
    elif [ "$previous" = --html ]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current"); compopt -o filenames 2>/dev/null
        return
    fi
    [ "$COMP_CWORD" -gt 1 ] && command=${COMP_WORDS[1]}
    [ "$command" = except ] && [ "$COMP_CWORD" -gt 2 ] && command="except ${COMP_WORDS[2]}"
    case $command in
)sh";
    const auto printCase = [](const std::string& name, const CLI::App& command) {
        std::cout << "        '" << name << "') words='" << wordsOf(command) << "' argument='"
                  << argumentOf(command) << "' ;;\n";
    };
    printCase("", app);
    for (const CLI::App* command : app.get_subcommands({})) {
        if (!isForPeople(*command)) continue;
        printCase(command->get_name(), *command);
        for (const CLI::App* subcommand : command->get_subcommands({}))
            printCase(command->get_name() + " " + subcommand->get_name(), *subcommand);
    }
    std::cout << R"sh(    esac
    case $argument in
        spaces) words+=" $(_ruxctl_spaces)" ;;
        operations) words+=' scan list compress' ;;
        files) mapfile -t COMPREPLY < <(compgen -f -- "$current"); compopt -o filenames 2>/dev/null ;;
    esac
    mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _ruxctl ruxctl
)sh";
}

/// Text inside of single quotes and brackets of zsh's descriptions.
std::string described(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\'') {
            out += "'\\''";
        } else if (c == ':' || c == '[' || c == ']') {
            out += std::string("\\") + c;
        } else {
            out += c;
        }
    }
    return out;
}

void printZshArguments(const CLI::App& command) {
    std::cout << "_arguments";
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            const bool isFlag = option->get_items_expected_max() == 0;
            std::cout << " '*--" << name << "[" << described(option->get_description()) << "]"
                      << (isFlag            ? ""
                          : name == "space" ? ":space:_ruxctl_spaces"
                          : name == "sort"  ? ":order:(size count)"
                          : name == "html"  ? ":file:_files"
                                            : ":value: ")
                      << "'";
        }
    }
    const std::string argument = argumentOf(command);
    if (argument == "spaces") std::cout << " '*:space:_ruxctl_spaces'";
    if (argument == "operations") std::cout << " ':operation:(scan list compress)'";
    if (argument == "files") std::cout << " '*:file:_files'";
}

void printZshCommands(const CLI::App& app, const std::string& place, const std::string& indent) {
    std::cout << indent << "if (( CURRENT == " << place << " )); then\n"
              << indent << "    local -a commands=(";
    for (const CLI::App* command : app.get_subcommands({})) {
        if (isForPeople(*command)) {
            std::cout << "\n"
                      << indent << "        '" << command->get_name() << ":"
                      << described(command->get_description()) << "'";
        }
    }
    std::cout << ")\n"
              << indent << "    _describe command commands\n"
              << indent << "    return\n"
              << indent << "fi\n";
}

void printZsh(const CLI::App& app) {
    std::cout << R"sh(#compdef ruxctl
# Completion of ruxctl for zsh. Made by "ruxctl completion zsh".
_ruxctl_spaces() {
    local -a spaces=(${(f)"$(ruxctl completion spaces 2>/dev/null)"})
    compadd -a spaces
}
_ruxctl() {
)sh";
    printZshCommands(app, "2", "    ");
    std::cout << "    case ${words[2]} in\n";
    for (const CLI::App* command : app.get_subcommands({})) {
        if (!isForPeople(*command)) continue;
        std::cout << "    " << command->get_name() << ")\n";
        if (command->get_subcommands({}).empty()) {
            std::cout << "        shift words; (( CURRENT-- ))\n        ";
            printZshArguments(*command);
            std::cout << "\n";
        } else {
            printZshCommands(*command, "3", "        ");
            std::cout << "        _files\n";
        }
        std::cout << "        ;;\n";
    }
    std::cout << "    esac\n}\n_ruxctl \"$@\"\n";
}

}  // namespace

int printCompletion(const std::string& what, const CLI::App& app) {
    if (what == "bash") {
        printBash(app);
    } else if (what == "spaces") {
        for (const std::string& spaceId : spaceIds()) std::cout << spaceId << "\n";
    } else {
        printZsh(app);
    }
    return kDone;
}

}  // namespace ruxctl
