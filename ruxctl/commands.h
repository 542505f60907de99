/// What the program's subcommands do. Each returns an exit status and says on standard error what
/// went wrong and what to do about it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ruxctl {

/// A space, the patterns of the paths that are meant, and the places to look at.
struct SpaceQuery {
    std::string spaceId;
    std::vector<std::string> patterns;
    std::vector<std::string> places;
};

/// What a scan takes up of what lies below its places.
struct Reach {
    bool followsLinks = false;
    bool staysOnFileSystem = false;
    uint64_t minBytes = 0;
    uint64_t maxBytes = UINT64_MAX;
    uint64_t loneBytes = UINT64_MAX;  ///< from this size on only files whose size another has

    bool holds(int64_t bytes) const {
        return static_cast<uint64_t>(bytes) >= minBytes && static_cast<uint64_t>(bytes) <= maxBytes;
    }
};

struct ScanOptions {
    SpaceQuery query;                   ///< no patterns: all paths; no places: all known files
    std::vector<std::string> included;  ///< globs: only such paths, beside those of the patterns
    std::vector<std::string> excluded;  ///< globs: no such paths
    Reach reach;
    std::string listFile;       ///< more places, one a line; "-" is standard input
    bool listHasZeros = false;  ///< they end with a zero byte each
    bool refreshes = true;      ///< reads again what has changed, and forgets what is gone
    bool fresh = false;         ///< finds all files anew
    bool force = false;         ///< even where that may lose the undo of links
    bool progress = true;
    bool links = false;    ///< what is found is to be linked at once
    bool verbose = false;  ///< names what is left out
    bool quiet = false;    ///< keeps standard output for what comes after
};
int scan(ScanOptions options);

struct ListOptions {
    std::vector<std::string> spaceIds;  ///< none: all
    std::vector<std::string> patterns;  ///< none: all paths
    bool json = false;
    bool bytes = false;  ///< exact numbers in place of human ones
};
int list(const ListOptions& options);

struct GroupsOptions {
    std::vector<std::string> spaceIds;  ///< none: all
    std::string sort = "size";          ///< or "count"
    size_t top = SIZE_MAX;
    std::string format = "text";  ///< "json", "csv", "null"
    bool all = false;             ///< those with nothing to give back as well
};
int groups(const GroupsOptions& options);

struct CompressOptions {
    std::vector<std::string> spaceIds;
    bool yes = false;
    bool dryRun = false;
    bool json = false;
};
int compress(const CompressOptions& options);

/// Scans into a space of the directories' own, and links.
int dedupe(ScanOptions options, CompressOptions then);

struct RestoreOptions {
    SpaceQuery query;                ///< no id: all spaces; the places are texts in paths
    std::vector<std::string> below;  ///< only groups with a path below one of these
    bool yes = false;
    bool force = false;  ///< even without enough room
    bool dryRun = false;
    bool json = false;
    bool verbose = false;  ///< names what is restored
};
int restore(const RestoreOptions& options);

struct ForgetOptions {
    std::string spaceId;
    bool yes = false;
    bool force = false;  ///< even where links would lose their undo
};
/// Removes what is known of a space.
int forget(const ForgetOptions& options);

int showExceptRules();
/// Sets the patterns, or adds them to those that are set.
int setExceptRules(std::vector<std::string> patterns, bool add);
/// Takes patterns out of those that are set.
int removeExceptRules(const std::vector<std::string>& patterns);
/// Says which of the paths a pattern matches; of all recorded ones when none are given.
int checkExceptRule(const std::string& pattern, const std::vector<std::string>& paths);

int status(bool json);

/// Writes a page about the spaces (all when none are given); "-" is standard output.
int report(const std::string& htmlFile, const std::vector<std::string>& spaceIds);

/// Sets the stop property of `operation` ("scan", "list" or "compress").
int stop(const std::string& operation);

/// One transaction with a string (or none), its result printed as it comes.
int callText(uint32_t code, const std::optional<std::string>& request);
/// One transaction with exactly the bytes that `hex` spells; prints its status and reply parcel.
int callHex(uint32_t code, const std::string& hex);

int getProperty(const std::string& name);
int setProperty(const std::string& name, const std::string& value);

}  // namespace ruxctl
