/// Where a host keeps what lives on the device: the root and its run directory.
#pragma once

#include <string>

namespace android::host {

/// `RUX_ROOT` without trailing slashes; empty when it is unset.
std::string rootPrefix();

/// The directory of the properties and service sockets, "/run/rux" under the root.
std::string runDirectory();

/// Opens the directory `path`, made with mode 0700 (and its parent with 0755) when it is missing
/// and `create` is set. Refuses with EPERM a directory that other users may enter or, but for root,
/// own.
///
/// Returns a descriptor or a negated errno.
int openPrivateDirectory(const std::string& path, bool create);

}  // namespace android::host
