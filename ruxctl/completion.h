/// Completion for shells, made from the command line's own description.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace ruxctl {

/// Prints the script for "bash" or "zsh".
int printCompletion(const std::string& shell, const CLI::App& app);

}  // namespace ruxctl
