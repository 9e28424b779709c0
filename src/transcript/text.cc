#include "transcript/text.h"

#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace ostler::text {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// Length of the well-formed sequence at `p`, or 0 with `*consumed` set to the
// length of the maximal ill-formed subpart to replace.
size_t sequenceLength(const unsigned char* p, size_t avail, size_t* consumed) {
  unsigned char c = p[0];
  if (c < 0x80) return 1;
  size_t need;
  unsigned char lo = 0x80, hi = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    need = 1;
  } else if (c >= 0xE0 && c <= 0xEF) {
    need = 2;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    need = 3;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  } else {
    *consumed = 1;
    return 0;
  }
  size_t i = 1;
  for (; i <= need; ++i) {
    if (i >= avail) break;
    unsigned char b = p[i];
    unsigned char l = (i == 1) ? lo : 0x80, h = (i == 1) ? hi : 0xBF;
    if (b < l || b > h) break;
  }
  if (i == need + 1) return need + 1;
  *consumed = i;
  return 0;
}

bool isZsOrTab(const unsigned char* p, size_t avail, size_t* len) {
  unsigned char c = p[0];
  if (c == ' ' || c == '\t') { *len = 1; return true; }
  if (c == 0xC2 && avail >= 2 && p[1] == 0xA0) { *len = 2; return true; }
  if (c == 0xE1 && avail >= 3 && p[1] == 0x9A && p[2] == 0x80) { *len = 3; return true; }
  if (c == 0xE2 && avail >= 3) {
    if (p[1] == 0x80 && ((p[2] >= 0x80 && p[2] <= 0x8A) || p[2] == 0xAF)) { *len = 3; return true; }
    if (p[1] == 0x81 && p[2] == 0x9F) { *len = 3; return true; }
  }
  if (c == 0xE3 && avail >= 3 && p[1] == 0x80 && p[2] == 0x80) { *len = 3; return true; }
  return false;
}

bool isWhitespaceOrNewline(const unsigned char* p, size_t avail, size_t* len) {
  if (isZsOrTab(p, avail, len)) return true;
  unsigned char c = p[0];
  if (c >= 0x0A && c <= 0x0D) { *len = 1; return true; }
  if (c == 0xC2 && avail >= 2 && p[1] == 0x85) { *len = 2; return true; }
  if (c == 0xE2 && avail >= 3 && p[1] == 0x80 && (p[2] == 0xA8 || p[2] == 0xA9)) { *len = 3; return true; }
  return false;
}

// Start of the UTF-8 scalar that ends just before `end`.
size_t previousScalarStart(std::string_view s, size_t end) {
  size_t i = end - 1;
  while (i > 0 && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80 && end - i < 4) --i;
  return i;
}

template <typename Pred>
std::string_view trimWith(std::string_view s, Pred pred) {
  const auto* data = reinterpret_cast<const unsigned char*>(s.data());
  size_t begin = 0, end = s.size(), len = 0;
  while (begin < end && pred(data + begin, end - begin, &len)) begin += len;
  while (end > begin) {
    size_t start = previousScalarStart(s, end);
    if (start < begin || !pred(data + start, end - start, &len) || start + len != end) break;
    end = start;
  }
  return s.substr(begin, end - begin);
}

// ASCII text has one cluster per byte, except CR LF, which is one cluster.
int64_t asciiCharacterCount(std::string_view s) {
  int64_t n = static_cast<int64_t>(s.size());
  const char* p = s.data();
  const char* end = p + s.size();
  while (p < end) {
    const void* cr = std::memchr(p, '\r', static_cast<size_t>(end - p));
    if (cr == nullptr) break;
    p = static_cast<const char*>(cr) + 1;
    if (p < end && *p == '\n') --n;
  }
  return n;
}

struct BreakIteratorDeleter {
  void operator()(icu::BreakIterator* b) const { delete b; }
};

icu::BreakIterator& characterBreaks() {
  thread_local std::unique_ptr<icu::BreakIterator, BreakIteratorDeleter> it = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator, BreakIteratorDeleter> b(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    return b;
  }();
  return *it;
}

