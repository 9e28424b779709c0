#include "transcript/json_line.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "transcript/text.h"

namespace ostler {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Characters that may continue a number token.
bool isNumberChar(char c) { return isDigit(c) || c == '.' || c == 'e' || c == 'E' || c == '+' || c == '-'; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The code unit of a "\uXXXX" escape at `at` (pointing at the backslash), or
// -1 when there is none.
int escapedUnit(std::string_view s, size_t at) {
  if (at + 6 > s.size() || s[at] != '\\' || s[at + 1] != 'u') return -1;
  int v = 0;
  for (size_t i = at + 2; i < at + 6; ++i) {
    int h = hexValue(s[i]);
    if (h < 0) return -1;
    v = v * 16 + h;
  }
  return v;
}

// Length of the JSON number at `at`, or 0 when the grammar does not match.
size_t numberLength(std::string_view s, size_t at, bool* integral) {
  size_t i = at;
  if (i < s.size() && s[i] == '-') ++i;
  if (i >= s.size() || !isDigit(s[i])) return 0;
  if (s[i] == '0') {
    ++i;
  } else {
    while (i < s.size() && isDigit(s[i])) ++i;
  }
  *integral = true;
  if (i < s.size() && s[i] == '.') {
    ++i;
    if (i >= s.size() || !isDigit(s[i])) return 0;
    while (i < s.size() && isDigit(s[i])) ++i;
    *integral = false;
  }
  if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
    ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    if (i >= s.size() || !isDigit(s[i])) return 0;
    while (i < s.size() && isDigit(s[i])) ++i;
    *integral = false;
  }
  return i - at;
}

bool fitsParser(std::string_view token, bool integral) {
  std::string copy(token);
  if (integral) {
    errno = 0;
    char* end = nullptr;
    (void)std::strtoll(copy.c_str(), &end, 10);
    return errno != ERANGE;
  }
  double d = std::strtod(copy.c_str(), nullptr);
  return std::isfinite(d);
}

}  // namespace

bool rewriteForParser(std::string_view s, std::string* out) {
  out->clear();
  out->reserve(s.size() + 16);
  bool changed = false;
  bool inString = false;
  size_t i = 0;
  while (i < s.size()) {
    char c = s[i];
    if (inString) {
      if (c == '"') {
        inString = false;
      } else if (c == '\\' && i + 1 < s.size()) {
        int unit = escapedUnit(s, i);
        if (unit >= 0xD800 && unit <= 0xDBFF) {
          int low = escapedUnit(s, i + 6);
          if (low >= 0xDC00 && low <= 0xDFFF) {
            out->append(s.substr(i, 12));
            i += 12;
          } else {
            out->append("\\ufffd");
            changed = true;
            i += 6;
          }
          continue;
        }
        if (unit >= 0xDC00 && unit <= 0xDFFF) {
          out->append("\\ufffd");
          changed = true;
          i += 6;
          continue;
        }
        out->append(s.substr(i, 2));
        i += 2;
        continue;
      }
      out->push_back(c);
      ++i;
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '-' || isDigit(c)) {
      bool integral = false;
      size_t n = numberLength(s, i, &integral);
      if (n > 0) {
        std::string_view token = s.substr(i, n);
        // A number run into another number character is a flaw whatever its
        // value, and a placeholder there could splice with its neighbours
        // into a valid number ("1e400e5", "5-1e400"): leave it to fail.
        const bool runTogether = (i > 0 && isNumberChar(s[i - 1])) || (i + n < s.size() && isNumberChar(s[i + n]));
        if (runTogether || fitsParser(token, integral)) {
          out->append(token);
        } else {
          // Still valid JSON; a reader asking for an integer here must fail,
          // which a fractional placeholder guarantees.
          out->append("0.5");
          changed = true;
        }
        i += n;
        continue;
      }
    }
    out->push_back(c);
    ++i;
  }
  return changed;
}

namespace {

// A line may nest containers 1,024 deep and no deeper. The parser counts a
// scalar inside the innermost container as a level of its own, so it is
// given one level more, and the one shape that then slips through, 1,025
// containers with an empty innermost one, is caught on the tape.
constexpr size_t kMaxContainerDepth = 1024;

// The deepest container nesting of a parsed document, read off its tape.
size_t containerDepth(const simdjson::dom::document& doc) {
  const uint64_t* tape = doc.tape.get();
  const size_t end = static_cast<size_t>(tape[0] & simdjson::internal::JSON_VALUE_MASK);
  size_t depth = 0, deepest = 0;
  for (size_t i = 1; i < end; ++i) {
    switch (static_cast<char>(tape[i] >> 56)) {
      case '[':
      case '{':
        deepest = std::max(deepest, ++depth);
        break;
      case ']':
      case '}':
        --depth;
        break;
      case 'l':
      case 'u':
      case 'd':
        ++i;  // numbers take a second slot for their value
        break;
      default:
        break;
    }
  }
  return deepest;
}

bool tooDeep(const simdjson::dom::parser& parser) {
  // Every container takes two tape slots, so a short tape cannot be deep.
  const size_t tapeLength = static_cast<size_t>(parser.doc.tape[0] & simdjson::internal::JSON_VALUE_MASK);
  return tapeLength > 2 * kMaxContainerDepth && containerDepth(parser.doc) > kMaxContainerDepth;
}

}  // namespace

JsonLineParser::JsonLineParser() {
  // Only fails when memory is exhausted; parsing then fails line by line.
  [[maybe_unused]] simdjson::error_code error = parser_.allocate(4096, kMaxContainerDepth + 1);
}

// The parser's buffers grow to hold the longest line parsed; left to itself
// it would grow to each longer line exactly, handing the old buffers back to
// the system and faulting new ones in, line after line of a file whose lines
// grow. It grows by doubling instead.
void JsonLineParser::reserve(size_t length) {
  if (length <= parser_.capacity()) return;
  size_t capacity = std::max<size_t>(parser_.capacity(), 4096);
  while (capacity < length) capacity *= 2;
  // Only fails when memory is exhausted; parsing then fails line by line.
  [[maybe_unused]] simdjson::error_code error = parser_.allocate(capacity, kMaxContainerDepth + 1);
}

std::optional<simdjson::dom::object> JsonLineParser::parse(std::string_view line, bool padded) {
  reserve(line.size());
  if (line.size() >= 3 && static_cast<unsigned char>(line[0]) == 0xEF &&
      static_cast<unsigned char>(line[1]) == 0xBB && static_cast<unsigned char>(line[2]) == 0xBF)
    line.remove_prefix(3);
  simdjson::dom::element root;
  auto error = parser_.parse(line.data(), line.size(), !padded).get(root);
  if (error) {
    if (error == simdjson::DEPTH_ERROR || error == simdjson::CAPACITY) return std::nullopt;
    std::string_view text = line;
    bool changed = false;
    if (!simdjson::validate_utf8(text.data(), text.size())) {
      repaired_ = text::repairUtf8(text);
      text = repaired_;
      changed = true;
    }
    if (rewriteForParser(text, &scratch_)) {
      text = scratch_;
      changed = true;
    }
    if (!changed) return std::nullopt;
    reserve(text.size());
    if (parser_.parse(text.data(), text.size(), true).get(root)) return std::nullopt;
  }
  if (tooDeep(parser_)) return std::nullopt;
  simdjson::dom::object object;
  if (root.get_object().get(object)) return std::nullopt;
  return object;
}

}  // namespace ostler
