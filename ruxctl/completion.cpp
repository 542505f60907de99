#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

#include "ruxctl/client.h"
#include "ruxctl/database.h"
#include "ruxctl/generated.h"

namespace ruxctl {
namespace {

/// The command that the words have named, as far as they name one.
const CLI::App& commandOf(const std::vector<std::string>& words, const CLI::App& app) {
    const CLI::App* command = &app;
    for (const std::string& word : words) {
        for (const CLI::App* subcommand : command->get_subcommands({})) {
            if (subcommand->get_name() == word) command = subcommand;
        }
    }
    return *command;
}

/// What stands in the place of an argument or of an option's value, by its name.
void printValues(const std::string& name, bool isProperty) {
    const std::map<std::string, const char*> words = {{"--sort", "size\ncount\n"},
                                                      {"OPERATION", "scan\nlist\ncompress\n"},
                                                      {"--html", "FILES\n"},
                                                      {"DIR", "FILES\n"},
                                                      {"PATH", "FILES\n"}};
    if (const auto found = words.find(name); found != words.end()) std::cout << found->second;
    if (name == "--space" || (name == "NAME" && !isProperty)) {
        for (const std::string& spaceId : spaceIds()) std::cout << spaceId << "\n";
    }
}

}  // namespace

int printCandidates(const std::vector<std::string>& words, const CLI::App& app) {
    const CLI::App& command = commandOf(words, app);
    const bool isProperty = command.get_name().ends_with("prop");
    for (const CLI::Option* option : command.get_options()) {
        const bool isValue = !words.empty() && option->check_name(words.back());
        if (!isValue || option->get_items_expected_max() == 0) continue;
        printValues(words.back(), isProperty);
        return kDone;
    }
    for (const CLI::App* subcommand : command.get_subcommands({})) {
        if (!subcommand->get_group().empty())
            std::cout << subcommand->get_name() << "\t" << subcommand->get_description() << "\n";
    }
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames())
            std::cout << "--" << name << "\t" << option->get_description() << "\n";
        if (!option->nonpositional()) printValues(option->get_name(true), isProperty);
    }
    return kDone;
}

}  // namespace ruxctl
