#include <algorithm>
#include <iostream>
#include <regex>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

std::optional<Failure> problemWith(const std::string& pattern) {
    try {
        const std::regex compiled(pattern);
        return std::nullopt;
    } catch (const std::regex_error& error) {
        return Failure{kUsage, "\"" + pattern +
                                       "\" is no regular expression (ECMAScript): " + error.what()};
    }
}

}  // namespace

int showExceptRules() {
    const std::vector<std::string> rules = exceptionRules();
    for (const std::string& rule : rules) std::cout << rule << "\n";
    if (rules.empty())
        std::cerr << "No exceptions are set; add one with `ruxctl except add REGEX`\n";
    return kDone;
}

int setExceptRules(std::vector<std::string> patterns, bool add) {
    for (const std::string& pattern : patterns) {
        if (const auto problem = problemWith(pattern); problem) return fail(*problem);
    }
    const auto client = Client::connect();
    if (!client) return noService();
    if (add) {
        std::vector<std::string> all = exceptionRules();
        for (const std::string& pattern : patterns) {
            if (std::find(all.begin(), all.end(), pattern) == all.end()) all.push_back(pattern);
        }
        patterns = std::move(all);
    }
    if (const auto failure = client->call(kSetExceptRules, arrayText(patterns)); failure)
        return fail(*failure);
    if (exceptionRules() != patterns)
        return fail({kFailed, "the exceptions were not set; the service's log says why"});
    std::cerr << counted(static_cast<int64_t>(patterns.size()), "exception")
              << " set; scans from now on leave matching files alone\n";
    return kDone;
}

int checkExceptRule(const std::string& pattern, const std::vector<std::string>& paths) {
    if (const auto problem = problemWith(pattern); problem) return fail(*problem);
    const std::regex compiled(pattern);
    if (!paths.empty()) {
        for (const std::string& path : paths) {
            const std::string whole = absolutePath(path);
            const bool matches = std::regex_match(whole, compiled);
            std::cout << (matches ? inked(Ink::Warning, "excepted") : inked(Ink::Good, "scanned "))
                      << "  " << whole << "\n";
        }
        return kDone;
    }
    int64_t all = 0;
    int64_t matching = 0;
    for (const std::string& spaceId : spaceIds()) {
        for (const std::string& path : recordedPaths(spaceId)) {
            ++all;
            if (!std::regex_match(path, compiled)) continue;
            ++matching;
            std::cout << path << "\n";
        }
    }
    std::cerr << grouped(matching) << " of " << counted(all, "recorded file") << " match\n";
    return kDone;
}

}  // namespace ruxctl
