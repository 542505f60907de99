/// Where a service's socket lies.
///
/// The service manager of a host is the run directory: "NAME.sock" is the socket of service NAME,
/// and the process that serves it holds a lock on "NAME.lock" for as long as it lives.
#pragma once

#include <sys/un.h>

#include <string>

#include "android-base/unique_fd.h"
#include "utils/String16.h"

namespace android::host {

/// `name` in UTF-8; empty when it cannot be a file's name.
std::string fileNameOf(const String16& name);

/// The address of service `name` below the open run directory, which may lie deeper than a socket
/// address is long.
sockaddr_un socketAddress(const base::unique_fd& directory, const std::string& name);

}  // namespace android::host
