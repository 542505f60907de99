/// The walk over one starting path of a scan.
#pragma once

#include <set>
#include <string>

#include "scan/digest_cache.h"
#include "scan/fingerprint.h"
#include "scan/pending_members.h"

namespace rux {

/// What the walks of one request share.
struct ScanState {
    DigestCache digests;
    PendingMembers pendingMembers;
    std::set<std::string> tidied;  // directories that stale temporary names were removed from
};

/// Hands every file with content below `path`, or `path` itself when it is one, to the
/// fingerprinting, in the order of the directories. Polls the stop property before each entry.
///
/// 0 when the path was walked, completely or up to a stop; -1 when it could not be opened.
int scanSpaceID(const std::string& path, const Selection& selection, ScanState& state);

}  // namespace rux
