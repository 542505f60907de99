/// Reading JSON whose shape nobody has promised.
#pragma once

#include <json/json.h>

#include <cstdint>

namespace ruxctl {

/// The number `name` of an object; 0 when there is none.
inline int64_t numberOf(const Json::Value& object, const char* name) {
    const Json::Value& number = object[name];
    return number.isInt64() ? number.asInt64() : 0;
}

}  // namespace ruxctl
