#include "transcript/byte_search.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace ostler {
namespace {

constexpr std::string_view kQuoted = "\"assistant\"";

bool scalarSearch(const char* p, size_t n) {
  return memmem(p, n, kQuoted.data(), kQuoted.size()) != nullptr || memmem(p, n, "\\u", 2) != nullptr;
}

#if defined(__x86_64__)
// Compares two bytes of each candidate position at once (the first and last
// distinctive letters of the word, or the backslash and the u), and checks
// the rare hits in full.
__attribute__((target("avx2"))) bool avx2Search(const char* p, size_t n) {
  const __m256i a = _mm256_set1_epi8('a'), t = _mm256_set1_epi8('t');
  const __m256i backslash = _mm256_set1_epi8('\\'), u = _mm256_set1_epi8('u');
  size_t i = 0;
  // A word match starting at i + k reads up to i + k + 10; an escape at
  // i + k reads i + k + 1.
  for (; i + 32 + 10 <= n; i += 32) {
    __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i));
    __m256i b1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i + 1));
    __m256i b9 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i + 9));
    uint32_t escape = static_cast<uint32_t>(
        _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpeq_epi8(b0, backslash), _mm256_cmpeq_epi8(b1, u))));
    if (escape != 0) return true;
    uint32_t word = static_cast<uint32_t>(
        _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpeq_epi8(b1, a), _mm256_cmpeq_epi8(b9, t))));
    while (word != 0) {
      size_t at = i + static_cast<size_t>(__builtin_ctz(word));
      if (std::memcmp(p + at, kQuoted.data(), kQuoted.size()) == 0) return true;
      word &= word - 1;
    }
  }
  return scalarSearch(p + i, n - i);
}

bool haveAvx2() {
  static const bool have = __builtin_cpu_supports("avx2");
  return have;
}
#endif

}  // namespace

namespace {

bool isJsonSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Index just past the string that opens at `at` (a quote), or npos when it
// does not close. `hasEscape` tells whether it holds a backslash.
size_t skipString(std::string_view s, size_t at, bool* hasEscape) {
  *hasEscape = false;
  size_t i = at + 1;
  for (;;) {
    const void* q = std::memchr(s.data() + i, '"', s.size() - i);
    if (q == nullptr) return std::string_view::npos;
    size_t close = static_cast<size_t>(static_cast<const char*>(q) - s.data());
    // The quote is escaped when an odd run of backslashes stands before it.
    size_t backslashes = 0;
    while (close - backslashes > i && s[close - 1 - backslashes] == '\\') ++backslashes;
    if (std::memchr(s.data() + i, '\\', close - i) != nullptr) *hasEscape = true;
    if (backslashes % 2 == 0) return close + 1;
    i = close + 1;
  }
}

// Index just past the value at `at`, or npos when it cannot be followed.
size_t skipValue(std::string_view s, size_t at) {
  if (at >= s.size()) return std::string_view::npos;
  char c = s[at];
  bool escape;
  if (c == '"') return skipString(s, at, &escape);
  if (c == '{' || c == '[') {
    int depth = 0;
    for (size_t i = at; i < s.size();) {
      char d = s[i];
      if (d == '"') {
        i = skipString(s, i, &escape);
        if (i == std::string_view::npos) return i;
        continue;
      }
      if (d == '{' || d == '[') ++depth;
      if (d == '}' || d == ']') {
        if (--depth == 0) return i + 1;
      }
      ++i;
    }
    return std::string_view::npos;
  }
  size_t i = at;
  while (i < s.size() && s[i] != ',' && s[i] != '}' && !isJsonSpace(s[i])) ++i;
  return i;
}

}  // namespace

TypeHint topLevelTypeHint(std::string_view s) {
  size_t i = 0;
  if (s.size() >= 3 && s.compare(0, 3, "\xEF\xBB\xBF") == 0) i = 3;
  auto skipSpace = [&] {
    while (i < s.size() && isJsonSpace(s[i])) ++i;
  };
  skipSpace();
  if (i >= s.size() || s[i] != '{') return TypeHint::kOther;  // not an object: never decodes
  ++i;
  for (;;) {
    skipSpace();
    if (i >= s.size()) return TypeHint::kUnknown;
    if (s[i] == '}') return TypeHint::kOther;  // no type at all
    if (s[i] != '"') return TypeHint::kUnknown;
    bool keyEscaped;
    size_t keyEnd = skipString(s, i, &keyEscaped);
    if (keyEnd == std::string_view::npos || keyEscaped) return TypeHint::kUnknown;
    std::string_view key = s.substr(i + 1, keyEnd - i - 2);
    i = keyEnd;
    skipSpace();
    if (i >= s.size() || s[i] != ':') return TypeHint::kUnknown;
    ++i;
    skipSpace();
    if (key == "type") {
      if (i >= s.size()) return TypeHint::kUnknown;
      if (s[i] != '"') return TypeHint::kOther;  // null or not a string: never dispatched
      bool valueEscaped;
      size_t valueEnd = skipString(s, i, &valueEscaped);
      if (valueEnd == std::string_view::npos || valueEscaped) return TypeHint::kUnknown;
      return s.substr(i + 1, valueEnd - i - 2) == "assistant" ? TypeHint::kAssistant : TypeHint::kOther;
    }
    i = skipValue(s, i);
    if (i == std::string_view::npos) return TypeHint::kUnknown;
    skipSpace();
    if (i >= s.size()) return TypeHint::kUnknown;
    if (s[i] == ',') {
      ++i;
      continue;
    }
    if (s[i] == '}') return TypeHint::kOther;
    return TypeHint::kUnknown;
  }
}

bool mayNameAssistant(std::string_view line) {
#if defined(__x86_64__)
  if (haveAvx2()) return avx2Search(line.data(), line.size());
#endif
  return scalarSearch(line.data(), line.size());
}

}  // namespace ostler
