/// One file of a scan: its record, its digest, its group.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "request/patterns.h"
#include "scan/pending_members.h"
#include "tavo_f2fs_io.h"

namespace rux {

/// What has to be done for a file.
enum class Need {
    Nothing,      // it has a digest, or no pattern selects it
    StaleName,    // a temporary name of the I/O library's, to be removed if nobody needs it
    NotStorable,  // its path cannot be held by a database file
    Record,       // it is an exception
    Digest,
};
struct Judgement {
    Need need = Need::Nothing;
    std::vector<const std::string*> tooLong;  ///< patterns that took too long for the path
};

/// Decides what a file needs, from its path and the images alone and without any effect: so it can
/// be asked ahead of the file's turn. One of `regs` must match the path; and none of `blackList`,
/// nor the path without symbolic links, when that is another (`realPath`, or empty).
/// Without `mayBeFinished` the path is known to be new, and the image is not asked.
Judgement judge(const std::string& path, const std::string& realPath, const PatternList& regs,
                const PatternList& blackList, bool mayBeFinished = true);

/// Takes up one file that the walk has met: writes its record into DB1 and, when it needs a digest,
/// has it enter the group of that digest in DB2, among the `pendingMembers`. `digest` is called at
/// most once, and only then.
///
/// A file that has got a digest since it was judged is left alone. `name` is the directory entry's,
/// empty when the walk was started on the file itself; `st` is the file's status from before its
/// digest was begun.
void calculateFileMD5(const std::string& path, std::string_view name, const struct stat& st,
                      const Judgement& judgement, const std::function<FileMD5Result()>& digest,
                      PendingMembers& pendingMembers);

}  // namespace rux
