/// Reading JSON that somebody else has written: texts of any shape, without ever ending the
/// process.
///
/// A device's JSON library ends the process on an access of the wrong type, so every access here
/// tests first. Nothing relies on catching the library's errors.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rux {

/// Parses `text` into `value`. False for what is not JSON, or nests deeper than the library reads;
/// `value` then holds what was built before the error.
bool parseJson(std::string_view text, Json::Value& value);

/// The member `name` of an object; null when `value` is no object or has no such member.
const Json::Value* memberOf(const Json::Value& value, std::string_view name);

/// A number as an integer, truncated, and true as 1; 0 for anything else and for what does not fit.
int64_t integerOf(const Json::Value& value);

/// The bytes of a string, as long as `value` holds them; none for what is no string.
std::string_view stringOf(const Json::Value& value);

/// The strings of an array in their order, everything else in it left out.
std::vector<std::string> stringsOf(const Json::Value& array);

/// Takes the member `name` out of an object, and returns it; null when there is none.
Json::Value takeMember(Json::Value& object, std::string_view name);

/// `value` as an object that can be given members: what is no object becomes an empty one.
Json::Value& asObject(Json::Value& value);

}  // namespace rux
