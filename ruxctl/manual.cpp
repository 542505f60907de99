#include "ruxctl/manual.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "ruxctl/client.h"

namespace ruxctl {
namespace {

/// Text as troff takes it: no line starts with a request, no escape is seen in it.
std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else if ((c == '.' || c == '\'') && (out.empty() || out.back() == '\n')) {
            out += std::string("\\&") + c;
        } else {
            out += c;
        }
    }
    return out;
}

void heading(const char* name, const char* section, const char* description) {
    std::cout << ".\\\" Made by \"ruxctl manual\".\n"
              << ".TH " << name << " " << section << "\n.SH NAME\n"
              << description << "\n";
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

void printClientPage(const CLI::App& app) {
    heading("RUXCTL", "1", "ruxctl \\- client of the rux service");
    std::cout << ".SH SYNOPSIS\n.B ruxctl\n.I COMMAND\n[\n.IR OPTION ...\n]\n"
              << ".SH DESCRIPTION\n"
              << escaped(app.get_description()) << "\n"
              << "The work is done by the service,\n.BR rux (8),\n"
              << "which keeps what it has learned in a database for each space, "
                 "so that nothing is read twice.\n"
              << ".SH COMMANDS\n";
    for (const CLI::App* command : app.get_subcommands({})) printCommand(*command, "ruxctl ");
    std::cout << ".SH EXIT STATUS\n"
              << ".TP\n.B 0\nDone.\n"
              << ".TP\n.B 1\nFailed; standard error says why and what to do.\n"
              << ".TP\n.B 2\nWrong usage.\n"
              << ".TP\n.B 3\nNo service answers.\n"
              << ".TP\n.B 4\nRefused, because another operation is running.\n"
              << ".TP\n.B 130\nStopped, as Ctrl\\-C asked. What was done stays.\n"
              << ".SH ENVIRONMENT\n"
              << ".TP\n.B RUX_ROOT\nThe root whose service is meant.\n"
              << ".TP\n.B NO_COLOR\nWhen set and not empty, no colour is used.\n"
              << ".SH SEE ALSO\n.BR rux (8)\n";
}

void printServicePage() {
    heading("RUX", "8", "rux \\- service that links files of identical content");
    std::cout << ".SH SYNOPSIS\n.B rux\n.SH DESCRIPTION\n"
              << "Serves\n.BR ruxctl (1)\n"
              << "until it is killed. It takes no options. Files are replaced by links only after "
                 "a comparison of all\nbytes, with writers kept out, and every name is exchanged "
                 "in one step: it may be killed at any moment.\n"
              << ".PP\nOnly root and the service's own user are served. To link files of other "
                 "users it needs the capabilities\nCAP_DAC_READ_SEARCH, CAP_DAC_OVERRIDE, "
                 "CAP_FOWNER, CAP_CHOWN, CAP_FSETID and CAP_LEASE.\n"
              << ".SH FILES\n"
              << ".TP\n.I data/local/zel/\nBelow the root. A directory for each space, and the "
                 "exceptions. It must exist.\n"
              << ".TP\n.I run/rux/\nBelow the root. The service's socket and the properties.\n"
              << ".SH EXIT STATUS\n"
              << ".TP\n.B 255\nThe service could not be registered: another one serves this root, "
                 "or run/rux cannot be made.\n"
              << ".SH ENVIRONMENT\n"
              << ".TP\n.B RUX_ROOT\nThe root.\n"
              << ".TP\n.B ANDROID_LOG_TAGS\nWhich lines go to standard error: rux:E for errors "
                 "alone.\n"
              << ".SH SEE ALSO\n.BR ruxctl (1)\n";
}

}  // namespace

int printManual(const std::string& program, const CLI::App& app) {
    if (program == "rux") {
        printServicePage();
    } else {
        printClientPage(app);
    }
    return kDone;
}

}  // namespace ruxctl
