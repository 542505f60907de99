#include <json/json.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <set>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/groups.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

/// A restore, and what came of it.
struct Restore {
    std::vector<Group> groups;              // of all spaces
    std::map<std::string, int64_t> needed;  // bytes, by a path on each file system
    std::vector<const Member*> linked;      // of these, those that get data of their own
    int64_t others = 0;                     // of those, that are not asked for by themselves
    int64_t taken = 0;                      // bytes
    std::vector<std::string> left;          // paths that are still linked
    double seconds = 0;

    int64_t allNeeded() const {
        int64_t bytes = 0;
        for (const auto& [path, share] : needed) bytes += share;
        return bytes;
    }
};

/// The patterns of what is asked for: each of them, below each of the directories.
std::vector<std::string> patternsOf(const RestoreOptions& options) {
    const auto& given = options.query.patterns;
    const std::vector<std::string>& patterns = given.empty() ? kAllPaths : given;
    std::vector<std::string> all;
    for (const std::string& place : options.below) {
        const std::string path = absolutePath(place);
        for (const std::string& pattern : patterns)
            all.push_back("(?=" + escaped(path == "/" ? "" : path) + "(?:/|$))(?:" + pattern + ")");
    }
    return all.empty() ? patterns : all;
}

/// Looks at the groups that the service will restore: those with a path that matches one of the
/// patterns, and with a path that contains one of the texts.
Restore lookAt(const std::vector<std::string>& spaceIds, const std::vector<std::string>& patterns,
               const std::vector<std::string>& texts) {
    const PathPatterns matching(patterns);
    const bool isForAll = patterns == kAllPaths;
    const auto isMatch = [&](const Member& member) {
        return isForAll || matching.match(member.path);
    };
    const auto hasText = [&](const Member& member) {
        return texts.empty() || std::any_of(texts.begin(), texts.end(), [&](const auto& text) {
                   return member.path.find(text) != std::string::npos;
               });
    };
    Restore restore;
    restore.groups = groupsOf(spaceIds, Which::Compressed);
    std::erase_if(restore.groups, [&](const Group& group) {
        return std::none_of(group.members.begin(), group.members.end(), isMatch) ||
               std::none_of(group.members.begin(), group.members.end(), hasText);
    });
    restore.linked = linkedMembers(restore.groups);
    restore.others =
            std::count_if(restore.linked.begin(), restore.linked.end(), [&](const Member* member) {
                return !isMatch(*member) || !hasText(*member);
            });
    restore.needed = takenUpByRestore(restore.linked);
    return restore;
}

/// Throws a Failure where a file system has not enough room for its share.
void requireRoom(const std::map<std::string, int64_t>& needed) {
    for (const auto& [path, bytes] : needed) {
        struct statvfs fs = {};
        if (sharesBlocks(path) || statvfs(path.c_str(), &fs) != 0) continue;
        const auto room = static_cast<int64_t>(fs.f_bavail * fs.f_frsize);
        if (bytes <= room) continue;
        throw Failure("the file system of " + path + " has " + humanBytes(room) + " left, and " +
                      humanBytes(bytes) +
                      " are needed; restore less, or make room (--force goes on as far as there is "
                      "some)");
    }
}

void describe(const Restore& restore) {
    const bool isMost = std::any_of(restore.needed.begin(), restore.needed.end(),
                                    [](const auto& share) { return sharesBlocks(share.first); });
    std::cerr << counted(static_cast<int64_t>(restore.linked.size()), "file") << " of "
              << counted(static_cast<int64_t>(restore.groups.size()), "group")
              << " will get data of their own, taking up " << (isMost ? "at most " : "")
              << humanBytes(restore.allNeeded()) << "\n";
    if (restore.others == 0) return;
    std::cerr << "A group is restored as a whole: " << grouped(restore.others) << " of them "
              << (restore.others == 1 ? "does not match by itself" : "do not match by themselves")
              << "; --dry-run shows them\n";
}

/// Has all groups restored, space by space.
void giveData(const Client& client, const std::vector<std::string>& patterns,
              const std::vector<std::string>& texts, Restore& restore) {
    std::set<std::string> spaceIds;
    for (const Group& group : restore.groups) spaceIds.insert(group.spaceId);
    StatusLine line;
    const int64_t needed = restore.allNeeded();
    const int64_t writtenBefore = client.bytesMoved("wchar:");
    for (const std::string& spaceId : spaceIds) {
        const double before = restore.seconds;
        const std::string request = ruleText({spaceId, patterns, texts});
        const Outcome outcome = carryOut(client, kRestoreOperation, request, [&](double seconds) {
            const int64_t written = client.bytesMoved("wchar:") - writtenBefore;
            line.show(Interrupts::any()
                              ? "A restore cannot be stopped; Ctrl-C again leaves it to itself"
                              : progress(std::min(written, needed), needed, before + seconds,
                                         humanBytes));
        });
        restore.seconds += outcome.seconds;
    }
    restore.taken = checkRestored(restore.linked, &restore.left);
}

