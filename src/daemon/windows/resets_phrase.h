// The reset phrase of a limit message: Claude Code ends the message with
// words such as "resets 3:00pm (Europe/Berlin)", which the window logic turns
// into an instant.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ostler {

// The text from the first "resets", in any letter case, to the end, trimmed of
// whitespace and line ends; nothing when the word does not occur.
[[nodiscard]] std::optional<std::string> extractResetsPhrase(std::string_view text);

}  // namespace ostler
