/// The exception rules: files that the service must leave alone.
#pragma once

#include <string>

namespace rux {

/// Replaces the device's exception rules by `rules`, a JSON array of patterns, from the next scan
/// on.
///
/// An empty array, or anything but an array of strings, changes nothing: there is no way back to
/// having no rules. A reader of the file sees the old rules or the new, never a part.
void Rux_setRUXExceptRulesImp(const std::string& rules);

}  // namespace rux
