/// MD5 digests.
#pragma once

#include <string>
#include <string_view>

namespace android::host {

/// 32 lower-case hexadecimal digits.
std::string md5OfText(std::string_view text);

/// The digest of what `file` holds from its start, read in pieces. 0 or an errno.
int md5OfFile(int file, std::string* digest);

}  // namespace android::host
