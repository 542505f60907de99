#include <CLI/CLI.hpp>
#include <iostream>

#include "ruxctl/client.h"
#include "ruxctl/generated.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

/// Text as troff takes it: no line starts with a request, no escape is seen in it.
std::string escaped(const std::string& text) {
    return replaced(text, {{'\\', "\\e"}, {'-', "\\-"}, {'.', "\\&."}, {'\'', "\\&'"}});
}

void printExample(const std::string& text) {
    std::cout << ".nf\n.RS\n" << escaped(text) << "\n.RE\n.fi\n";
}

void printOptions(const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_lnames() == std::vector<std::string>{"help"}) continue;
        std::string name = option->get_name(false, true);
        std::string value = option->nonpositional() && option->get_items_expected_max() != 0
                                    ? " " + option->get_type_name()
                                    : "";
        std::cout << ".TP\n.B " << escaped(name + value) << "\n"
                  << escaped(option->get_description()) << ".\n";
    }
}

void printCommand(const CLI::App& command, const std::string& parents) {
    if (command.get_group().empty()) return;
    std::string synopsis = parents + command.get_name();
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_lnames() == std::vector<std::string>{"help"}) continue;
        std::string word = option->get_name(false, false);
        if (option->nonpositional() && option->get_items_expected_max() != 0)
            word += " " + option->get_type_name();
        if (option->get_items_expected_max() > 1 && !option->nonpositional()) word += "...";
        synopsis += " " + (option->get_required() ? word : "[" + word + "]");
    }
    const auto subcommands = command.get_subcommands({});
    if (subcommands.empty()) std::cout << ".SS " << escaped(synopsis) << "\n";
    if (subcommands.empty()) std::cout << escaped(command.get_description()) << ".\n";
    printOptions(command);
    for (const CLI::App* subcommand : subcommands)
        printCommand(*subcommand, parents + command.get_name() + " ");
    if (!command.get_footer().empty()) {
        std::cout << ".PP\n";
        printExample(command.get_footer());
    }
}

}  // namespace

int printManual(const CLI::App& app) {
    for (const CLI::App* command : app.get_subcommands({})) printCommand(*command, "ruxctl ");
    return kDone;
}

}  // namespace ruxctl
