/// The property store of one root: a file that every process of the root maps.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace android::host {

/// Reads go to the mapping alone and never wait; writers exclude each other with a file lock, which
/// the kernel drops when one dies. Every value has two buffers: a writer fills the one that is not
/// current and then flips the serial, so that a reader sees the old value or the new one, whole.
class PropertyStore {
  public:
    static constexpr size_t kMaxValue = 91;
    static constexpr size_t kMaxName = 119;

    /// `directory` is the run directory that holds the file. It is opened at the first use.
    explicit PropertyStore(std::string directory) : mDirectory(std::move(directory)) {}
    ~PropertyStore();
    PropertyStore(const PropertyStore&) = delete;
    PropertyStore& operator=(const PropertyStore&) = delete;

    std::string get(std::string_view name, const std::string& fallback);
    bool set(std::string_view name, std::string_view value);

  private:
    struct Slot;
    struct Area;

    Area* area(bool create);
    static Slot* find(Area& area, std::string_view name);

    const std::string mDirectory;
    std::mutex mMutex;  // guards opening, and sets one writer of this process against another
    std::atomic<Area*> mArea{nullptr};
    int mFile = -1;
};

}  // namespace android::host
