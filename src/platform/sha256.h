// SHA-256, the one digest the system writes down: it names the engine's
// state file after its transcript root and identifies the pieces and nodes
// of a closeout tree.
#pragma once

#include <string>
#include <string_view>

namespace ostler {

// The SHA-256 digest of `bytes`, as 64 lowercase hexadecimal digits.
[[nodiscard]] std::string sha256Hex(std::string_view bytes);

}  // namespace ostler
