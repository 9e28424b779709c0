// The paths a handoff cites, and how each is looked for on disk. The path
// check and grounding share both: grounding asks about exactly the
// citations that the path check finds missing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/closeout_document.h"
#include "closeout/file_existence.h"

namespace ostler::Citations {

// The lines of the document's FILES TOUCHED section (none without the
// section), then the `path` of each documentation update; each trimmed of
// spaces and tabs, blank ones dropped.
[[nodiscard]] std::vector<std::string> of(const CloseoutDocument& document);

// A path token of a citation that is not on disk.
struct MissingToken {
  std::string raw;                       // the token as extracted, without a reattached "~"
  std::optional<std::string> canonical;  // of the token with its "~", when it resolves
};

// What the attempts made of one citation. A citation is found when the
// canonical form of its text is any entry on disk; else, when it ends in
// "/", when the form of its text without those slashes is a folder; else
// when it holds path tokens and each token (its "~" reattached) is on disk.
struct Probe {
  int64_t attempts = 0;                     // canonical forms tested, one per token
  bool foundDirectly = false;               // the first or the second attempt found it
  std::vector<std::string> tokens;          // path tokens, when it came to them
  std::vector<MissingToken> missingTokens;  // of those, the ones not on disk, in order

  [[nodiscard]] bool found() const { return foundDirectly || (!tokens.empty() && missingTokens.empty()); }
};

[[nodiscard]] Probe probe(std::string_view citation, std::string_view root, std::string_view home, FileExistence& fm);

}  // namespace ostler::Citations
