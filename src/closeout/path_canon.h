// The one absolute form of a path that a handoff cites or a transcript
// edits, so that "./src/a.txt", "- src/a.txt (4 edits)" and "/r/src/a.txt"
// compare equal against the root /r. Everything here is text: the file
// system is never asked, and no symbolic link is resolved.
//
// Two directories anchor a path: `root`, the project folder that relative
// paths are taken against, and `home`, the user's home folder that "~/"
// stands for ("~user" is never expanded).
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace ostler::PathCanon {

// The canonical form of the path written in `path`, or nothing when it names
// no file: empty, ".", "./", "/", "~", or a bare directory ending in "/".
// List markers ("- ", "1. ") and trailing annotations ("(4 edits)",
// ":12") are removed first, and leading "./" dropped. A relative path is
// joined to `root` (alone when the root is empty); the result is
// standardised.
[[nodiscard]] std::optional<std::string> canonicalize(std::string_view path, std::string_view root,
                                                      std::string_view home);

// Standardisation of a path as text: repeated slashes collapsed, "."
// components dropped, ".." removing the component before it ("/.." stays
// "/"; a relative path keeps the ".." it cannot remove), a trailing slash
// dropped.
[[nodiscard]] std::string standardized(std::string_view path);

// One leading list marker removed: "- ", "+ " or "* ", then a number with
// "." or ")" and white space ("1. ", "2) "). Spaces and tabs are trimmed
// before and after.
[[nodiscard]] std::string stripLineMarkers(std::string_view text);

// Trailing parenthesised annotations removed, balanced, one after another
// ("a.txt (x) (y)" gives "a.txt"), then everything from the first ":" on
// ("a.txt:12"). Text that does not end in ")" keeps its parentheses.
[[nodiscard]] std::string stripAnnotations(std::string_view text);

// What looks like a file path in free text, in order, duplicates kept: each
// maximal run of letters, digits, "_", "-", "." and "/", with trailing dots
// removed, whose last non-empty "/"-separated part holds a ".". Leading and
// trailing slashes stay on the token. "~" ends a run, so "~/x.txt" gives
// "/x.txt" (see tildeReattached).
[[nodiscard]] std::vector<std::string> extractPathTokens(std::string_view text);

// "~" plus `token` when `text` holds "~" followed by the token anywhere;
// otherwise the token.
[[nodiscard]] std::string tildeReattached(std::string_view token, std::string_view text);

// The canonical forms of the path tokens of `text` that resolve.
[[nodiscard]] std::set<std::string> canonicalTokenSet(std::string_view text, std::string_view root,
                                                      std::string_view home);

}  // namespace ostler::PathCanon