void printJson(const Restore& restore, bool isDone) {
    Json::Value value(Json::objectValue);
    value["files"] = static_cast<Json::UInt64>(restore.linked.size());
    value["bytes"] = static_cast<Json::Int64>(isDone ? restore.taken : restore.allNeeded());
    value["dry_run"] = !isDone;
    value["left"] = Json::Value(Json::arrayValue);
    for (const std::string& path : restore.left) value["left"].append(path);
    std::cout << Json::FastWriter().write(value);
}

void printPaths(const Restore& restore) {
    const std::set<std::string> left(restore.left.begin(), restore.left.end());
    for (const Member* member : restore.linked) {
        if (!left.contains(member->path))
            std::cout << inked(Ink::Good, "own") << "  " << shown(member->path) << "\n";
    }
}

/// Has the undo of links recorded again that the service has forgotten, as it does in a restore
/// that fails. False when that would link more, and nothing was done.
bool recordAgain(const Client& client, const std::string& spaceId,
                 const std::vector<std::string>& paths) {
    for (const auto& portion : portionsOf(paths))
        carryOut(client, kScanOperation, scanText({spaceId, kAllPaths, portion}, {}, true));
    const std::vector<Group> groups = groupsOf({spaceId}, Which::ToCompress);
    if (count(groups, Step::Link) + count(groups, Step::Skip) > 0) return false;
    carryOut(client, kCompressOperation, arrayText({spaceId}));
    return true;
}

/// Says what is one file in a space without an undo.
void sayWhatHasNoUndo(const std::string& spaceId) {
    const std::vector<std::string> paths = pathsWithoutUndo(spaceId);
    if (paths.empty()) return;
    std::cerr << counted(static_cast<int64_t>(paths.size()), "path") << " of " << spaceId
              << " are names of one file with others and have no undo: " << shown(paths[0])
              << (paths.size() > 1 ? ", ..." : "")
              << "\nThese links were there before, or an operation has not ended well. To have an "
                 "undo recorded:\n  ruxctl scan --space "
              << spaceId << " && ruxctl compress " << spaceId << "\n";
}

/// Ends a restore that has left some files linked. Throws a Failure that says what to do.
[[noreturn]] void fail(const Client& client, const Restore& restore) {
    const std::set<std::string> left(restore.left.begin(), restore.left.end());
    std::map<std::string, std::vector<std::string>> paths;  // by space
    for (const Group& group : restore.groups) {
        for (const Member& member : group.members) {
            if (left.contains(member.path)) paths[group.spaceId].push_back(member.path);
        }
    }
    std::string advice;
    for (const auto& [spaceId, own] : paths) {
        const bool isRecorded = recordAgain(client, spaceId, own);
        advice += isRecorded ? " When that is mended: ruxctl restore --space " + spaceId
                             : " To have the undo recorded again: ruxctl compress " + spaceId;
    }
    throw Failure(counted(static_cast<int64_t>(left.size()), "file") +
                  " could not be restored; the service's log says why." + advice);
}

/// Says what came of it.
int tell(const Client& client, const RestoreOptions& options, const Restore& restore) {
    if (options.json) {
        printJson(restore, true);
    } else {
        if (options.verbose) printPaths(restore);
        std::cout << humanBytes(restore.taken) << " taken up again in " << duration(restore.seconds)
                  << "\n";
        for (const std::string& path : restore.left)
            std::cout << inked(Ink::Bad, "linked") << "  " << shown(path) << "\n";
    }
    if (!restore.left.empty()) fail(client, restore);
    if (!options.query.spaceId.empty()) sayWhatHasNoUndo(options.query.spaceId);
    return kDone;
}

}  // namespace

int restore(const RestoreOptions& options) {
    const SpaceQuery& query = options.query;
    if (query.spaceId.empty() && options.below.empty())
        throw Failure("say what to restore: directories, or --space NAME", kUsage);
    const std::vector<std::string> patterns = patternsOf(options);
    const PathPatterns areRight(query.patterns);
    const Client client = service();
    const std::vector<std::string> spaceIds =
            query.spaceId.empty() ? chosenSpaces({}) : std::vector{query.spaceId};
    requireSpaces(spaceIds);
    Restore restore = lookAt(spaceIds, patterns, query.places);
    if (restore.groups.empty()) {
        if (options.json) printJson(restore, !options.dryRun);
        std::cerr << "No linked files match; nothing has been changed\n";
        sayWhatPatternsAre(query.patterns);
        if (!query.spaceId.empty()) sayWhatHasNoUndo(query.spaceId);
        return kDone;
    }
    const auto isThere = [](const Group& group) {
        return std::any_of(group.members.begin(), group.members.end(),
                           [](const Member& member) { return member.state != State::Gone; });
    };
    if (std::none_of(restore.groups.begin(), restore.groups.end(), isThere))
        throw Failure("none of the linked files is there; is their disk mounted?");
    if (options.dryRun && options.json) {
        printJson(restore, false);
        return kDone;
    }
    if (options.dryRun) printPaths(restore);
    describe(restore);
    if (options.dryRun) return nothingChanged();
    if (!options.force) requireRoom(restore.needed);
    if (!agreed("Restore them?", options.yes)) return nothingChanged();
    giveData(client, patterns, query.places, restore);
    return tell(client, options, restore);
}

}  // namespace ruxctl
