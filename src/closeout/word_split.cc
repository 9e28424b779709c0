#include "closeout/word_split.h"

#include <algorithm>

#include "closeout/code_points.h"

namespace ostler::WordSplit {
namespace {

// Calls `visit(word)` for each word of `text`.
template <typename Visit>
void forEachWord(std::string_view text, Visit visit) {
  size_t start = std::string_view::npos;
  for (size_t i = 0; i < text.size();) {
    const CodePoints::Decoded d = CodePoints::decodeAt(text, i);
    if (CodePoints::isWhiteSpace(d.value)) {
      if (start != std::string_view::npos) visit(text.substr(start, i - start));
      start = std::string_view::npos;
    } else if (start == std::string_view::npos) {
      start = i;
    }
    i += d.length;
  }
  if (start != std::string_view::npos) visit(text.substr(start));
}

}  // namespace

std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> out;
  forEachWord(text, [&](std::string_view w) { out.push_back(w); });
  return out;
}

int64_t wordCount(std::string_view text) {
  int64_t n = 0;
  forEachWord(text, [&](std::string_view) { ++n; });
  return n;
}

std::string joined(const std::vector<std::string_view>& words, size_t begin, size_t end) {
  std::string out;
  for (size_t i = begin; i < end; ++i) {
    if (i > begin) out.push_back(' ');
    out.append(words[i]);
  }
  return out;
}

Halves halve(std::string_view text) {
  const std::vector<std::string_view> all = words(text);
  const size_t n = all.size();
  const size_t h = std::min(std::max<size_t>(n, 2) / 2, n);
  return {joined(all, 0, h), joined(all, h, n), static_cast<int64_t>(n)};
}

}  // namespace ostler::WordSplit
