/// The walk over one starting path of a scan.
#pragma once

#include <string>

#include "request/patterns.h"
#include "scan/window.h"

namespace rux {

/// Hands every file with content below `path`, or `path` itself when it is one, to the
/// fingerprinting, depth first and in the order of the directories. Symbolic links are followed.
/// The scan's stop property is polled before each entry.
///
/// Entries and digests are prepared ahead by other threads; everything that can be observed happens
/// here, one entry after the other. `preparation` is shared by the walks of one request.
///
/// 0 when the path was walked, completely or up to a stop; -1 when it could not be opened.
int scanSpaceID(const std::string& path, const PatternList& regs, const PatternList& blackList,
                Preparation& preparation);

}  // namespace rux
