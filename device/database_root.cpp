// A device's definition of the one path that the service knows; db/database_root.h declares it.

#include "db/database_root.h"

namespace rux {

const std::string& databaseRoot() {
    static const std::string root = "/data/local/zel/";
    return root;
}

}  // namespace rux
