/// What a space knows of its paths, for a scan that brings it up to date.
#pragma once

#include <json/json.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace rux {

/// A group of DB3, with the recorded modification times of its members in seconds since the epoch:
/// linked names have the time of the file that was kept. A member that is in another group as well
/// has changed since one of them was linked, and its time tells nothing.
struct LinkedGroup {
    std::string_view digest;
    int64_t fileBytes;
    const Json::Value* paths;
    std::set<int64_t> times;
};

/// What the images said of a path before the walk, and what the walk has found.
struct KnownPath {
    bool isFinished = false;  // DB1: it has a digest
    bool hasRecord = false;
    int64_t mtimeSeconds = 0;                  // of the record
    int64_t fileBytes = -1;                    // DB2: of its group, if it is in one
    std::vector<const LinkedGroup*> linkedAs;  // DB3
    bool wasRetired = false;                   // DB4
    bool wasRestored = false;
    bool isMet = false;                  // and selected
    std::unique_ptr<std::string> taken;  // as new, with that digest; empty when it has none

    /// Whether it is in more groups than one, so that its content is not known.
    bool isAmbiguous() const { return linkedAs.size() + (fileBytes >= 0 ? 1 : 0) > 1; }
    /// Whether what is known holds for the file with that status, so that nothing has to be done.
    /// That is also so for a restored file which has one name: it is left alone.
    bool holds(const struct stat& status) const;
    /// The same for what a group of DB3 says.
    bool isMemberOf(const LinkedGroup& group, const struct stat& status) const;
    /// The digest under which DB3 has the file although it is no link: it could not be made one, or
    /// was replaced by a copy. Empty for other files.
    std::string apartFrom(const struct stat& status) const;
};

/// All paths of the loaded images. It refers to names in them: nothing may be taken out of
/// them before `removeStale`.
class KnownPaths {
  public:
    KnownPaths();

    /// What is known of a path; null for a new one.
    KnownPath* find(std::string_view path);

    /// The paths that DB3 has under a digest, and that exist unchanged. Their records get the time
    /// that the files have now.
    std::vector<std::string> takeLinked(const std::string& digest);

    /// Ends the refresh: what was taken as new leaves DB4 and the groups of its former digests,
    /// and what was not met below the `places` leaves DB1, DB2 and DB4. DB3 keeps it, as that is
    /// the undo.
    void removeStale(const std::vector<std::string>& places);

  private:
    using Places = std::set<std::string_view>;

    bool hasContent(const KnownPath& known, const std::string& path, const LinkedGroup& group,
                    const struct stat& status);
    bool stays(std::string_view path, std::string_view digest, const Places& places);
    std::vector<std::pair<std::string, Json::Value>> groupsLosing(const Places& places);

    std::map<std::string_view, LinkedGroup> mLinked;  // by digest
    std::unordered_map<std::string_view, KnownPath> mPaths;
    std::map<std::pair<dev_t, ino_t>, std::string> mDigests;  // of ambiguous files
};

}  // namespace rux
