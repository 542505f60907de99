#include "properties/store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "root/run_dir.h"

namespace android::host {
namespace {

constexpr size_t kSlots = 128;
constexpr size_t kWords = 12;  // one byte of length, then up to 91 bytes of value
using Value = uint64_t[kWords];
static_assert(sizeof(Value) > PropertyStore::kMaxValue);
static_assert(std::atomic<uint64_t>::is_always_lock_free);

/// An exclusive lock on the store's file for the length of a scope.
class FileLock {
  public:
    explicit FileLock(int file) : mFile(file) {
        while (flock(mFile, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~FileLock() { flock(mFile, LOCK_UN); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

  private:
    int mFile;
};

}  // namespace

struct PropertyStore::Slot {
    std::atomic<uint32_t> serial;  // its lowest bit says which buffer is current
    uint32_t nameLength;
    char name[kMaxName + 1];
    std::atomic<uint64_t> buffers[2][kWords];

    /// The words are read with acquire and written with release: a reader that met a word of a
    /// later value is then sure to meet that value's serial too, and reads again.
    std::string read() const {
        Value words;
        uint32_t before = 0;
        do {
            before = serial.load(std::memory_order_acquire);
            for (size_t i = 0; i < kWords; ++i) {
                words[i] = buffers[before & 1][i].load(std::memory_order_acquire);
            }
        } while (serial.load(std::memory_order_acquire) != before);
        char bytes[sizeof(Value)];
        memcpy(bytes, words, sizeof(bytes));
        return {bytes + 1, std::min<size_t>(static_cast<unsigned char>(bytes[0]), kMaxValue)};
    }

    void write(std::string_view value) {
        Value words = {};
        char bytes[sizeof(Value)] = {};
        bytes[0] = static_cast<char>(value.size());
        memcpy(bytes + 1, value.data(), value.size());
        memcpy(words, bytes, sizeof(words));
        const uint32_t next = serial.load(std::memory_order_relaxed) + 1;
        for (size_t i = 0; i < kWords; ++i) {
            buffers[next & 1][i].store(words[i], std::memory_order_release);
        }
        serial.store(next, std::memory_order_release);
    }
};

/// The whole file. A new file is all zeros, which is an empty store.
struct PropertyStore::Area {
    std::atomic<uint32_t> count;
    uint32_t reserved;
    Slot slots[kSlots];
};

PropertyStore::~PropertyStore() {
    if (Area* mapped = mArea.load(); mapped != nullptr) munmap(mapped, sizeof(Area));
    if (mFile >= 0) close(mFile);
}

PropertyStore::Area* PropertyStore::area(bool create) {
    if (Area* mapped = mArea.load(std::memory_order_acquire); mapped != nullptr) return mapped;
    const std::lock_guard lock(mMutex);
    if (Area* mapped = mArea.load(std::memory_order_acquire); mapped != nullptr) return mapped;

    const int directory = openPrivateDirectory(mDirectory, create);
    if (directory < 0) return nullptr;
    const int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0);
    struct stat owner = {};
    fstat(directory, &owner);
    const int file = openat(directory, "properties", flags, 0600);
    close(directory);
    if (file < 0) return nullptr;

    struct stat st = {};
    {
        const FileLock fileLock(file);
        // With its blocks: to touch a mapped page that the disk has no room for ends the process.
        // The service's user must have it, even where root's client is the first to need it.
        if (fstat(file, &st) == 0 && st.st_size == 0 && create &&
            posix_fallocate(file, 0, sizeof(Area)) == 0 &&
            (geteuid() != 0 || fchown(file, owner.st_uid, owner.st_gid) == 0)) {
            fstat(file, &st);
        }
    }
    void* mapped = MAP_FAILED;
    if (S_ISREG(st.st_mode) && st.st_size == sizeof(Area)) {
        mapped = mmap(nullptr, sizeof(Area), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    if (mapped == MAP_FAILED) {
        close(file);
        return nullptr;
    }
    mFile = file;
    mArea.store(static_cast<Area*>(mapped), std::memory_order_release);
    return static_cast<Area*>(mapped);
}

PropertyStore::Slot* PropertyStore::find(Area& area, std::string_view name) {
    const size_t count = std::min<size_t>(area.count.load(std::memory_order_acquire), kSlots);
    for (Slot* slot = area.slots; slot != area.slots + count; ++slot) {
        if (slot->nameLength == name.size() && memcmp(slot->name, name.data(), name.size()) == 0) {
            return slot;
        }
    }
    return nullptr;
}

std::string PropertyStore::get(std::string_view name, const std::string& fallback) {
    Area* const mapped = area(false);
    if (mapped == nullptr || name.size() > kMaxName) return fallback;
    const Slot* slot = find(*mapped, name);
    if (slot == nullptr) return fallback;
    std::string value = slot->read();
    return value.empty() ? fallback : value;
}

bool PropertyStore::set(std::string_view name, std::string_view value) {
    if (name.empty() || name.size() > kMaxName || value.size() > kMaxValue) return false;
    constexpr char kNul = '\0';
    if (name.find(kNul) != std::string_view::npos || value.find(kNul) != std::string_view::npos) {
        return false;
    }
    Area* const mapped = area(true);
    if (mapped == nullptr) return false;

    const std::lock_guard lock(mMutex);
    const FileLock fileLock(mFile);
    if (Slot* slot = find(*mapped, name); slot != nullptr) {
        slot->write(value);
        return true;
    }
    const uint32_t count = mapped->count.load(std::memory_order_relaxed);
    if (count >= kSlots) return false;
    Slot& slot = mapped->slots[count];  // unseen by readers until the count says so
    slot.nameLength = static_cast<uint32_t>(name.size());
    memcpy(slot.name, name.data(), name.size());
    slot.write(value);
    mapped->count.store(count + 1, std::memory_order_release);
    return true;
}

}  // namespace android::host
