/// Extended attributes, access-control lists and security labels among them (xattr(7)).
#pragma once

#include <map>
#include <string>

namespace android::host {

using Xattrs = std::map<std::string, std::string>;

/// All attributes that the process may see; none on a file system without. 0 or an errno.
int readXattrs(int file, Xattrs* attributes);

/// Gives `file` exactly `wanted`, touching only what differs. 0 or an errno.
int writeXattrs(int file, const Xattrs& wanted);

}  // namespace android::host
