#include "daemon/engine/case_folding.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <vector>

#include "transcript/text.h"

namespace ostler::CaseFolding {
namespace {

char asciiFold(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::optional<size_t> findAscii(std::string_view text, std::string_view needle) {
  if (needle.size() > text.size()) return std::nullopt;
  for (size_t i = 0; i + needle.size() <= text.size(); ++i) {
    size_t k = 0;
    while (k < needle.size() && asciiFold(text[i + k]) == needle[k]) ++k;
    if (k == needle.size()) return i;
  }
  return std::nullopt;
}

// The code points of `s`, folded, each with the byte offset it starts at.
struct Folded {
  std::vector<UChar32> points;
  std::vector<size_t> offsets;
};

Folded fold(std::string_view s) {
  Folded f;
  f.points.reserve(s.size());
  f.offsets.reserve(s.size());
  int32_t i = 0;
  const auto* p = reinterpret_cast<const uint8_t*>(s.data());
  int32_t n = static_cast<int32_t>(s.size());
  while (i < n) {
    f.offsets.push_back(static_cast<size_t>(i));
    UChar32 c;
    U8_NEXT(p, i, n, c);
    if (c < 0) c = 0xFFFD;  // ill-formed bytes match nothing a needle holds
    f.points.push_back(u_foldCase(c, U_FOLD_CASE_DEFAULT));
  }
  return f;
}

}  // namespace

std::optional<size_t> find(std::string_view text, std::string_view needle) {
  if (needle.empty()) return 0;
  if (text::isAscii(text)) return findAscii(text, needle);
  Folded t = fold(text);
  Folded n = fold(needle);
  if (n.points.size() > t.points.size()) return std::nullopt;
  for (size_t i = 0; i + n.points.size() <= t.points.size(); ++i) {
    size_t k = 0;
    while (k < n.points.size() && t.points[i + k] == n.points[k]) ++k;
    if (k == n.points.size()) return t.offsets[i];
  }
  return std::nullopt;
}

}  // namespace ostler::CaseFolding
