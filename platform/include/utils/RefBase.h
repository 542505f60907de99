/// Reference counting: the base of everything that `sp` holds.
#pragma once

#include <atomic>
#include <cstdint>

#include "utils/StrongPointer.h"

namespace android {

/// An object that deletes itself when its last strong reference goes. A virtual base, so that an
/// object reached through two of its interfaces still has one count.
class RefBase {
  public:
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    void incStrong(const void* /*id*/) const { mStrong.fetch_add(1, std::memory_order_relaxed); }
    void decStrong(const void* /*id*/) const {
        if (mStrong.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

  protected:
    RefBase() = default;
    virtual ~RefBase() = default;

  private:
    mutable std::atomic<int32_t> mStrong{0};
};

}  // namespace android
