/// What is made from the command line's own description.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace ruxctl {

/// Prints what the manual page (man(7)) says of the subcommands.
int printManual(const CLI::App& app);

/// Prints what may stand behind the words of an unfinished command line, each with a description
/// behind a tab; "FILES" for names of files. The shells' completion asks for it.
int printCandidates(const std::vector<std::string>& words, const CLI::App& app);

}  // namespace ruxctl
