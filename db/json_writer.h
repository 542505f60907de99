/// Writing JSON without holding its text.
#pragma once

#include <json/json.h>

#include "db/files.h"

namespace rux {

/// Hands the text that `Json::FastWriter` makes of `value` to `take`, in pieces.
///
/// The library's writer copies all names of an object and looks each of them up again, and returns
/// the whole text at once; a database of a million files then needs its memory once more.
void writeJson(const Json::Value& value, const TakePiece& take);

}  // namespace rux
