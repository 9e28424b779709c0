// Text helpers shared by every reader of transcripts: UTF-8 repair, the two
// kinds of trimming, and counts in user-perceived characters (extended
// grapheme clusters). All take and return UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ostler::text {

// True when `bytes` is well-formed UTF-8.
[[nodiscard]] bool isValidUtf8(std::string_view bytes);

// `bytes` with each ill-formed sequence replaced by U+FFFD, one replacement per
// maximal subpart (the practice of the Unicode standard, also WHATWG's).
[[nodiscard]] std::string repairUtf8(std::string_view bytes);

// Removes Unicode Zs and tab from both ends; line breaks stay.
[[nodiscard]] std::string_view trimSpacesAndTabs(std::string_view s);

// Removes Zs, tab, LF, VT, FF, CR, U+0085, U+2028 and U+2029 from both ends.
[[nodiscard]] std::string_view trimWhitespaceAndNewlines(std::string_view s);

// Number of extended grapheme clusters. With `limit` set, counting stops
// once the count reaches it (the result is then `limit`).
[[nodiscard]] int64_t characterCount(std::string_view s, int64_t limit = INT64_MAX);

// The first `n` extended grapheme clusters of `s` (all of it when shorter).
[[nodiscard]] std::string_view prefixCharacters(std::string_view s, int64_t n);

// The last component of a slash-separated path, ignoring trailing slashes;
// "/" stays "/", "" stays "".
[[nodiscard]] std::string_view lastPathComponent(std::string_view path);

// True when every byte is below 0x80.
[[nodiscard]] bool isAscii(std::string_view s);

// The items with `separator` between each two.
[[nodiscard]] std::string joined(const std::vector<std::string>& items, std::string_view separator);

}  // namespace ostler::text
