#include "daemon/engine/collapse_whitespace.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace ostler {
namespace {

bool isWhitespaceOrNewline(UChar32 c) {
  if (c < 0) return false;
  if ((c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85) return true;
  if (c < 0x80) return false;
  int8_t type = u_charType(c);
  return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

}  // namespace

std::string collapseWhitespace(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto* p = reinterpret_cast<const uint8_t*>(text.data());
  int32_t n = static_cast<int32_t>(text.size());
  int32_t i = 0;
  bool pendingSpace = false;
  while (i < n) {
    int32_t start = i;
    UChar32 c;
    U8_NEXT(p, i, n, c);
    if (isWhitespaceOrNewline(c)) {
      pendingSpace = !out.empty();
      continue;
    }
    if (pendingSpace) out.push_back(' ');
    pendingSpace = false;
    out.append(text.substr(static_cast<size_t>(start), static_cast<size_t>(i - start)));
  }
  return out;
}

}  // namespace ostler
