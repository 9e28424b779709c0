#include "closeout/code_points.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>

namespace ostler::CodePoints {

Decoded decodeAt(std::string_view s, size_t at) {
  const auto c = static_cast<unsigned char>(s[at]);
  if (c < 0x80) return {c, 1};
  // A code point takes at most four bytes.
  const auto* p = reinterpret_cast<const uint8_t*>(s.data() + at);
  const int32_t n = static_cast<int32_t>(std::min<size_t>(s.size() - at, 4));
  int32_t i = 0;
  UChar32 v;
  U8_NEXT(p, i, n, v);
  if (v < 0) v = 0xFFFD;
  return {static_cast<char32_t>(v), static_cast<size_t>(i)};
}

size_t previousStart(std::string_view s, size_t end) {
  size_t i = end - 1;
  while (i > 0 && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80 && end - i < 4) --i;
  // A run of stray continuation bytes is read byte by byte.
  if (decodeAt(s, i).length != end - i) return end - 1;
  return i;
}

bool isWhiteSpace(char32_t c) {
  if (c < 0x80) return c == ' ' || (c >= 0x09 && c <= 0x0D);
  return u_isUWhiteSpace(static_cast<UChar32>(c));
}

bool isLetterOrDigit(char32_t c) {
  if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  return (U_GET_GC_MASK(static_cast<UChar32>(c)) & (U_GC_L_MASK | U_GC_ND_MASK)) != 0;
}

bool containsLetterOrDigit(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    const Decoded d = decodeAt(s, i);
    if (isLetterOrDigit(d.value)) return true;
    i += d.length;
  }
  return false;
}

namespace {

// The full lower-case mapping of one code point, appended as UTF-8. Mapped
// alone, a code point has no context, so the one context-dependent rule of
// the root locale (final sigma) never applies.
void appendLowercased(char32_t c, std::string& out) {
  UChar source[2];
  int32_t sourceLength = 0;
  UBool error = false;
  U16_APPEND(source, sourceLength, 2, static_cast<UChar32>(c), error);
  UChar lowered[8];
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = u_strToLower(lowered, 8, source, sourceLength, "", &status);
  if (U_FAILURE(status) || error) {
    out += std::string_view("\xEF\xBF\xBD");
    return;
  }
  for (int32_t i = 0; i < length;) {
    UChar32 v;
    U16_NEXT(lowered, i, length, v);
    char bytes[4];
    int32_t n = 0;
    U8_APPEND_UNSAFE(bytes, n, v);
    out.append(bytes, static_cast<size_t>(n));
  }
}

}  // namespace

std::string lowercased(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      out.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : static_cast<char>(c));
      ++i;
      continue;
    }
    const Decoded d = decodeAt(s, i);
    appendLowercased(d.value, out);
    i += d.length;
  }
  return out;
}

}  // namespace ostler::CodePoints
