/// What the subcommands have in common.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ruxctl/client.h"
#include "ruxctl/commands.h"

namespace ruxctl {

/// Says what went wrong. Returns the exit status for it.
int fail(const Failure& failure);
int noService();
/// Why the service's directories cannot be used: not there, or for others alone.
std::optional<Failure> rootProblem();
int noSpace(const std::string& spaceId);
int nobodyToAsk();
/// For a client that is to show spaces and finds none.
int nothingScanned();

/// Says on standard error which spaces have files that no scan takes up again, and what to do.
void sayWhatIsSetAside(const std::vector<std::string>& spaceIds);

/// JSON of strings, and of one space rule.
std::string arrayText(const std::vector<std::string>& strings);
std::string ruleText(const SpaceQuery& query);

/// Has the service settle what it may have left unfinished in a space, then makes it forget what it
/// has recorded there; links stay known.
std::optional<Failure> startAfresh(const Client& client, const std::string& spaceId);

/// The given spaces, or all when none are given.
std::vector<std::string> chosenSpaces(const std::vector<std::string>& chosen);

}  // namespace ruxctl
