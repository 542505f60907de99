#include "f2fs_io/compare.h"

#include <linux/capability.h>
#include <linux/fs.h>
#include <linux/fscrypt.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "android-base/file.h"
#include "f2fs_io/long_file.h"

namespace android::host {
namespace {

constexpr off_t kPiece = 128 << 10;                     // bytes a read and file
constexpr off_t kShare = 256 << 10;                     // bytes that a thread takes at a time
constexpr auto kIdle = std::chrono::milliseconds(100);  // before the second thread ends
constexpr off_t kWorthTwo = 1024 << 10;                 // bytes of files that two threads compare

bool hasCapability(unsigned capability) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capget, &header, sets) == 0 &&
           (sets[CAP_TO_INDEX(capability)].effective & CAP_TO_MASK(capability)) != 0;
}

/// Whether SELinux is in use, which has its own rules for labels: a process has one, "a:b:c" at
/// least, then (see proc_pid_attr(5)).
bool hasLabels() {
    static const bool has = [] {
        std::string label;
        std::ifstream("/proc/self/attr/current") >> label;
        return std::count(label.begin(), label.end(), ':') >= 2;
    }();
    return has;
}

/// Whether this process may give a file of its own an extended attribute of that name.
bool mayBeWritten(const std::string& name) {
    if (!name.starts_with("security.") || (name == "security.selinux" && hasLabels())) return true;
    return hasCapability(name == "security.capability" ? CAP_SETFCAP : CAP_SYS_ADMIN);
}

/// Two files of which two threads compare one share after another.
struct Comparison {
    const int files[2];
    const off_t size;
    const std::function<bool()>& interrupted;
    std::atomic<off_t> next{0};  // share
    std::atomic<int> atWork{0};  // threads
    std::mutex mutex{};
    off_t failedAt = 0;
    int error = 0;  // of the first share that has one
};

/// Where from `begin` on one of the files has data: before it both have a hole, which nobody looks
/// at. The end when none of them has.
off_t nextData(const Comparison& comparison, off_t begin) {
    off_t next = comparison.size;
    for (const int file : comparison.files) {
        const off_t data = lseek(file, begin, SEEK_DATA);
        if (data < 0 && errno != ENXIO) return begin;
        if (data >= 0) next = std::min(next, data);
    }
    return next;
}

/// 0 or an errno.
int compareShare(Comparison& comparison, off_t begin) {
    char pieces[2][kPiece];
    const off_t end = std::min(begin + kShare, comparison.size);
    if (comparison.size > kWorthTwo) {
        const off_t data = nextData(comparison, begin);
        off_t next = comparison.next;
        while (next < data && !comparison.next.compare_exchange_weak(next, data)) continue;
        if (data >= end) return 0;
    }
    for (off_t at = begin; at < end; at += kPiece) {
        if (at > 0 && comparison.interrupted && comparison.interrupted()) return EBUSY;
        const auto size = static_cast<size_t>(std::min(end - at, kPiece));
        for (int i = 0; i < 2; ++i) {
            errno = 0;
            if (!base::ReadFullyAtOffset(comparison.files[i], pieces[i], size, at))
                return errno == 0 ? EILSEQ : errno;
        }
        if (memcmp(pieces[0], pieces[1], size) != 0) return EILSEQ;
    }
    return 0;
}

/// Until no share is left, or one is not the same.
void work(Comparison& comparison, LongFile* longFile) {
    ++comparison.atWork;
    off_t begin = 0;
    while ((begin = comparison.next.fetch_add(kShare)) < comparison.size) {
        int error = compareShare(comparison, begin);
        if (error == 0 && longFile != nullptr) error = longFile->count(comparison.files[0], kShare);
        if (error == 0) continue;
        comparison.next = comparison.size;
        const std::lock_guard lock(comparison.mutex);
        if (comparison.error == 0 || begin < comparison.failedAt) {
            comparison.failedAt = begin;
            comparison.error = error;
        }
    }
    --comparison.atWork;
    comparison.atWork.notify_all();
}

/// The second thread. It stays for a while, as a new one would come too late for most files.
class Helper {
  public:
    /// Has it take part in the comparison when it comes: when all is over it finds no share.
    void invite(const std::shared_ptr<Comparison>& comparison) {
        const std::lock_guard lock(mMutex);
        mInvitedTo = comparison;
        mInvitation.notify_one();
        if (mIsThere) return;
        try {
            std::thread([this] { run(); }).detach();
            mIsThere = true;
        } catch (const std::system_error&) {  // no thread: the caller does it alone
        }
    }

  private:
    void run() {
        std::unique_lock lock(mMutex);
        while (mInvitation.wait_for(lock, kIdle, [this] { return mInvitedTo != nullptr; })) {
            const std::shared_ptr<Comparison> comparison = std::move(mInvitedTo);
            lock.unlock();
            work(*comparison, nullptr);
            lock.lock();
        }
        mIsThere = false;
    }

    std::mutex mMutex;
    std::condition_variable mInvitation;
    bool mIsThere = false;
    std::shared_ptr<Comparison> mInvitedTo;
};

}  // namespace

bool sameContentStamp(const struct stat& before, const struct stat& after) {
    return before.st_size == after.st_size && timeOf(before.st_mtim) == timeOf(after.st_mtim);
}

int compareBytes(int first, int second, off_t size, const std::function<bool()>& interrupted) {
    const std::shared_ptr<Comparison> comparison(
            new Comparison{{first, second}, size, interrupted});
    static auto& helper = *new Helper;  // its thread outlives every other object
    if (size >= kWorthTwo) helper.invite(comparison);
    LongFile longFile;
    work(*comparison, &longFile);
    for (int atWork = comparison->atWork; atWork != 0; atWork = comparison->atWork)
        comparison->atWork.wait(atWork);
    return comparison->error;
}

bool Attributes::canBeGiven() const {
    const bool isOwn = uid == geteuid() && (gid == getegid() || group_member(gid) != 0);
    return (isOwn || hasCapability(CAP_CHOWN)) &&
           std::all_of(xattrs.begin(), xattrs.end(),
                       [](const auto& one) { return mayBeWritten(one.first); });
}

int flagsOf(int file) {
    int flags = 0;
    const bool isKnown = ioctl(file, FS_IOC_GETFLAGS, &flags) == 0;
    return isKnown ? flags & (FS_FL_USER_MODIFIABLE | kNotGivenFlags | FS_ENCRYPT_FL) : 0;
}

std::string encryptionOf(int file) {
    fscrypt_get_policy_ex_arg answer = {};
    answer.policy_size = sizeof(answer.policy);
    if (ioctl(file, FS_IOC_GET_ENCRYPTION_POLICY_EX, &answer) != 0) return {};
    return {reinterpret_cast<const char*>(&answer.policy), answer.policy_size};
}

uint32_t projectOf(int file) {
    fsxattr attributes = {};
    return ioctl(file, FS_IOC_FSGETXATTR, &attributes) == 0 ? attributes.fsx_projid : 0;
}

int readAttributes(int file, const struct stat& st, Attributes* attributes) {
    attributes->uid = st.st_uid;
    attributes->gid = st.st_gid;
    attributes->mode = st.st_mode;
    return readXattrs(file, &attributes->xattrs);
}

}  // namespace android::host
