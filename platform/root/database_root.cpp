// The host's definition of the one path that the service knows; db/database_root.h declares it.

#include <string>

#include "root/run_dir.h"

namespace rux {

const std::string& databaseRoot() {
    static const std::string root = android::host::rootPrefix() + "/data/local/zel/";
    return root;
}

}  // namespace rux
