/// What the subcommands have in common.
#pragma once

#include <string>
#include <vector>

#include "ruxctl/client.h"
#include "ruxctl/commands.h"

namespace ruxctl {

/// Says what went wrong. Returns the exit status for it.
int fail(const Failure& failure);
int noService();
int noSpace(const std::string& spaceId);

/// JSON of strings, and of one space rule.
std::string arrayText(const std::vector<std::string>& strings);
std::string ruleText(const SpaceQuery& query);

/// The given spaces, or all when none are given.
std::vector<std::string> chosenSpaces(const std::vector<std::string>& chosen);

/// What linking would give back, as the service's listing counts it.
struct Listing {
    std::string spaceId;
    int64_t groups = 0;
    int64_t files = 0;
    int64_t bytes = 0;
};
/// Lists spaces; those that the service does not know are left out.
std::optional<Failure> fetchListing(const Client& client, const std::vector<std::string>& spaceIds,
                                    const std::vector<std::string>& patterns,
                                    std::vector<Listing>* listing);

}  // namespace ruxctl
