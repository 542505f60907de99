#include "ruxctl/messages.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "db/database_root.h"
#include "root/run_dir.h"
#include "ruxctl/database.h"
#include "ruxctl/operation.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

Json::Value arrayOf(const std::vector<std::string>& strings) {
    Json::Value array(Json::arrayValue);
    for (const std::string& string : strings) array.append(string);
    return array;
}

Json::Value ruleOf(const SpaceQuery& query) {
    Json::Value rule(Json::objectValue);
    rule["sid"] = query.spaceId;
    rule["regs"] = arrayOf(query.patterns);
    rule["dirs"] = arrayOf(query.places);
    return rule;
}

}  // namespace

int fail(const Failure& failure) {
    std::cout << std::flush;
    std::cerr << "ruxctl: " << failure.message << "\n";
    return failure.exit;
}

std::optional<Failure> rootProblem() {
    for (const std::string& directory : {rux::databaseRoot(), android::host::runDirectory()}) {
        if (access(directory.c_str(), R_OK | X_OK) == 0) continue;
        if (errno == EACCES) {
            return Failure{kNoService, directory + ": " + strerror(errno) +
                                               "; this takes the service's rights"};
        }
        if (directory == rux::databaseRoot())
            return Failure{kNoService, directory + ": " + strerror(errno) + "; make it"};
    }
    return std::nullopt;
}

int noService() {
    if (const auto problem = rootProblem(); problem) return fail(*problem);
    const char* root = getenv("RUX_ROOT");
    const std::string where = root != nullptr && *root != '\0'
                                      ? std::string(" for RUX_ROOT=") + root
                                      : " (RUX_ROOT is not set)";
    return fail({kNoService, "no service answers" + where +
                                     "; start it with `rux &`, or `systemctl start rux` where it "
                                     "is installed"});
}

int noSpace(const std::string& spaceId) {
    return fail({kFailed, "no space " + spaceId +
                                  " has been scanned; scan one with `ruxctl scan --space " +
                                  spaceId + " DIR`, see them all with `ruxctl status`"});
}

int nothingScanned() {
    std::cerr << "nothing has been scanned yet; begin with `ruxctl scan --space NAME DIR`\n";
    return kDone;
}

int nobodyToAsk() {
    return fail({kUsage, "there is no terminal to ask on; --yes answers the question"});
}

void sayWhatIsSetAside(const std::vector<std::string>& spaceIds) {
    for (const std::string& spaceId : spaceIds) {
        const int64_t setAside = setAsideCount(spaceId);
        if (setAside == 0) continue;
        std::cerr << "In " << spaceId << ": "
                  << counted(setAside, "changed group or restored file",
                             "changed groups or restored files")
                  << " left alone; to have them looked at again: ruxctl scan --fresh --space "
                  << spaceId << " DIR\n";
    }
}

std::string arrayText(const std::vector<std::string>& strings) {
    return Json::FastWriter().write(arrayOf(strings));
}

std::string ruleText(const SpaceQuery& query) {
    Json::Value request(Json::arrayValue);
    request.append(ruleOf(query));
    return Json::FastWriter().write(request);
}

std::vector<std::string> chosenSpaces(const std::vector<std::string>& chosen) {
    return chosen.empty() ? spaceIds() : chosen;
}

std::optional<Failure> startAfresh(const Client& client, const std::string& spaceId) {
    const Outcome settled = carryOut(client, kScanOperation, ruleText({spaceId, {".*"}, {}}));
    if (settled.failure) return settled.failure;
    if (forgetRecords(spaceId, false)) return std::nullopt;
    return Failure{kFailed, "the records of " + spaceId + " cannot be removed: " + strerror(errno)};
}

}  // namespace ruxctl
