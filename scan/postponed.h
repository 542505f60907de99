/// Large files that wait until it is known whether another may be equal to them.
#pragma once

#include <utility>

#include "scan/blocks.h"

namespace rux {

class PostponedFiles {
  public:
    bool empty() const { return mItems.empty(); }
    void add(Item item) { mItems.push_back(std::move(item)); }

    /// Those that have the size and the first bytes of another one, or of a file that is in a group
    /// of DB2, and `withLinked` of DB3. The others are dropped. Once the scan is to stop it answers
    /// anything.
    Block takeAlike(bool withLinked);

  private:
    Block mItems;
};

}  // namespace rux
