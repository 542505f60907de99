/// One file of a scan: its record, its digest, its group.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "db/known_paths.h"
#include "request/patterns.h"
#include "request/rules.h"
#include "scan/digest_cache.h"
#include "scan/pending_members.h"

namespace rux {

/// The files that a walk takes up: one of `regs` matches the path. What one of `exceptions`
/// matches, the path or that without symbolic links, is an exception.
struct Selection {
    const PatternList& regs;
    const PatternList& exceptions;
    const Reach& reach;
    KnownPaths* const known = nullptr;  ///< when the space is to be brought up to date
};

/// What has to be done for a file.
enum class Need {
    NotSelected,  // no pattern selects it
    Done,         // it has a digest
    StaleName,    // a temporary name of the I/O library's, to be removed if nobody needs it
    NotStorable,  // its path cannot be held by a database file
    Record,       // it is an exception
    Digest,
};
struct Judgement {
    Need need = Need::NotSelected;
    std::vector<const std::string*> tooLong;  ///< patterns that took too long for the path
    KnownPath* known = nullptr;               ///< for a refresh; to be found by the caller
};

/// Decides what a file needs, from its path and the images alone and without any effect. `realPath`
/// is the path without symbolic links, or empty when that is no other. Without `mayBeFinished` the
/// path is known to be new, and the image is not asked.
Judgement judge(const std::string& path, const std::string& realPath, const Selection& selection,
                bool mayBeFinished = true);

/// Takes up one file that the walk has met: writes its record into DB1 and, when it needs a digest,
/// has it enter the group of that digest in DB2, among the `pendingMembers`. `digest` is what there
/// is of it: without one, or with the code ECANCELED, it is computed now.
///
/// A file that has got a digest since it was judged, or of which what is known holds, is left
/// alone. `st` is the file's status from before its digest was begun.
void calculateFileMD5(const std::string& path, const struct stat& st, const Judgement& judgement,
                      SharedDigest digest, PendingMembers& pendingMembers);

}  // namespace rux
