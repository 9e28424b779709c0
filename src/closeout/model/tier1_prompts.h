// The words put to the model: one prompt per kind of request. A model reads
// every character, so these are fixed literals; changing one changes what
// every handoff looks like.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ostler::Tier1Prompts {

// Asks for a two- or three-sentence summary of one transcript excerpt.
[[nodiscard]] std::string summarizeChunk(std::string_view text);

// Asks for one shorter summary of `summaries`, written "Summary {i}: {text}"
// from 1, one per line.
[[nodiscard]] std::string combineBatch(const std::vector<std::string>& summaries);

// Asks for the four-section handoff, and documentation updates, from the
// combined summary of a whole chat.
[[nodiscard]] std::string generateHandoff(std::string_view combinedSummary);

}  // namespace ostler::Tier1Prompts
