/// One file of a scan: its record, its digest, its group.
#pragma once

#include <sys/stat.h>

#include <string>

#include "request/patterns.h"

namespace rux {

/// Takes up one file that the walk has met.
///
/// A file that already has a digest costs one look-up. Otherwise, when one of `regs` matches its
/// path, it gets a record in DB1, and unless one of `blackList` matches it too, its digest is
/// computed and its path joins the group of that digest in DB2.
///
/// `name` is the directory entry's, empty when the walk was started on the file itself; `st` is the
/// file's status as the walk read it.
void calculateFileMD5(const std::string& path, const std::string& name, const struct stat& st,
                      const PatternList& regs, const PatternList& blackList);

}  // namespace rux
