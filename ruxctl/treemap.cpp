#include "ruxctl/treemap.h"

#include <algorithm>
#include <numeric>

namespace ruxctl {
namespace {

/// What is left to be divided, in units in which a weight is an area.
struct Room {
    double left, top, width, height;
    double shortSide() const { return std::min(width, height); }
};

/// The worst ratio of a long to a short side when `areas` are stacked along `side`.
double worstRatio(const std::vector<double>& areas, double side) {
    const double sum = std::accumulate(areas.begin(), areas.end(), 0.0);
    const auto [least, most] = std::minmax_element(areas.begin(), areas.end());
    const double square = side * side;
    return std::max(square * *most / (sum * sum), sum * sum / (square * *least));
}

/// Puts `areas` along the short side of `room`, which shrinks by them.
void place(const std::vector<double>& areas, Room& room, std::vector<Cell>& cells) {
    const double side = room.shortSide();
    const double depth = std::accumulate(areas.begin(), areas.end(), 0.0) / side;
    double at = 0;
    for (const double area : areas) {
        const double length = area / depth;
        if (room.width >= room.height) {
            cells.push_back({room.left, room.top + at, depth, length});
        } else {
            cells.push_back({room.left + at, room.top, length, depth});
        }
        at += length;
    }
    if (room.width >= room.height) {
        room.left += depth;
        room.width -= depth;
    } else {
        room.top += depth;
        room.height -= depth;
    }
}

}  // namespace

std::vector<Cell> treemap(const std::vector<double>& weights, double proportion) {
    const double total = std::accumulate(weights.begin(), weights.end(), 0.0);
    std::vector<Cell> cells;
    Room room = {0, 0, proportion, 1};
    std::vector<double> row;
    for (const double weight : weights) {
        const double area = weight / total * proportion;
        std::vector<double> longer = row;
        longer.push_back(area);
        const double side = room.shortSide();
        if (!row.empty() && worstRatio(longer, side) > worstRatio(row, side)) {
            place(row, room, cells);
            longer = {area};
        }
        row = std::move(longer);
    }
    if (!row.empty()) place(row, room, cells);
    for (Cell& cell : cells) {
        cell.left /= proportion;
        cell.width /= proportion;
    }
    return cells;
}

}  // namespace ruxctl
