#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>

#include "db/files.h"
#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/tree.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kLoneBytes = 64 << 10;  // smaller files are read in no time

/// The patterns with what the globs say.
std::vector<std::string> patternsOf(const ScanOptions& options) {
    std::vector<std::string> patterns = options.query.patterns;
    std::string excluded;
    for (const std::string& glob : options.excluded)
        excluded += (excluded.empty() ? "" : "|") + patternOfGlob(glob);
    for (const std::string& glob : options.included) patterns.push_back(patternOfGlob(glob));
    if (patterns.empty()) patterns = kAllPaths;
    if (excluded.empty()) return patterns;
    for (std::string& pattern : patterns) pattern = "(?!(?:" + excluded + ")$)(?:" + pattern + ")";
    return patterns;
}

/// Adds the paths that a file lists, or standard input. Those that are gone are passed over.
void addListed(const ScanOptions& options, std::vector<std::string>& places) {
    std::ifstream file;
    if (options.listFile != "-") file.open(options.listFile);
    if (!file) throw Failure(options.listFile + ": " + strerror(errno));
    std::istream& lines = options.listFile == "-" ? std::cin : file;
    int64_t gone = 0;
    for (std::string line; std::getline(lines, line, options.listHasZeros ? '\0' : '\n');) {
        if (line.empty()) continue;
        const std::string path = absolutePath(line);
        const bool isThere = access(path.c_str(), F_OK) == 0;
        if (isThere) places.push_back(path);
        gone += isThere ? 0 : 1;
    }
    if (gone > 0) std::cerr << counted(gone, "listed path") << " not there\n";
    if (places.empty()) throw Failure("no path of the list is there");
}

/// What the service is asked for. Throws a Failure for a pattern or a place that cannot be meant.
SpaceQuery queryOf(const ScanOptions& options) {
    const PathPatterns areRight(options.query.patterns);
    SpaceQuery query = {options.query.spaceId, patternsOf(options), {}};
    for (const std::string& place : options.query.places) {
        query.places.push_back(absolutePath(place));
        if (access(query.places.back().c_str(), F_OK) != 0)
            throw Failure(query.places.back() + ": " + strerror(errno));
    }
    if (!options.listFile.empty()) addListed(options, query.places);
    if (!query.places.empty()) return query;
    requireSpaces({query.spaceId});
    query.places = recordedPaths(query.spaceId);
    return query;
}

/// Throws a Failure where the service, with the root `root`, sees something else than this program,
/// or may change nothing where this program could.
void requireSight(const std::string& root, const std::string& place, bool writes) {
    const std::string there = root + place;
    std::error_code unknown;
    if (!fs::equivalent(place, there, unknown) && !unknown)
        throw Failure("the service does not see " + place +
                      ": `systemctl cat rux` has what it sees");
    if (writes && access(place.c_str(), W_OK) == 0 && access(there.c_str(), W_OK) != 0 &&
        errno == EROFS)
        throw Failure("the service may change nothing in " + place +
                      "; to let it: `systemctl edit rux`, [Service] ReadWritePaths=" + place);
}

/// Linked files that such a scan would not find again.
int64_t linkedElsewhere(const SpaceQuery& query, const Reach& reach) {
    const PathPatterns patterns(query.patterns);
    const Places places(query.places.begin(), query.places.end());
    int64_t others = 0;
    SpaceTexts(query.spaceId, {kCompressed})
            .forEachGroup(kCompressed, [&](const std::string&, int64_t bytes, const auto& paths) {
                others += std::count_if(paths.begin(), paths.end(), [&](const std::string& path) {
                    return !reach.holds(bytes) || !isBelow(path, places) || !patterns.match(path);
                });
            });
    return others;
}

/// Throws a Failure where a directory has become empty, or all of the recorded files are gone: as a
/// rule a disk is not mounted, and what is known of its files would be forgotten.
void requireFiles(const SpaceQuery& query, bool areRecorded) {
    const auto isBare = [](const std::string& place) {
        std::error_code error;
        return !fs::exists(place, error) ||
               (fs::is_directory(place, error) && fs::is_empty(place, error));
    };
    const auto first = query.places.begin();
    const auto end = query.places.end();
    if (areRecorded && !std::all_of(first, end, isBare)) return;
    Places bare;
    std::copy_if(first, end, std::inserter(bare, bare.end()), isBare);
    if (bare.empty()) return;
    const std::vector<std::string> recorded = recordedPaths(query.spaceId);
    const auto lost = std::count_if(recorded.begin(), recorded.end(),
                                    [&](const std::string& path) { return isBelow(path, bare); });
    if (lost == 0) return;
    throw Failure("nothing is left of " + counted(lost, "file") + " recorded in " + query.spaceId +
                  "; is their disk mounted? To have them forgotten, use --fresh");
}

