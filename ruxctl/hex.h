/// Bytes as hexadecimal text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ruxctl {

std::string toHex(const uint8_t* bytes, size_t size);

/// Nothing for a text that is not pairs of hexadecimal digits; white space counts for nothing.
std::optional<std::vector<uint8_t>> fromHex(const std::string& text);

}  // namespace ruxctl
