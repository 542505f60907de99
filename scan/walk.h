/// The walk over one starting path of a scan.
#pragma once

#include <string>

#include "request/patterns.h"

namespace rux {

/// Hands every file with content below `path`, or `path` itself when it is one, to the
/// fingerprinting, depth first and in the order of the directories. Symbolic links are followed.
/// The scan's stop property is polled before each entry.
///
/// 0 when the path was walked, completely or up to a stop; -1 when it could not be opened.
int scanSpaceID(const std::string& path, const PatternList& regs, const PatternList& blackList);

}  // namespace rux
