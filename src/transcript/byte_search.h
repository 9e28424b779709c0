// Fast tests on whole transcript lines, used to pass over lines that cannot
// matter without decoding them.
#pragma once

#include <string_view>

namespace ostler {

// True when `line` holds `"assistant"` or a `\u` escape: a JSON line whose
// top-level type is "assistant" must spell the word out or hide it behind an
// escape, so every other line is certainly of another type. Runs at memory
// speed on long lines (Base64 images hold neither quotes nor backslashes).
[[nodiscard]] bool mayNameAssistant(std::string_view line);

enum class TypeHint { kAssistant, kOther, kUnknown };

// Reads the top-level keys of a JSON object up to the first "type" key and
// tells whether its value is the string "assistant". kOther means the line
// is certainly not an assistant line (another type, none at all, or not an
// object); kUnknown, that only a full decode can tell (escapes in a key or
// in the type, or a shape this scan does not follow). It never reads past
// the type's value, so a chat line is judged on its first few hundred bytes
// even when an image follows.
[[nodiscard]] TypeHint topLevelTypeHint(std::string_view line);

// Whether the first pass must decode `line`.
[[nodiscard]] inline bool mayBeAssistantLine(std::string_view line) {
  switch (topLevelTypeHint(line)) {
    case TypeHint::kAssistant: return true;
    case TypeHint::kOther: return false;
    case TypeHint::kUnknown: return mayNameAssistant(line);
  }
  return true;
}

}  // namespace ostler