/// Makes the service forget what it knows of the space, but for links.
void beginAfresh(const Client& client, const SpaceQuery& query, const ScanOptions& options) {
    if (const int64_t paths = linkedElsewhere(query, options.reach); paths > 0 && !options.force) {
        throw Failure(counted(paths, "linked file") +
                      " of the space would not be met, and the next link could forget how to "
                      "restore them; scan all of its directories, or use --force");
    }
    startAfresh(client, query.spaceId);
}

/// Counts what the scan will meet, beside it; null where nobody asks for that.
std::unique_ptr<TreeCount> beginCount(const SpaceQuery& query, const ScanOptions& options,
                                      bool isFirst) {
    if (!options.progress && !options.verbose && !options.reach.followsLinks) return nullptr;
    std::vector<std::string> globs = options.included;
    globs.insert(globs.end(), options.excluded.begin(), options.excluded.end());
    return std::make_unique<TreeCount>(query.places, options.reach, globs,
                                       isFirst && isatty(STDERR_FILENO) != 0);
}

std::string progressText(int64_t read, int64_t all, double seconds) {
    if (all > 0) return progress(std::min(read, all), all, seconds, humanBytes);
    return "Scanning for " + duration(seconds) +
           (read > 0 ? ", " + humanBytes(read) + " read" : "");
}

/// Has the portions of the places scanned one after the other. There is a bar where it is known how
/// much will be read: in a first scan whose `tree` is counted.
Outcome scanPortions(const Client& client, SpaceQuery query, const ScanOptions& options,
                     const TreeCount* tree) {
    StatusLine line;
    const int64_t readBefore = client.bytesMoved("rchar:");
    Outcome outcome;
    double secondsBefore = 0;
    for (const auto& portion : portionsOf(query.places)) {
        query.places = portion;
        const std::string request = scanText(query, options.reach, options.refreshes);
        outcome = carryOut(client, kScanOperation, request, [&](double seconds) {
            line.show(Interrupts::any() ? "Stopping; what has been recorded is being saved"
                                        : progressText(client.bytesMoved("rchar:") - readBefore,
                                                       tree != nullptr ? tree->bytes() : 0,
                                                       secondsBefore + seconds));
        });
        outcome.seconds = secondsBefore += outcome.seconds;
        if (outcome.stopped) break;
    }
    return outcome;
}

/// Says how many there are. True when each is to be named.
bool begin(size_t count, const char* noun, const char* what, bool verbose) {
    if (count == 0) return false;
    std::cerr << counted(static_cast<int64_t>(count), noun) << what
              << (verbose ? ":\n" : " (--verbose says which)\n");
    return verbose;
}

void sayWhatIsLeftOut(const TreeCount& tree, bool verbose) {
    if (begin(tree.unfollowed().size(), "symbolic link", " not followed", verbose)) {
        for (const std::string& path : tree.unfollowed()) std::cerr << "  " << shown(path) << "\n";
    }
    if (begin(tree.leftOut().size(), "name", " left out", verbose)) {
        for (const auto& [path, reason] : tree.leftOut())
            std::cerr << "  " << shown(path) << ": " << reason << "\n";
    }
    if (tree.lone() > 0)
        std::cerr << counted(tree.lone(), "large file") << " not read: no other has the size\n";
    for (const std::string& glob : tree.unmatched())
        std::cerr << "Warning: no file matches " << glob << "\n";
    if (tree.outside() > 0) {
        std::cerr << "Warning: " << counted(tree.outside(), "file")
                  << " outside of the directories, where symbolic links lead\n";
    }
}

/// Says which of the recorded files the scan has not read.
void sayWhatIsUnread(const SpaceTexts& texts, bool verbose) {
    const std::vector<std::string> exceptions = exceptionRules();
    if (!begin(unreadCount(texts), "file",
               exceptions.empty() ? " could not be read" : " left out by exceptions, or unreadable",
               verbose))
        return;
    std::vector<std::pair<std::string, PathPatterns>> rules;
    rules.reserve(exceptions.size());
    for (const std::string& rule : exceptions)
        rules.emplace_back(rule, PathPatterns({rule}, false));
    texts.forEach(kRecords, [&rules](const std::string& path, const Json::Value& record) {
        if (!record.isObject() || record["is_md5"] != 0) return;
        const auto found = std::find_if(rules.begin(), rules.end(), [&path](const auto& rule) {
            return rule.second.match(path);
        });
        std::cerr << "  " << shown(path) << ": "
                  << (found != rules.end() ? "matches the exception " + found->first
                                           : "could not be read")
                  << "\n";
    });
}

