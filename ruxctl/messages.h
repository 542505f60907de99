/// What the subcommands have in common.
#pragma once

#include <string>
#include <vector>

#include "ruxctl/client.h"
#include "ruxctl/commands.h"

namespace ruxctl {

/// The running service. Throws a Failure that says what to do when there is none.
Client service();
/// Throws a Failure when the service's directories cannot be used: not there, or for others alone.
void requireRoot();
/// Throws a Failure unless all of the spaces have been scanned.
void requireSpaces(const std::vector<std::string>& spaceIds);
/// Says that there is nothing to show yet.
int nothingScanned();

/// Whether the user answers the question with yes, or has done so by an option. Throws a Failure
/// when there is nobody to ask.
bool agreed(const std::string& question, bool yes);
/// Says how patterns match, where some of a user's have matched nothing.
void sayWhatPatternsAre(const std::vector<std::string>& patterns);
/// For a question that was answered with no.
int nothingChanged();

/// Says on standard error which spaces have files that no scan takes up again, and what to do.
void sayWhatIsSetAside(const std::vector<std::string>& spaceIds);

/// JSON of strings, of one space rule, and of one for a scan.
std::string arrayText(const std::vector<std::string>& strings);
std::string ruleText(const SpaceQuery& query);
std::string scanText(const SpaceQuery& query, const Reach& reach, bool refreshes);

/// Has the service settle what it may have left unfinished in a space, then makes it forget what it
/// has recorded there; links stay known. Throws a Failure.
void startAfresh(const Client& client, const std::string& spaceId);

/// The given spaces, or all when none are given.
std::vector<std::string> chosenSpaces(const std::vector<std::string>& chosen);

}  // namespace ruxctl
