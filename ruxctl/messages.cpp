#include "ruxctl/messages.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "db/database_root.h"
#include "root/run_dir.h"
#include "ruxctl/database.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

Json::Value arrayOf(const std::vector<std::string>& strings) {
    Json::Value array(Json::arrayValue);
    for (const std::string& string : strings) array.append(string);
    return array;
}

Json::Value requestOf(const SpaceQuery& query) {
    Json::Value request(Json::arrayValue);
    request[0]["sid"] = query.spaceId;
    request[0]["regs"] = arrayOf(query.patterns);
    request[0]["dirs"] = arrayOf(query.places);
    return request;
}

}  // namespace

Client service() {
    if (auto client = Client::connect()) return *client;
    requireRoot();
    throw Failure("no service answers for RUX_ROOT=" + android::host::rootPrefix() +
                          "; start it with `rux &`, or `systemctl start rux` where it is installed",
                  kNoService);
}

void requireRoot() {
    if (android::host::rootPrefix().empty())
        throw Failure(
                "RUX_ROOT is not set; it names the root whose service is meant, which "
                "`RUX_ROOT=DIR rux &` starts",
                kNoService);
    for (const std::string& directory : {rux::databaseRoot(), android::host::runDirectory()}) {
        if (access(directory.c_str(), R_OK | X_OK) == 0) continue;
        if (errno == EACCES)
            throw Failure(directory + ": only root and the service's user are served; use sudo",
                          kNoService);
        if (directory == rux::databaseRoot())
            throw Failure(directory + ": " + strerror(errno) + "; to make it: mkdir -p " +
                                  directory,
                          kNoService);
    }
}

void requireSpaces(const std::vector<std::string>& spaceIds) {
    for (const std::string& spaceId : spaceIds) {
        if (exists(spaceId)) continue;
        requireRoot();
        throw Failure("no space " + spaceId +
                      " has been scanned; scan one with `ruxctl scan --space " + spaceId +
                      " DIR`, see them all with `ruxctl status`");
    }
}

int nothingScanned() {
    std::cerr << "nothing has been scanned yet; begin with `ruxctl scan --space NAME DIR`\n";
    return kDone;
}

bool agreed(const std::string& question, bool yes) {
    if (yes) return true;
    const auto answer = confirmed(question);
    if (!answer)
        throw Failure("there is no terminal to ask on; --yes answers the question", kUsage);
    return *answer;
}

void sayWhatPatternsAre(const std::vector<std::string>& patterns) {
    if (patterns.empty() || patterns == kAllPaths) return;
    std::cerr << "Patterns match whole paths: '.*/NAME' for a file of that name anywhere\n";
}

int nothingChanged() {
    std::cerr << "Nothing has been changed\n";
    return kDone;
}

void sayWhatIsSetAside(const std::vector<std::string>& spaceIds) {
    for (const std::string& spaceId : spaceIds) {
        const int64_t setAside = setAsideCount(spaceId);
        if (setAside == 0) continue;
        std::cerr << "In " << spaceId << ": " << counted(setAside, "restored file")
                  << " left alone; to have them linked again: ruxctl scan --fresh --space "
                  << spaceId << ", then compress\n";
    }
}

std::string arrayText(const std::vector<std::string>& strings) {
    return Json::FastWriter().write(arrayOf(strings));
}

std::string ruleText(const SpaceQuery& query) {
    return Json::FastWriter().write(requestOf(query));
}

std::string scanText(const SpaceQuery& query, const Reach& reach, bool refreshes) {
    Json::Value request = requestOf(query);
    request[0]["refresh"] = refreshes;
    request[0]["follow_links"] = reach.followsLinks;
    request[0]["one_file_system"] = reach.staysOnFileSystem;
    request[0]["min_size"] = static_cast<Json::UInt64>(reach.minBytes);
    request[0]["max_size"] = static_cast<Json::UInt64>(reach.maxBytes);
    request[0]["lone_size"] = static_cast<Json::UInt64>(reach.loneBytes);
    return Json::FastWriter().write(request);
}

std::vector<std::string> chosenSpaces(const std::vector<std::string>& chosen) {
    requireRoot();
    return chosen.empty() ? spaceIds() : chosen;
}

void startAfresh(const Client& client, const std::string& spaceId) {
    carryOut(client, kScanOperation, ruleText({spaceId, {}, {}}));
    if (!forgetRecords(spaceId, false))
        throw Failure("the records of " + spaceId + " cannot be removed: " + strerror(errno));
}

}  // namespace ruxctl
