// Searching text "in any letter case": both sides are compared after Unicode
// simple case folding, code point by code point, so that, for instance, the
// long s (U+017F) matches "s" and the Kelvin sign (U+212A) matches "k".
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace ostler::CaseFolding {

// Byte offset in `text` (UTF-8) of the first match of `needle`, or nothing.
// `needle` must already be folded (for the words searched here, lower-case
// ASCII).
[[nodiscard]] std::optional<size_t> find(std::string_view text, std::string_view needle);

[[nodiscard]] inline bool contains(std::string_view text, std::string_view needle) {
  return find(text, needle).has_value();
}

}  // namespace ostler::CaseFolding
