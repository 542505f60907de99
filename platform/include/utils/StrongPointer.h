/// `sp`: a strong reference to a `RefBase` object.
#pragma once

#include <utility>

namespace android {

template <typename T>
class sp {
  public:
    sp() = default;
    sp(T* object) : mObject(object) {  // NOLINT(google-explicit-constructor): as on the platform
        if (mObject != nullptr) mObject->incStrong(this);
    }
    sp(const sp& other) : sp(other.mObject) {}
    sp(sp&& other) noexcept : mObject(std::exchange(other.mObject, nullptr)) {}
    template <typename U>
    sp(const sp<U>& other) : sp(other.get()) {}  // NOLINT(google-explicit-constructor): up-cast
    ~sp() { clear(); }

    sp& operator=(sp other) noexcept {
        std::swap(mObject, other.mObject);
        return *this;
    }

    /// A new `T`, held by the reference that comes back.
    template <typename... Args>
    static sp make(Args&&... args) {
        return sp(new T(std::forward<Args>(args)...));
    }

    void clear() {
        T* object = std::exchange(mObject, nullptr);
        if (object != nullptr) object->decStrong(this);
    }

    T* get() const { return mObject; }
    T* operator->() const { return mObject; }
    T& operator*() const { return *mObject; }
    explicit operator bool() const { return mObject != nullptr; }
    bool operator==(const sp& other) const { return mObject == other.mObject; }
    bool operator==(std::nullptr_t) const { return mObject == nullptr; }

  private:
    T* mObject = nullptr;
};

}  // namespace android
