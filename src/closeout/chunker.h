// The arithmetic of a small model's context window, and cutting text to it.
// A transcript never fits the on-device model whole: the text is first cut
// into runs of words by a budget derived from the window (`chunk`), and each
// run is then measured in the model's own tokens and halved until it fits
// (`chunkByMeasuredTokens`). The model appears only as the measuring
// function handed in.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ostler::Chunker {

// How much text a model's window takes.
struct Budget {
  int64_t contextSize = 0;        // the model's context window, in tokens
  double reserveFraction = 0.15;  // share of the window held back for the prompt and the answer
  int64_t reserveFloor = 300;     // least number of tokens held back
  double wordsPerToken = 0.75;    // words assumed per token

  // Tokens held back: the larger of reserveFraction * contextSize (rounded
  // to nearest, halves away from zero) and reserveFloor.
  [[nodiscard]] int64_t reserveTokens() const;
  // Tokens a piece may measure: contextSize - reserveTokens, at least 1.
  [[nodiscard]] int64_t tokenCeiling() const;
  // Words a piece may hold: floor(wordsPerToken * max(contextSize -
  // reserveTokens, 0)). For a window of 4,096: 614 held back, a ceiling of
  // 3,482 tokens and 2,611 words.
  [[nodiscard]] int64_t words() const;
};

// Measures a text in the model's tokens; at least 1, never fails.
using Measure = std::function<int64_t(std::string_view)>;

// `text` cut into consecutive runs of max(budget.words(), 1) words, each
// joined by single spaces; the last run may be shorter. Text without words
// gives none.
[[nodiscard]] std::vector<std::string> chunk(std::string_view text, const Budget& budget);

struct MeasuredChunks {
  std::vector<std::string> chunks;   // in text order
  std::vector<int64_t> splitEvents;  // the word count of each piece halved, in the order halved
};

// `chunk` refined by measurement: each piece over budget.tokenCeiling() is
// halved, left half first, while it holds more than `floorWords` words. A
// piece at the floor is kept as it stands, over the ceiling: the attempt on
// it decides. Each piece is measured once.
[[nodiscard]] MeasuredChunks chunkByMeasuredTokens(std::string_view text, const Budget& budget, int64_t floorWords,
                                                   const Measure& measure);

}  // namespace ostler::Chunker
