// Repeat pipelines: shell commands that a model runs again and again with
// only paths and numbers changed. Commands are reduced to templates, and pass
// one numbers every occurrence over the whole tree so that pass two can tell
// which turns ran a template seen three or more times.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ostler {

// Masks the variable parts of a command: quoted strings become "<STR>",
// paths "<PATH>", whole numbers "<NUM>", in that order.
[[nodiscard]] std::string normalizeBashCommand(std::string_view command);

// The same, always through the ICU regular expressions; the reference the
// fast path is held to.
[[nodiscard]] std::string normalizeBashCommandICU(std::string_view command);

// 64-bit FNV-1a of the UTF-8 bytes; stable across runs and processes.
[[nodiscard]] uint64_t stableHashValue(std::string_view s);

// stableHashValue in lowercase hexadecimal, without leading zeros.
[[nodiscard]] std::string stableHash(std::string_view s);
[[nodiscard]] std::string hashHex(uint64_t hash);

// The template hash of a command.
[[nodiscard]] inline uint64_t templateHash(std::string_view command) {
  return stableHashValue(normalizeBashCommand(command));
}

}  // namespace ostler
