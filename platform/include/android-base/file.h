/// Reading and writing of as many bytes as are wanted.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace android::base {

/// Reads `byte_count` bytes at `offset`. False, with errno set, when they cannot all be read; at
/// the end of the file errno stays what it was.
bool ReadFullyAtOffset(int fd, void* data, size_t byte_count, off_t offset);

/// Writes `byte_count` bytes. False, with errno set, when the file does not take them all.
bool WriteFully(int fd, const void* data, size_t byte_count);

}  // namespace android::base
