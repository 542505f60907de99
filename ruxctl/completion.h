/// Completion for shells, made from the command line's own description.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace ruxctl {

/// Prints the script for "bash" or "zsh", or the names of the "spaces", which the scripts ask for.
int printCompletion(const std::string& what, const CLI::App& app);

}  // namespace ruxctl
