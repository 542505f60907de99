// ruxctl: the service's client for the command line.

#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <iostream>

#include "ruxctl/client.h"
#include "ruxctl/commands.h"

namespace {

using ruxctl::SpaceQuery;

/// The options that the subcommands on one space have in common.
void addSpaceOptions(CLI::App* command, SpaceQuery& query) {
    command->add_option("--space", query.spaceId, "Space id, the name of its database")->required();
    command->add_option("--match", query.patterns,
                        "Regular expression (ECMAScript) of whole paths; may be repeated")
            ->type_name("REGEX")
            ->allow_extra_args(false)
            ->default_str(".*");
}

int run(int argc, char** argv) {
    CLI::App app("Client of the rux service: finds duplicate files, links them, restores them.",
                 "ruxctl");
    app.require_subcommand(1);
    app.footer(
            "Exit status: 0 done, 1 failed or refused, 2 wrong usage, 3 no service answers.\n"
            "RUX_ROOT names the root whose service is meant.");
    std::function<int()> action;

    uint32_t code = 0;
    std::string request;
    std::string hex;
    CLI::App* call = app.add_subcommand("call", "Send one transaction and print its result");
    call->add_option("CODE", code, "Transaction code")->required();
    auto* requestOption =
            call->add_option("REQUEST", request, "Request text; - reads standard input");
    auto* hexOption = call->add_option("--hex", hex,
                                       "Request parcel in hexadecimal; - reads "
                                       "standard input")
                              ->type_name("BYTES")
                              ->excludes(requestOption);
    call->callback([&] {
        action = [&] {
            if (hexOption->count() > 0) return ruxctl::callHex(code, hex);
            if (requestOption->count() > 0) return ruxctl::callText(code, request);
            return ruxctl::callText(code, std::nullopt);
        };
    });

    std::string name;
    std::string value;
    CLI::App* getprop = app.add_subcommand("getprop", "Print a property");
    getprop->add_option("NAME", name)->required();
    getprop->callback([&] { action = [&] { return ruxctl::getProperty(name); }; });
    CLI::App* setprop = app.add_subcommand("setprop", "Set a property");
    setprop->add_option("NAME", name)->required();
    setprop->add_option("VALUE", value)->required();
    setprop->callback([&] { action = [&] { return ruxctl::setProperty(name, value); }; });

    SpaceQuery query;
    CLI::App* scan = app.add_subcommand("scan", "Record the files below directories, with digests");
    addSpaceOptions(scan, query);
    scan->add_option("DIR", query.places, "Directories or files")->required();
    scan->callback([&] { action = [&] { return ruxctl::scan(query); }; });

    CLI::App* list = app.add_subcommand("list", "Count the duplicates of a space");
    addSpaceOptions(list, query);
    list->add_option("DIR", query.places, "Directories");
    list->callback([&] { action = [&] { return ruxctl::list(query); }; });

    std::vector<std::string> spaceIds;
    CLI::App* compress = app.add_subcommand("compress", "Link the duplicates of spaces");
    compress->add_option("ID", spaceIds, "Space ids")->required();
    compress->callback([&] { action = [&] { return ruxctl::compress(spaceIds); }; });

    CLI::App* restore = app.add_subcommand("restore", "Give linked files data of their own again");
    addSpaceOptions(restore, query);
    restore->get_option("--match")->allow_extra_args(true);
    restore->add_option("--under", query.places,
                        "Only groups with a path that contains this text; may be repeated")
            ->type_name("TEXT")
            ->allow_extra_args(false);
    restore->callback([&] { action = [&] { return ruxctl::restore(query); }; });

    std::vector<std::string> exceptions;
    CLI::App* except = app.add_subcommand("except", "Set the patterns of files to leave alone");
    except->add_option("REGEX", exceptions, "Regular expressions of whole paths")->required();
    except->callback([&] { action = [&] { return ruxctl::setExceptRules(exceptions); }; });

    std::string operation;
    CLI::App* stop = app.add_subcommand("stop", "End a running operation early");
    stop->add_option("OPERATION", operation, "scan, list or compress")
            ->required()
            ->check(CLI::IsMember({"scan", "list", "compress"}));
    stop->callback([&] { action = [&] { return ruxctl::stop(operation); }; });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ruxctl::kDone : ruxctl::kUsage;
    }
    if (query.patterns.empty()) query.patterns = {".*"};
    return action();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "ruxctl: " << error.what() << "\n";
        return ruxctl::kFailed;
    }
}
