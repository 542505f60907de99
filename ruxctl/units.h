/// Numbers as people read them, and texts as other programs do.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace ruxctl {

/// "1.4 GiB", "812 KiB", "17 B": three digits that matter, at most.
std::string humanBytes(int64_t bytes);

/// The bytes of a size as people write it: "100000", "64KiB", "1.5 MB"; 1,024 to the next unit.
/// Nothing for what is no size, or none that 63 bits hold.
std::optional<uint64_t> bytesOf(const std::string& text);

/// "57,296".
std::string grouped(int64_t number);

/// "57,296 files", "1 file". A plural that does not end in "s" alone is given.
std::string counted(int64_t number, const std::string& noun, const std::string& plural = "");

/// "0.8 s", "12 s", "2 min 05 s", "1 h 02 min".
std::string duration(double seconds);

/// The text with each of these characters as what it is to be written as.
std::string replaced(const std::string& text, const std::map<char, std::string>& characters);

}  // namespace ruxctl
