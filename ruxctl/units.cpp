#include "ruxctl/units.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <system_error>

namespace ruxctl {
namespace {

template <typename... Numbers>
std::string formatted(const char* format, Numbers... numbers) {
    char text[64];
    snprintf(text, sizeof(text), format, numbers...);
    return text;
}

}  // namespace

std::string humanBytes(int64_t bytes) {
    constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto number = static_cast<double>(bytes);
    size_t unit = 0;
    while (std::fabs(number) >= 999.5 && unit + 1 < std::size(kUnits)) {
        number /= 1024;
        ++unit;
    }
    const bool whole = unit == 0 || std::fabs(number) >= 99.95;
    return formatted(whole ? "%.0f %s" : "%.1f %s", number, kUnits[unit]);
}

std::optional<uint64_t> bytesOf(const std::string& text) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [unit, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    std::string name(unit, end);
    name.erase(0, name.find_first_not_of(' '));
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    size_t power = 0;
    if (!name.empty() && name != "b") {
        const std::string rest = name.substr(1);
        power = std::string_view("kmgtpe").find(name[0]) + 1;  // 0 for none of them
        if (power == 0 || !(rest.empty() || rest == "b" || rest == "ib")) return std::nullopt;
    }
    number = std::ldexp(number, static_cast<int>(10 * power));
    const bool isSize = error == std::errc() && number >= 0 && number < 9.2e18;
    return isSize ? std::optional(static_cast<uint64_t>(number)) : std::nullopt;
}

std::string grouped(int64_t number) {
    const std::string digits = std::to_string(number);
    const size_t first = number < 0 ? 1 : 0;
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > first && (digits.size() - i) % 3 == 0) text += ',';
        text += digits[i];
    }
    return text;
}

std::string counted(int64_t number, const std::string& noun, const std::string& plural) {
    const std::string& word = number == 1 || !plural.empty() ? noun : noun + "s";
    return grouped(number) + " " + (number == 1 || plural.empty() ? word : plural);
}

std::string duration(double seconds) {
    if (seconds < 9.95) return formatted("%.1f s", seconds);
    const auto whole = static_cast<long>(std::lround(seconds));
    if (whole < 60) return formatted("%ld s", whole);
    if (whole < 3600) return formatted("%ld min %02ld s", whole / 60, whole % 60);
    return formatted("%ld h %02ld min", whole / 3600, whole / 60 % 60);
}

std::string replaced(const std::string& text, const std::map<char, std::string>& characters) {
    std::string out;
    for (const char c : text) {
        const auto found = characters.find(c);
        out += found == characters.end() ? std::string(1, c) : found->second;
    }
    return out;
}

}  // namespace ruxctl