/// Throws a Failure when the service has not made the space.
void requireScanned(const std::string& spaceId) {
    if (exists(spaceId)) return;
    requireRoot();
    throw Failure("the service could not use the space " + spaceId + "; its log says why");
}

/// The name of a space of these directories' own.
std::string spaceFor(const ScanOptions& options) {
    std::set<std::string> places;
    for (const std::string& place : options.query.places) places.insert(absolutePath(place));
    rux::TextStamp stamp;
    for (const std::string& place : places) stamp.add(place + '\n');
    char hash[16];
    snprintf(hash, sizeof(hash), "-%08x", static_cast<unsigned>(stamp.hash));
    std::string name = fs::path(*places.begin()).filename().string().substr(0, 100);
    for (char& c : name) {  // so that it needs no quotes
        if (isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
    }
    return (name.empty() ? "root" : name) + hash;
}

}  // namespace

int scan(ScanOptions options) {
    const SpaceQuery query = queryOf(options);
    // What is alone in one portion may have its like in another.
    if (portionsOf(query.places).size() > 1) options.reach.loneBytes = UINT64_MAX;
    const Client client = service();
    const std::string root = client.root();
    for (const std::string& place : options.query.places)
        requireSight(root, absolutePath(place), options.links);
    if (options.fresh && exists(query.spaceId)) beginAfresh(client, query, options);
    const int64_t before = recordCount({query.spaceId, {kRecords}});
    const bool areRecorded = options.query.places.empty() && options.listFile.empty();
    if (before > 0 && options.refreshes) requireFiles(query, areRecorded);

    const std::unique_ptr<TreeCount> tree = beginCount(query, options, before == 0);
    const Outcome outcome =
            scanPortions(client, query, options, before == 0 ? tree.get() : nullptr);
    requireScanned(query.spaceId);

    const SpaceTexts texts(query.spaceId, {kRecords});
    const int64_t after = recordCount(texts);
    (options.quiet ? std::cerr : std::cout)
            << counted(after, "file") << " recorded in " << duration(outcome.seconds)
            << (before > 0 ? ", " + grouped(before) + " before" : "") << "\n";
    if (outcome.stopped) {
        std::cerr << "ruxctl: stopped; what was recorded is kept, the same scan again goes on\n";
        return kInterrupted;
    }
    if (tree) {
        tree->finish();
        sayWhatIsLeftOut(*tree, options.verbose);
    }
    sayWhatIsUnread(texts, options.verbose);
    if (after == 0) sayWhatPatternsAre(options.query.patterns);
    if (!options.quiet) sayWhatIsSetAside({query.spaceId});
    return kDone;
}

int dedupe(ScanOptions options, CompressOptions then) {
    if (!options.listFile.empty()) addListed(options, options.query.places);
    options.listFile.clear();
    if (options.query.places.empty()) throw Failure("DIR or --files-from is required", kUsage);
    options.query.spaceId = spaceFor(options);
    options.reach.loneBytes = kLoneBytes;
    options.quiet = true;
    options.links = !then.dryRun;
    if (const int exit = scan(options); exit != kDone) return exit;
    then.spaceIds = {options.query.spaceId};
    return compress(then);
}

int forget(const ForgetOptions& options) {
    const std::string& spaceId = options.spaceId;
    requireSpaces({spaceId});
    const Space space = lookAt(spaceId);
    if (space.compressed > 0 && !options.force) {
        throw Failure(counted(space.compressed, "group") +
                      " of links would lose their undo; restore them first, begin anew with "
                      "`ruxctl scan --fresh`, or use --force");
    }
    if (!agreed("Forget " + counted(space.files, "record") + " of " + spaceId + "?", options.yes))
        return kDone;
    if (const auto client = Client::connect(); client) startAfresh(*client, spaceId);
    if (!forgetRecords(spaceId, true))
        throw Failure(spaceId + " cannot be removed: " + strerror(errno));
    std::cerr << "Forgotten; no file has been touched\n";
    return kDone;
}

}  // namespace ruxctl
