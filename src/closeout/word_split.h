// Words as the closeout counts and cuts them: runs of characters between
// white space (the Unicode White_Space property, line ends included). Word
// budgets, chunk sizes and the handoff's length bounds are all counted this
// way.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ostler::WordSplit {

// The words of `text`, in order, as views into it; no empty words.
[[nodiscard]] std::vector<std::string_view> words(std::string_view text);

// The number of words of `text`, without collecting them.
[[nodiscard]] int64_t wordCount(std::string_view text);

// `text` cut into two runs of words, each joined by single spaces.
struct Halves {
  std::string first;      // the first max(n, 2) / 2 words: one word for one or two
  std::string second;     // the rest; empty for a single word
  int64_t wordCount = 0;  // n, the words of the whole text
};

// Any run of white space comes back as one space. Callers halve only text
// with more words than their floor (at least 1).
[[nodiscard]] Halves halve(std::string_view text);

// `words` joined by single spaces.
[[nodiscard]] std::string joined(const std::vector<std::string_view>& words, size_t begin, size_t end);

}  // namespace ostler::WordSplit
