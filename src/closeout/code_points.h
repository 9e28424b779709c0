// Text taken one Unicode code point at a time: the character classes the
// closeout's readings of paths and words are defined over, and lower-casing
// for word comparison. Classes are tested per code point, never per
// grapheme cluster, and ill-formed UTF-8 reads as U+FFFD, which belongs to
// no class here. All text is UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ostler::CodePoints {

// The code point starting at byte `at`, and the number of bytes it takes
// (at least 1). Ill-formed bytes give U+FFFD for their maximal subpart.
struct Decoded {
  char32_t value = 0;
  size_t length = 1;
};
[[nodiscard]] Decoded decodeAt(std::string_view s, size_t at);

// The start of the code point that ends just before byte `end` (> 0).
[[nodiscard]] size_t previousStart(std::string_view s, size_t end);

// Unicode White_Space: tab to carriage return, space, U+0085, U+00A0,
// U+1680, U+2000 to U+200A, U+2028, U+2029, U+202F, U+205F, U+3000. U+200B
// and U+FEFF are not white space.
[[nodiscard]] bool isWhiteSpace(char32_t c);

// A letter of any category (Lu, Ll, Lt, Lm, Lo) or a decimal digit of any
// script (Nd).
[[nodiscard]] bool isLetterOrDigit(char32_t c);

// A character that may stand in a file path written in prose: a letter, a
// decimal digit, "_", "-", "." or "/".
[[nodiscard]] inline bool isPathCharacter(char32_t c) {
  return c == U'_' || c == U'-' || c == U'.' || c == U'/' || isLetterOrDigit(c);
}

// Whether `s` holds a letter or a decimal digit.
[[nodiscard]] bool containsLetterOrDigit(std::string_view s);

// Each code point replaced by its full lower-case mapping, with no context
// and no language (a capital sigma always becomes U+03C3, U+0130 becomes
// "i" and U+0307).
[[nodiscard]] std::string lowercased(std::string_view s);

}  // namespace ostler::CodePoints
