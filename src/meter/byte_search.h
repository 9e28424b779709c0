// Fast byte tests on whole transcript lines, used to pass over lines that
// cannot matter without decoding them.
#pragma once

#include <string_view>

namespace ostler {

// True when `line` holds `"assistant"` or a `\u` escape: a JSON line whose
// top-level type is "assistant" must spell the word out or hide it behind an
// escape, so every other line is certainly of another type. Runs at memory
// speed on long lines (Base64 images hold neither quotes nor backslashes).
[[nodiscard]] bool mayNameAssistant(std::string_view line);

}  // namespace ostler
