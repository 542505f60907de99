#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/groups.h"
#include "ruxctl/messages.h"
#include "ruxctl/report_page.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

constexpr int64_t kFewestParts = 40;  // a directory with more than one of so many is divided

/// A directory and what lies below it.
struct Directory {
    std::map<std::string, Directory> below;
    int64_t reclaimable = 0;  // all that is below it included
    int64_t given = 0;
    int64_t bytes() const { return reclaimable + given; }
};

void add(Directory& root, const std::string& path, int64_t reclaimable, int64_t given) {
    Directory* directory = &root;
    size_t start = 1;
    while (true) {
        directory->reclaimable += reclaimable;
        directory->given += given;
        const size_t end = path.find('/', start);
        if (end == std::string::npos) return;
        directory = &directory->below[path.substr(start, end - start)];
        start = end + 1;
    }
}

/// What the page shows of a directory: its parts are told as long as they are a large share of the
/// whole, its own files as one more. One that holds nothing but another one is not shown.
DirectoryShare shareOf(const Directory& directory, const std::string& path, int64_t whole) {
    DirectoryShare share = {path.empty() ? "/" : path, directory.reclaimable, directory.given, {}};
    if (directory.bytes() <= whole / kFewestParts) return share;
    DirectoryShare own = {path + "/*", directory.reclaimable, directory.given, {}};
    for (const auto& [name, child] : directory.below) {
        if (child.bytes() == 0) continue;
        if (child.bytes() == directory.bytes()) return shareOf(child, path + "/" + name, whole);
        share.parts.push_back(shareOf(child, path + "/" + name, whole));
        own.reclaimable -= child.reclaimable;
        own.given -= child.given;
    }
    if (own.bytes() > 0 && !share.parts.empty()) share.parts.push_back(own);
    std::stable_sort(share.parts.begin(), share.parts.end(),
                     [](const DirectoryShare& a, const DirectoryShare& b) {
                         return a.bytes() > b.bytes();
                     });
    return share;
}

Report reportOn(const std::vector<std::string>& chosen) {
    Report report;
    Directory root;
    std::map<std::string, SpaceShare> spaces;
    for (const std::string& spaceId : chosen) spaces[spaceId].space = lookAt(spaceId);
    for (Group& group : groupsOf(chosen, Which::All)) {
        spaces[group.spaceId].reclaimable += group.reclaimable;
        spaces[group.spaceId].given += group.given;
        // All paths of a group have an equal part in it.
        const int64_t present = group.present();
        for (const Member& member : group.members) {
            if (!member.isPresent()) continue;
            add(root, member.path, group.reclaimable / present, group.given / present);
        }
        if (group.reclaimable + group.given > 0) report.groups.push_back(std::move(group));
    }
    for (auto& [spaceId, share] : spaces) report.spaces.push_back(std::move(share));
    std::stable_sort(report.groups.begin(), report.groups.end(),
                     [](const Group& a, const Group& b) {
                         return a.reclaimable + a.given > b.reclaimable + b.given;
                     });
    report.root = shareOf(root, "", root.bytes());
    return report;
}

}  // namespace

int report(const std::string& htmlFile, const std::vector<std::string>& spaceIds) {
    for (const std::string& spaceId : spaceIds) {
        if (!exists(spaceId)) return noSpace(spaceId);
    }
    if (chosenSpaces(spaceIds).empty()) return nothingScanned();
    const std::string page = pageOf(reportOn(chosenSpaces(spaceIds)));
    if (htmlFile == "-") {
        std::cout << page;
        return kDone;
    }
    std::ofstream file(htmlFile, std::ios::binary);
    if (!(file << page).flush())
        return fail({kFailed, htmlFile + " cannot be written: " + strerror(errno)});
    std::cerr << "Written to " << htmlFile << " (" << humanBytes(static_cast<int64_t>(page.size()))
              << "); open it with any browser\n";
    return kDone;
}

}  // namespace ruxctl
