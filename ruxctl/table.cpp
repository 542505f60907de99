#include "ruxctl/table.h"

#include <algorithm>
#include <iostream>

#include "ruxctl/terminal.h"

namespace ruxctl {
namespace {

/// Characters, as far as the table cares: continuation bytes of UTF-8 are none.
size_t widthOf(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

}  // namespace

void printTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(rows.front().size());
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string space(widths[i] - widthOf(row[i]), ' ');
            if (i > 0) line += "  ";
            line += i == 0 ? row[i] + space : space + row[i];
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::cout << (&row == rows.data() ? inked(Ink::Bold, line) : line) << "\n";
    }
}

}  // namespace ruxctl
