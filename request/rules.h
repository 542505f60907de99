/// Requests, read from their JSON texts into typed values.
///
/// A top level that is no array has no elements; a list that is no array counts as absent; entries
/// that are no strings are left out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "db/space.h"

namespace rux {

/// What a scan is to take up of what lies below a starting path. A member of another type counts as
/// absent.
struct Reach {
    /// "follow_links". False leaves out symbolic links to files and to directories. The starting
    /// path itself may be one.
    bool followsLinks = true;
    /// "one_file_system". True leaves out directories on another file system than the starting
    /// path's.
    bool staysOnFileSystem = false;
    /// "min_size", "max_size", in bytes. Smaller and larger files are neither read nor recorded.
    uint64_t minBytes = 0;
    uint64_t maxBytes = UINT64_MAX;
    /// "lone_size", in bytes. Files of that size or more are neither digested nor recorded unless
    /// another one has their size and begins alike: one that the scan meets, or of a group of the
    /// space.
    uint64_t loneBytes = UINT64_MAX;
    /// Files that are left out whatever leads to them, if given. No request names them: the scan
    /// gives those of the database.
    const FileIds* excluded = nullptr;
};

/// What a request says about one space: an element of a scan's, a listing's or a restore's request.
struct SpaceRule {
    /// `Malformed`: the element is no object, or its "sid" no string.
    enum class Id { Given, Absent, Malformed } id = Id::Malformed;
    std::string spaceId;                             ///< "sid", when it is given.
    std::vector<std::string> patterns;               ///< "regs"; empty also when absent.
    std::optional<std::vector<std::string>> places;  ///< "dirs": starting paths or path fragments.
    bool hasUnusablePlaces = false;                  ///< "dirs" is not empty, but `places` is.
    /// "refresh", of a scan: bring what the space knows of its starting paths up to date.
    bool refreshes = false;
    Reach reach;  ///< "follow_links", "one_file_system", "min_size", "max_size", "lone_size".
};

/// Reads a request of space rules. False when `text` is not JSON.
bool readSpaceRules(const std::string& text, std::vector<SpaceRule>& rules);

/// Reads a request that is a list of strings (space ids). False when `text` is not JSON.
bool readStrings(const std::string& text, std::vector<std::string>& strings);

}  // namespace rux
