/// Manual pages, made from the command line's own description.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace ruxctl {

/// Prints the page of "rux" or "ruxctl" (man(7)); `app` is the latter's command line.
int printManual(const std::string& program, const CLI::App& app);

}  // namespace ruxctl
