/// System properties: short texts that all processes of a device share.
#pragma once

#include <string>

namespace android::base {

/// The value of property `key`, or `default_value` when it is unset, empty or cannot be read.
///
/// Costs no system call once the process has met the store, and never waits for a writer.
std::string GetProperty(const std::string& key, const std::string& default_value);

/// Sets property `key`; the next read in any process sees the new value.
///
/// False, and nothing changed, for a value longer than 91 bytes, a name that is empty or too long
/// for the store, a text with a NUL in it, or a store that is full or cannot be opened.
bool SetProperty(const std::string& key, const std::string& value);

}  // namespace android::base
