#include "db/json_text.h"

#include <algorithm>
#include <exception>

namespace rux {
namespace {

/// One level below the 1,000 at which the library gives up: a scalar counts as a level of its own.
constexpr size_t kMaxNesting = 999;

/// The end of the string literal whose opening quote stands at `at`.
size_t endOfString(std::string_view text, size_t at) {
    for (++at; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\') ++at;
    }
    return std::min(at + 1, text.size());
}

/// The end of the comment at `at`; `at + 1` when there is none.
size_t endOfComment(std::string_view text, size_t at) {
    const std::string_view start = text.substr(at, 2);
    if (start == "//") return std::min(text.find_first_of("\r\n", at), text.size());
    if (start != "/*") return at + 1;
    const size_t last = text.find("*/", at + 2);
    return last == std::string_view::npos ? text.size() : last + 2;
}

/// How deep the arrays and objects of `text` nest, whatever else is wrong with it.
size_t nestingOf(std::string_view text) {
    size_t deepest = 0;
    size_t depth = 0;
    for (size_t at = 0; at < text.size();) {
        const char c = text[at];
        if (c == '"') {
            at = endOfString(text, at);
            continue;
        }
        if (c == '/') {
            at = endOfComment(text, at);
            continue;
        }
        if (c == '[' || c == '{') deepest = std::max(deepest, ++depth);
        if ((c == ']' || c == '}') && depth > 0) --depth;
        ++at;
    }
    return deepest;
}

}  // namespace

bool parseJson(std::string_view text, Json::Value& value) {
    value = Json::Value();
    if (nestingOf(text) > kMaxNesting) return false;
    try {
        Json::Reader reader;
        return reader.parse(text.data(), text.data() + text.size(), value, false);
    } catch (const std::exception&) {
        return false;
    }
}

const Json::Value* memberOf(const Json::Value& value, std::string_view name) {
    if (!value.isObject()) return nullptr;
    return value.find(name.data(), name.data() + name.size());
}

int64_t integerOf(const Json::Value& value) {
    if (value.isInt64() || value.isBool()) return value.asInt64();
    constexpr double kLimit = 9.2e18;
    if (!value.isDouble()) return 0;
    const double number = value.asDouble();
    return number > -kLimit && number < kLimit ? static_cast<int64_t>(number) : 0;
}

std::string_view stringOf(const Json::Value& value) {
    const char* begin = nullptr;
    const char* end = nullptr;
    if (!value.isString() || !value.getString(&begin, &end)) return {};
    return {begin, static_cast<size_t>(end - begin)};
}

std::vector<std::string> stringsOf(const Json::Value& array) {
    std::vector<std::string> strings;
    if (!array.isArray()) return strings;
    for (const Json::Value& entry : array) {
        if (entry.isString()) strings.push_back(entry.asString());
    }
    return strings;
}

Json::Value takeMember(Json::Value& object, std::string_view name) {
    Json::Value member;
    if (object.isObject()) object.removeMember(name.data(), name.data() + name.size(), &member);
    return member;
}

Json::Value& asObject(Json::Value& value) {
    if (!value.isObject()) value = Json::Value(Json::objectValue);
    return value;
}

}  // namespace rux
