// Running the model on a piece of text, halving the piece whenever the
// model finds it too large, until the halves fit or reach a floor of words
// below which cutting is no longer worth it. Other failures are kept as they
// came: a smaller piece would not cure them, so nothing is retried.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "closeout/chunk_attempt_outcome.h"
#include "closeout/word_split.h"

namespace ostler::AdaptiveHalving {

struct FailedChunk {
  std::string text;
  std::string reason;

  friend bool operator==(const FailedChunk&, const FailedChunk&) = default;
};

// A piece that was halved.
struct SplitEvent {
  int64_t originalWordCount = 0;

  friend bool operator==(const SplitEvent&, const SplitEvent&) = default;
};

template <typename T>
struct Outcome {
  std::vector<T> results;             // in text order
  std::vector<SplitEvent> splits;     // in the order halved
  std::vector<FailedChunk> failures;  // in text order
};

template <typename T>
using Attempt = std::function<ChunkAttemptOutcome<T>(std::string_view)>;

namespace detail {

template <typename T>
void visit(std::string_view text, int64_t floorWords, const Attempt<T>& attempt, Outcome<T>& out) {
  ChunkAttemptOutcome<T> outcome = attempt(text);
  switch (outcome.kind) {
    case ChunkAttemptOutcome<T>::Kind::kSuccess: out.results.push_back(std::move(*outcome.value)); return;
    case ChunkAttemptOutcome<T>::Kind::kOtherFailure:
      out.failures.push_back({std::string(text), std::move(outcome.reason)});
      return;
    case ChunkAttemptOutcome<T>::Kind::kTooLarge: break;
  }
  const int64_t words = WordSplit::wordCount(text);
  if (words <= floorWords) {
    out.failures.push_back(
        {std::string(text), "exceededContextWindowSize at floor (" + std::to_string(words) + " words)"});
    return;
  }
  WordSplit::Halves halves = WordSplit::halve(text);
  out.splits.push_back({halves.wordCount});
  visit(halves.first, floorWords, attempt, out);
  visit(halves.second, floorWords, attempt, out);
}

}  // namespace detail

// Attempts `text`; on "too large" halves it (while it holds more than
// `floorWords` words) and attempts each half, the left one finished before
// the right one begins. A piece at the floor that is still too large fails
// with "exceededContextWindowSize at floor ({n} words)". One failing half
// does not stop the other. Attempts run one at a time, in text order.
template <typename T>
[[nodiscard]] Outcome<T> run(std::string_view text, int64_t floorWords, const Attempt<T>& attempt) {
  Outcome<T> out;
  detail::visit(text, floorWords, attempt, out);
  return out;
}

}  // namespace ostler::AdaptiveHalving
