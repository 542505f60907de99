/// The grouping pass: which duplicates are still there.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "request/patterns.h"

namespace rux {

/// What a listing reports of a space, added up over its passes.
struct DupCounts {
    uint32_t sameMD5GroupCount = 0;  ///< groups that can be compressed
    int64_t canCompressSize = 0;     ///< bytes that linking them would give back
    int32_t dupFileCount = 0;        ///< their members that match the patterns
    std::set<std::string> counted;   ///< digests of the groups: each counts once a space rule
};

/// Examines every group of DB2 on disk once and adds to `counts` those of which two members or more
/// are there, unchanged, and match `patterns`.
///
/// A group with a member that has changed since the scan is noted in DB4 and, when the pass has run
/// to its end, leaves DB2. The listing's stop property is polled after each member; a stop retires
/// no group.
void readDupFiles(const PatternList& patterns, DupCounts& counts);

}  // namespace rux
