/// MD5 digests, one at a time, by the cryptographic library.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "f2fs_io/digest/source.h"

namespace android::host {

/// 32 lower-case hexadecimal digits.
std::string md5OfText(std::string_view text);

/// The digest of what `source` holds, read in pieces. 0 or an errno, EAGAIN for a file that
/// outgrows the size it had when it was opened.
int md5Of(DigestSource& source, std::string* digest);

/// Writes `size` bytes as lower-case hexadecimal digits to `text`, without a NUL.
void writeHex(const void* bytes, size_t size, char* text);

}  // namespace android::host
