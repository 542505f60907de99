/// Areas in proportion to numbers.
#pragma once

#include <vector>

namespace ruxctl {

/// A rectangle, in parts of the whole width or height (0 to 1).
struct Cell {
    double left, top, width, height;
};

/// Divides a rectangle of the given proportion (width by height) among `weights`, which are
/// positive and descend, into cells that are as square as can be had in one pass (Bruls, Huizing
/// and van Wijk, "Squarified Treemaps", 2000). A cell for each weight, in their order.
std::vector<Cell> treemap(const std::vector<double>& weights, double proportion);

}  // namespace ruxctl
