#include "meter/repeat_pipelines.h"

#include <fmt/format.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <memory>

#include "transcript/text.h"

namespace ostler {
namespace {

struct Patterns {
  std::unique_ptr<icu::RegexPattern> strings, paths, numbers;
};

const Patterns& patterns() {
  static const Patterns p = [] {
    Patterns out;
    UParseError pe;
    UErrorCode status = U_ZERO_ERROR;
    out.strings.reset(icu::RegexPattern::compile(u"\"[^\"]*\"|'[^']*'", pe, status));
    out.paths.reset(icu::RegexPattern::compile(u"/[^\\s\"']+", pe, status));
    out.numbers.reset(icu::RegexPattern::compile(u"\\b\\d+\\b", pe, status));
    return out;
  }();
  return p;
}

icu::UnicodeString replaceAll(const icu::RegexPattern& pattern, const icu::UnicodeString& input,
                              const char16_t* replacement) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> m(pattern.matcher(input, status));
  if (U_FAILURE(status)) return input;
  icu::UnicodeString out = m->replaceAll(icu::UnicodeString(replacement), status);
  return U_FAILURE(status) ? input : out;
}

// ICU's \s on ASCII: the Unicode white space of that range, which is tab,
// line feed, vertical tab, form feed, carriage return and space.
bool isSpace(char c) { return (c >= '\t' && c <= '\r') || c == ' '; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isWord(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

std::string maskStrings(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    char c = s[i];
    if (c == '"' || c == '\'') {
      size_t close = s.find(c, i + 1);
      if (close != std::string_view::npos) {
        out += "<STR>";
        i = close + 1;
        continue;
      }
    }
    out.push_back(c);
    ++i;
  }
  return out;
}

std::string maskPaths(std::string_view s) {
  auto inPath = [](char c) { return !isSpace(c) && c != '"' && c != '\''; };
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    if (s[i] == '/' && i + 1 < s.size() && inPath(s[i + 1])) {
      size_t j = i + 1;
      while (j < s.size() && inPath(s[j])) ++j;
      out += "<PATH>";
      i = j;
      continue;
    }
    out.push_back(s[i]);
    ++i;
  }
  return out;
}

std::string maskNumbers(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    if (!isDigit(s[i])) {
      out.push_back(s[i]);
      ++i;
      continue;
    }
    size_t j = i;
    while (j < s.size() && isDigit(s[j])) ++j;
    // A run matches only when it starts and ends on a word boundary; no
    // shorter run inside it can, since digits are word characters.
    bool startsAtBoundary = i == 0 || !isWord(s[i - 1]);
    bool endsAtBoundary = j == s.size() || !isWord(s[j]);
    if (startsAtBoundary && endsAtBoundary)
      out += "<NUM>";
    else
      out.append(s.substr(i, j - i));
    i = j;
  }
  return out;
}

}  // namespace

std::string normalizeBashCommandICU(std::string_view command) {
  const Patterns& p = patterns();
  icu::UnicodeString s = icu::UnicodeString::fromUTF8(icu::StringPiece(command.data(), static_cast<int32_t>(command.size())));
  s = replaceAll(*p.strings, s, u"<STR>");
  s = replaceAll(*p.paths, s, u"<PATH>");
  s = replaceAll(*p.numbers, s, u"<NUM>");
  std::string out;
  s.toUTF8String(out);
  return out;
}

std::string normalizeBashCommand(std::string_view command) {
  // Outside ASCII, word characters, digits and spaces take their Unicode
  // meanings, which only ICU knows.
  if (!text::isAscii(command)) return normalizeBashCommandICU(command);
  return maskNumbers(maskPaths(maskStrings(command)));
}

uint64_t stableHashValue(std::string_view s) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (unsigned char c : s) {
    h ^= c;
    h *= 0x100000001b3ull;
  }
  return h;
}

std::string hashHex(uint64_t hash) { return fmt::format("{:x}", hash); }

std::string stableHash(std::string_view s) { return hashHex(stableHashValue(s)); }

}  // namespace ostler
