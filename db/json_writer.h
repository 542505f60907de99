/// Writing JSON without holding its text.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <functional>
#include <string_view>

namespace rux {

/// A string of a piece, with its NUL, fills whole pages of memory.
constexpr size_t kJsonPiece = (size_t{64} << 10) - 1;

/// Hands the text that `Json::FastWriter` makes of `value` to `take`, in pieces of `kJsonPiece`
/// bytes and a last one of up to that.
///
/// The library's writer copies all names of an object and looks each of them up again, and returns
/// the whole text at once; a database of a million files then needs its memory once more.
void writeJson(const Json::Value& value, const std::function<void(std::string_view)>& take);

}  // namespace rux
