#include "daemon/resets_phrase.h"

#include "daemon/case_folding.h"
#include "meter/text.h"

namespace ostler {

std::optional<std::string> extractResetsPhrase(std::string_view text) {
  auto at = CaseFolding::find(text, "resets");
  if (!at) return std::nullopt;
  return std::string(text::trimWhitespaceAndNewlines(text.substr(*at)));
}

}  // namespace ostler
