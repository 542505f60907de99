#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

int setPatterns(const std::vector<std::string>& patterns) {
    service().call(kSetExceptRules, arrayText(patterns));
    if (exceptionRules() != patterns)
        throw Failure("the exceptions were not set; the service's log says why");
    std::cerr << counted(static_cast<int64_t>(patterns.size()), "exception")
              << " set; scans from now on leave matching files alone\n";
    return kDone;
}

/// Exceptions keep files out of scans, not out of what scans have recorded: says what that is.
void sayWhatIsRecorded(const PathPatterns& patterns) {
    for (const std::string& spaceId : spaceIds()) {
        const auto paths = recordedPaths(spaceId);
        const int64_t matching = std::count_if(paths.begin(), paths.end(), [&](const auto& path) {
            return patterns.match(path);
        });
        if (matching == 0) continue;
        std::cerr << counted(matching, "file") << " recorded in " << spaceId << " "
                  << (matching == 1 ? "matches" : "match")
                  << " and would still be linked, until the next scan: ruxctl scan --space "
                  << spaceId << "\n";
    }
}

}  // namespace

int showExceptRules() {
    requireRoot();
    const std::vector<std::string> rules = exceptionRules();
    for (const std::string& rule : rules) std::cout << rule << "\n";
    if (rules.empty())
        std::cerr << "No exceptions are set; add one with `ruxctl except add REGEX`\n";
    return kDone;
}

int setExceptRules(std::vector<std::string> patterns, bool add) {
    const PathPatterns given(patterns);
    if (add) {
        std::vector<std::string> all = exceptionRules();
        for (const std::string& pattern : patterns) {
            if (std::find(all.begin(), all.end(), pattern) == all.end()) all.push_back(pattern);
        }
        patterns = std::move(all);
    }
    setPatterns(patterns);
    sayWhatIsRecorded(given);
    return kDone;
}

int removeExceptRules(const std::vector<std::string>& patterns) {
    std::vector<std::string> all = exceptionRules();
    for (const std::string& pattern : patterns) {
        if (std::erase(all, pattern) == 0) throw Failure(pattern + " is not set");
    }
    if (!all.empty()) return setPatterns(all);
    // The service takes no empty list.
    if (!removeExceptionRules())
        throw Failure(std::string("the exceptions cannot be removed: ") + strerror(errno));
    std::cerr << "No exceptions are set any more\n";
    return kDone;
}

int checkExceptRule(const std::string& pattern, const std::vector<std::string>& paths) {
    const PathPatterns patterns({pattern});
    if (!paths.empty()) {
        for (const std::string& path : paths) {
            const std::string whole = absolutePath(path);
            const bool matches = patterns.match(whole);
            std::cout << (matches ? inked(Ink::Warning, "excepted") : inked(Ink::Good, "scanned "))
                      << "  " << shown(whole) << "\n";
        }
        return kDone;
    }
    int64_t all = 0;
    int64_t matching = 0;
    for (const std::string& spaceId : spaceIds()) {
        for (const std::string& path : recordedPaths(spaceId)) {
            ++all;
            if (!patterns.match(path)) continue;
            ++matching;
            std::cout << shown(path) << "\n";
        }
    }
    std::cerr << grouped(matching) << " of " << counted(all, "recorded file") << " match\n";
    return kDone;
}

}  // namespace ruxctl
