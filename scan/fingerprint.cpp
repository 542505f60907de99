#include "scan/fingerprint.h"

#include <cerrno>
#include <memory>

#include "control/log.h"
#include "control/properties.h"
#include "db/images.h"
#include "db/json_text.h"
#include "db/records.h"
#include "db/space.h"
#include "platform/include/tavo_f2fs_io_extensions.h"
#include "tavo_f2fs_io.h"

namespace rux {

Judgement judge(const std::string& path, const std::string& realPath, const Selection& selection,
                bool mayBeFinished) {
    Judgement judgement;
    if (selection.known == nullptr && mayBeFinished && isFinished(path)) {
        judgement.need = Need::Done;
    } else if (!selection.regs.matches(path, judgement.tooLong)) {
        judgement.need = Need::NotSelected;
    } else if (isStaleName != nullptr && isStaleName(path.c_str())) {
        judgement.need = Need::StaleName;
    } else if (!isStorablePath(path)) {
        judgement.need = Need::NotStorable;
    } else {
        const PatternList& exceptions = selection.exceptions;
        const bool isException =
                exceptions.matches(path, judgement.tooLong) ||
                (!realPath.empty() && exceptions.matches(realPath, judgement.tooLong));
        judgement.need = isException ? Need::Record : Need::Digest;
    }
    return judgement;
}

namespace {

void computeMissing(SharedDigest& digest, const std::string& path) {
    if (digest == nullptr) digest = notComputed();
    if (digest->code == ECANCELED) *digest = computeFileMD5(path.c_str(), toolLogEnabled);
}

/// Whether what is known of a file holds. Otherwise it is taken up as new.
bool isUnchanged(const std::string& path, const struct stat& st, const Judgement& judgement,
                 PendingMembers& pendingMembers) {
    KnownPath& known = *judgement.known;
    known.isMet = true;
    if (judgement.need == Need::Digest && known.holds(st)) {
        // Its content is known, so it needs no reading to be linked again.
        const SharedDigest digest = digestOf(known.apartFrom(st));
        if (digest != nullptr) pendingMembers.add(digest, st.st_size, path);
        return true;
    }
    known.taken = std::make_unique<std::string>();
    return false;
}

}  // namespace

void calculateFileMD5(const std::string& path, const struct stat& st, const Judgement& judgement,
                      SharedDigest digest, PendingMembers& pendingMembers) {
    KnownPath* const known = judgement.known;
    if (known != nullptr ? known->isMet : !judgement.tooLong.empty() && isFinished(path)) return;
    for (const std::string* pattern : judgement.tooLong)
        RUX_LOGE("pattern %s takes too long for %s", pattern->c_str(), path.c_str());
    if (judgement.need == Need::NotStorable)
        RUX_LOGD("the path %s is not valid UTF-8, skip", path.c_str());
    if (judgement.need != Need::Record && judgement.need != Need::Digest) return;
    if (known != nullptr && isUnchanged(path, st, judgement, pendingMembers)) return;
    Json::Value& record = asObject(fileInfoDB.change())[path];
    if (known == nullptr && hasDigest(record)) return;  // the same path has been met twice
    makeFileRecord(record, st.st_mtime, path);
    if (judgement.need == Need::Record) {
        RUX_LOGD("the file is in black list");
        return;
    }
    computeMissing(digest, path);
    if (digest->code != 0) {
        RUX_LOGD("cal md5 error code != 0, continue");
        return;
    }
    setHasDigest(record);
    if (known != nullptr) *known->taken = digest->md5;
    pendingMembers.add(digest, st.st_size, path);
}

}  // namespace rux
