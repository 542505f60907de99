/// Where the database lies.
#pragma once

#include <string>

namespace rux {

/// "/data/local/zel/", the directory of the spaces' directories and of the exception rules. It must
/// exist; the service never creates it.
///
/// The one path that the service knows. A device's build and a host's platform layer each define
/// it.
const std::string& databaseRoot();

}  // namespace rux
