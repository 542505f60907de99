/// A constant UTF-16 text.
#pragma once

#include <cstddef>
#include <string>

namespace android {

class String16 {
  public:
    String16() = default;
    explicit String16(const char16_t* text) : mText(text) {}
    /// From UTF-8; a text that is not valid UTF-8 gives an empty string.
    explicit String16(const char* text);

    /// Length in code units.
    size_t size() const { return mText.size(); }
    const char16_t* c_str() const { return mText.c_str(); }
    const char16_t* string() const { return mText.c_str(); }
    bool operator==(const String16& other) const { return mText == other.mText; }

  private:
    std::u16string mText;
};

}  // namespace android
