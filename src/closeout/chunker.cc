#include "closeout/chunker.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "closeout/word_split.h"

namespace ostler::Chunker {
namespace {

// A double as a count, clamped to the range of int64_t.
int64_t clampedCount(double v) {
  if (!(v > 0)) return 0;
  if (v >= static_cast<double>(std::numeric_limits<int64_t>::max())) return std::numeric_limits<int64_t>::max();
  return static_cast<int64_t>(v);
}

void splitToCeiling(std::string piece, int64_t ceiling, int64_t floorWords, const Measure& measure,
                    MeasuredChunks& out) {
  if (measure(piece) <= ceiling) {
    out.chunks.push_back(std::move(piece));
    return;
  }
  WordSplit::Halves halves = WordSplit::halve(piece);
  if (halves.wordCount <= floorWords) {
    out.chunks.push_back(std::move(piece));
    return;
  }
  out.splitEvents.push_back(halves.wordCount);
  splitToCeiling(std::move(halves.first), ceiling, floorWords, measure, out);
  splitToCeiling(std::move(halves.second), ceiling, floorWords, measure, out);
}

}  // namespace

int64_t Budget::reserveTokens() const {
  const double share = std::round(reserveFraction * static_cast<double>(contextSize));
  const int64_t rounded = share < 0 ? -clampedCount(-share) : clampedCount(share);
  return std::max(rounded, reserveFloor);
}

int64_t Budget::tokenCeiling() const { return std::max<int64_t>(contextSize - reserveTokens(), 1); }

int64_t Budget::words() const {
  const int64_t available = std::max<int64_t>(contextSize - reserveTokens(), 0);
  return clampedCount(std::floor(wordsPerToken * static_cast<double>(available)));
}

std::vector<std::string> chunk(std::string_view text, const Budget& budget) {
  const std::vector<std::string_view> words = WordSplit::words(text);
  const size_t n = static_cast<size_t>(std::max<int64_t>(budget.words(), 1));
  std::vector<std::string> chunks;
  for (size_t begin = 0; begin < words.size(); begin += std::min(n, words.size() - begin))
    chunks.push_back(WordSplit::joined(words, begin, begin + std::min(n, words.size() - begin)));
  return chunks;
}

MeasuredChunks chunkByMeasuredTokens(std::string_view text, const Budget& budget, int64_t floorWords,
                                     const Measure& measure) {
  MeasuredChunks out;
  const int64_t ceiling = budget.tokenCeiling();
  for (std::string& piece : chunk(text, budget)) splitToCeiling(std::move(piece), ceiling, floorWords, measure, out);
  return out;
}

}  // namespace ostler::Chunker
