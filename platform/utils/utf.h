/// Between UTF-8 inside a process and UTF-16 on the wire.
#pragma once

#include <string>
#include <string_view>

namespace android::host {

/// False for a text that is not valid UTF-8 (overlong forms and surrogates included).
bool utf8ToUtf16(std::string_view text, std::u16string* units);

/// Surrogates without their partner stand for no character and are left out, as on the platform.
/// `units` may lie at any 2-byte boundary.
std::string utf16ToUtf8(std::u16string_view units);

}  // namespace android::host