// Walks cluster boundaries of UTF-8 text; calls `visit(byteOffset)` for each
// boundary after the start until it returns false.
template <typename Visit>
void forEachBoundary(std::string_view s, Visit visit) {
  UErrorCode status = U_ZERO_ERROR;
  UText* ut = utext_openUTF8(nullptr, s.data(), static_cast<int64_t>(s.size()), &status);
  if (U_FAILURE(status)) return;
  icu::BreakIterator& it = characterBreaks();
  it.setText(ut, status);
  if (U_SUCCESS(status)) {
    it.first();
    for (int32_t b = it.next(); b != icu::BreakIterator::DONE; b = it.next())
      if (!visit(static_cast<size_t>(b))) break;
  }
  utext_close(ut);
}

}  // namespace

bool isAscii(std::string_view s) {
  // Eight bytes at a time: images come as megabytes of Base64 text.
  const char* p = s.data();
  size_t n = s.size();
  uint64_t acc = 0;
  for (; n >= 8; p += 8, n -= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    acc |= word;
  }
  for (; n > 0; ++p, --n) acc |= static_cast<unsigned char>(*p);
  return (acc & 0x8080808080808080ULL) == 0;
}

bool isValidUtf8(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t n = bytes.size(), i = 0;
  while (i < n) {
    if (p[i] < 0x80) { ++i; continue; }
    size_t consumed = 0;
    size_t len = sequenceLength(p + i, n - i, &consumed);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

std::string repairUtf8(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() + 16);
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t n = bytes.size(), i = 0;
  while (i < n) {
    size_t consumed = 0;
    size_t len = sequenceLength(p + i, n - i, &consumed);
    if (len > 0) {
      out.append(bytes.data() + i, len);
      i += len;
    } else {
      out.append(kReplacement, 3);
      i += consumed;
    }
  }
  return out;
}

std::string_view trimSpacesAndTabs(std::string_view s) { return trimWith(s, isZsOrTab); }

std::string_view trimWhitespaceAndNewlines(std::string_view s) {
  return trimWith(s, isWhitespaceOrNewline);
}

int64_t characterCount(std::string_view s, int64_t limit) {
  // A capped count of a long text needs only a prefix of it: every byte of
  // ASCII is at most one cluster, and a CR LF pair at most halves that.
  if (limit < INT64_MAX && s.size() > static_cast<uint64_t>(2 * limit) + 2) {
    std::string_view prefix = s.substr(0, static_cast<size_t>(2 * limit) + 2);
    if (isAscii(prefix) && asciiCharacterCount(prefix) >= limit) return limit;
  }
  if (isAscii(s)) return std::min(asciiCharacterCount(s), limit);
  int64_t count = 0;
  forEachBoundary(s, [&](size_t) { return ++count < limit; });
  return count;
}

std::string_view prefixCharacters(std::string_view s, int64_t n) {
  if (n <= 0) return s.substr(0, 0);
  // n characters span at most 2n bytes (a CR LF pair is one). When those and
  // the byte after them are ASCII, every byte but an LF after a CR starts a
  // character, whatever follows: a mark that joins onto a character is never
  // ASCII. Long typed texts are cut this way without reading them whole.
  const uint64_t reach = std::min<uint64_t>(s.size(), 2 * static_cast<uint64_t>(n) + 1);
  if (isAscii(s.substr(0, static_cast<size_t>(reach)))) {
    size_t i = 0;
    while (n > 0 && i < s.size()) {
      const size_t run = static_cast<size_t>(std::min<uint64_t>(s.size() - i, static_cast<uint64_t>(n)));
      const void* cr = std::memchr(s.data() + i, '\r', run);
      if (cr == nullptr) return s.substr(0, i + run);
      const size_t at = static_cast<size_t>(static_cast<const char*>(cr) - s.data());
      n -= static_cast<int64_t>(at - i) + 1;  // the characters before the CR, and the CR with its LF
      i = at + ((at + 1 < s.size() && s[at + 1] == '\n') ? 2 : 1);
    }
    return s.substr(0, i);
  }
  size_t end = s.size();
  int64_t count = 0;
  forEachBoundary(s, [&](size_t b) {
    if (++count == n) {
      end = b;
      return false;
    }
    return true;
  });
  return s.substr(0, end);
}

std::string_view lastPathComponent(std::string_view path) {
  if (path.empty()) return path;
  size_t end = path.size();
  while (end > 0 && path[end - 1] == '/') --end;
  if (end == 0) return path.substr(0, 1);
  size_t slash = path.rfind('/', end - 1);
  size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
  return path.substr(begin, end - begin);
}

std::string joined(const std::vector<std::string>& items, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out.append(separator);
    out.append(items[i]);
  }
  return out;
}

}  // namespace ostler::text
