#include "daemon/windows/resets_phrase.h"

#include "daemon/engine/case_folding.h"
#include "transcript/text.h"

namespace ostler {

std::optional<std::string> extractResetsPhrase(std::string_view text) {
  auto at = CaseFolding::find(text, "resets");
  if (!at) return std::nullopt;
  return std::string(text::trimWhitespaceAndNewlines(text.substr(*at)));
}

}  // namespace ostler
