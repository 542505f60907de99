/// A constant UTF-8 text.
#pragma once

#include <cstddef>
#include <string>

namespace android {

class String8 {
  public:
    String8() = default;
    explicit String8(const char* text) : mText(text) {}

    /// Length in bytes.
    size_t size() const { return mText.size(); }
    const char* c_str() const { return mText.c_str(); }

  private:
    std::string mText;
};

}  // namespace android
