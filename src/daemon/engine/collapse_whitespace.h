// Puts a text on one line: every run of whitespace and line ends becomes one
// space, and none is left at either end.
#pragma once

#include <string>
#include <string_view>

namespace ostler {

// The pieces of `text` between runs of whitespace (Unicode Zs, Zl, Zp, tab,
// LF, VT, FF, CR, U+0085), empty ones dropped, joined by one space.
// Ill-formed UTF-8 is kept as it is.
[[nodiscard]] std::string collapseWhitespace(std::string_view text);

}  // namespace ostler
