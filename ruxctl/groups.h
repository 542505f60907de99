/// The groups of equal files: what each path leads to right now, and what linking would do to it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ruxctl/member.h"

namespace ruxctl {

/// Files of identical content.
struct Group {
    std::string spaceId;
    std::string digest;
    int64_t fileBytes = 0;
    bool compressed = false;  ///< whether the service has linked it
    std::vector<Member> members;
    int64_t files = 0;        ///< different files among those that are present
    int64_t reclaimable = 0;  ///< bytes of blocks that linking would give back
    int64_t given = 0;        ///< bytes of blocks that links have given back
    int64_t apart = 0;        ///< bytes of blocks that links among the skipped would give back
    std::string countedIn;    ///< the space before, if any, that counts some of its links

    /// The member that is kept; null when there is nothing to do.
    const Member* kept() const;
    int64_t count(Step step) const;
    /// Members that are names of the file that is kept already.
    int64_t linkedBefore() const;
    /// Whether the service would look at it: it has several paths that exist.
    bool isOffered() const;
    /// Members that are there or linked.
    int64_t present() const;
};

enum class Which { ToCompress, Compressed, All };
/// How closely to look. `Plan` asks for each path what stands in the way of a link; `Status` takes
/// each for one that can be made.
enum class Look { Status, Plan };
/// The groups with more than one path of the spaces, in the order in which the service would link
/// them, with each step as it would be when those before it are done. `tick` is called ten times a
/// second with how many groups of how many have been looked at. Throws std::runtime_error for a
/// database that cannot be read.
std::vector<Group> groupsOf(
        const std::vector<std::string>& spaceIds, Which which, Look look = Look::Plan,
        const std::function<void(int64_t done, int64_t all)>& tick = [](int64_t, int64_t) {});

/// Sums over groups.
int64_t reclaimable(const std::vector<Group>& groups);
int64_t count(const std::vector<Group>& groups, Step step);
/// The members that linking would do that to.
std::vector<const Member*> membersWith(const std::vector<Group>& groups, Step step);

/// Looks again at what was to be linked, after it should have been: a Link that has not become one
/// is a Skip now, with its reason. Returns the bytes of blocks that the others have given back.
int64_t checkLinks(std::vector<Group>& groups);

/// Links, made now or before, of which the databases by now have no undo.
int64_t linksWithoutUndo(const std::vector<Group>& groups);
/// The paths of a space that are one file with another of its paths, and of which its database has
/// no undo, whoever has made them one.
std::vector<std::string> pathsWithoutUndo(const std::string& spaceId);

/// The members that a restore gives data of their own: one for each name of a file that has
/// several.
std::vector<const Member*> linkedMembers(const std::vector<Group>& groups);
/// Bytes of blocks that this takes up, on each file system by one of its paths.
std::map<std::string, int64_t> takenUpByRestore(const std::vector<const Member*>& linked);
/// Looks again at what was to be restored. Returns the bytes of blocks that were taken up, and adds
/// the paths that still share their data.
int64_t checkRestored(const std::vector<const Member*>& linked, std::vector<std::string>* left);

}  // namespace ruxctl
