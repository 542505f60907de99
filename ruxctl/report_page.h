/// The report as one page that needs nothing else.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ruxctl/database.h"
#include "ruxctl/groups.h"

namespace ruxctl {

/// What the files of a directory have to do with space.
struct DirectoryShare {
    std::string path;
    int64_t reclaimable = 0;  ///< its files' share of what linking would give back
    int64_t given = 0;        ///< and of what links have given back
    int64_t bytes() const { return reclaimable + given; }
};

struct Report {
    std::vector<Space> spaces;
    std::vector<Group> groups;                ///< the largest first
    std::vector<DirectoryShare> directories;  ///< none within another, the largest first
    int64_t reclaimable = 0;
    int64_t given = 0;
};

/// The page's HTML: no scripts, nothing from a network, readable on a narrow and on a dark screen.
std::string pageOf(const Report& report);

}  // namespace ruxctl
