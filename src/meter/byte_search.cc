#include "meter/byte_search.h"

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

bool mayNameAssistant(std::string_view line) {
#if defined(__x86_64__)
  if (haveAvx2()) return avx2Search(line.data(), line.size());
#endif
  return scalarSearch(line.data(), line.size());
}

}  // namespace ostler
