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
    int64_t reclaimable = 0;            ///< its files' share of what linking would give back
    int64_t given = 0;                  ///< and of what links have given back
    std::vector<DirectoryShare> parts;  ///< directories in it, the largest first
    int64_t bytes() const { return reclaimable + given; }
};

struct SpaceShare {
    Space space;
    int64_t reclaimable = 0;
    int64_t given = 0;
};

struct Report {
    std::vector<SpaceShare> spaces;
    std::vector<Group> groups;  ///< the largest first
    DirectoryShare root;        ///< of the smallest tree that holds all
};

/// The page's HTML: nothing from a network, readable on a narrow and on a dark screen, and without
/// its script, which filters the groups and sorts the tables.
std::string pageOf(const Report& report);

}  // namespace ruxctl
