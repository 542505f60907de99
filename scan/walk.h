/// The walk over one starting path of a scan.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "db/known_paths.h"
#include "db/space.h"
#include "scan/digest_cache.h"
#include "scan/fingerprint.h"
#include "scan/pending_members.h"
#include "scan/postponed.h"

namespace rux {

/// What the walks of one request share.
struct ScanState {
    DigestCache digests;
    std::set<std::string> tidied;  // directories that stale temporary names were removed from
    FileIds databaseFiles;

    // Of the current rule:
    std::optional<KnownPaths> known;  // when it refreshes the space
    PendingMembers pendingMembers;
    PostponedFiles postponed;
    bool isStopped = false;

    KnownPaths* knownPaths() { return known ? &*known : nullptr; }
};

/// Hands every file with content below `path`, or `path` itself when it is one, to the
/// fingerprinting, in the order of the directories. Polls the stop property before each entry.
///
/// 0 when the path was walked, completely or up to a stop; -1 when it could not be opened.
int scanSpaceID(const std::string& path, const Selection& selection, ScanState& state);

/// The same for those of the postponed files that may be equal to another one.
void scanPostponed(const Selection& selection, ScanState& state);

}  // namespace rux
