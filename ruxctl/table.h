/// Text in columns.
#pragma once

#include <string>
#include <vector>

namespace ruxctl {

/// Rows of cells, printed with the columns aligned: the first to the left, the others to the right.
/// The first row is the heading.
void printTable(const std::vector<std::vector<std::string>>& rows);

}  // namespace ruxctl
