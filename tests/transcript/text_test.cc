#include "transcript/text.h"

#include <gtest/gtest.h>
#include <unicode/unistr.h>

#include <random>
#include <string>
#include <vector>

namespace ostler::text {
namespace {

// ICU's converter follows the same practice of one replacement per maximal
// subpart, so it serves as an oracle on arbitrary bytes, for the repair and
// for the check that finds nothing to repair. The alphabet holds the edges of
// every byte range: truncated, overlong, surrogate and past U+10FFFF
// sequences all come up many times.
TEST(TextTest, RepairAgreesWithICUOnRandomBytes) {
  const std::string alphabet =
      "a\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF";
  std::mt19937 rng(20261101);
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1), length(0, 12);
  for (int i = 0; i < 20000; ++i) {
    std::string bytes;
    for (size_t n = length(rng); n > 0; --n) bytes.push_back(alphabet[pick(rng)]);
    std::string viaICU;
    icu::UnicodeString::fromUTF8(bytes).toUTF8String(viaICU);
    ASSERT_EQ(repairUtf8(bytes), viaICU) << ::testing::PrintToString(bytes);
    ASSERT_EQ(isValidUtf8(bytes), bytes == viaICU) << ::testing::PrintToString(bytes);
  }
}

// The first trim takes space separators and tabs; the second line breaks too.
TEST(TextTest, TrimsSpacesAndTabsOrAlsoLineBreaks) {
  struct Case {
    std::string in, first, second;
  };
  const std::vector<Case> cases = {
      {" \t x y \t", "x y", "x y"},
      {"\xC2\xA0x\xE3\x80\x80", "x", "x"},                  // no-break space, ideographic space
      {"\xE1\x9A\x80\xE2\x80\x80x\xE2\x80\x8A", "x", "x"},  // ogham space mark, en quad, hair space
      {"\xE2\x80\xAFx\xE2\x81\x9F", "x", "x"},              // narrow no-break space, medium math space
      {"{}\r", "{}\r", "{}"},
      {"\nx\n", "\nx\n", "x"},
      {"\x0Bx\x0C", "\x0Bx\x0C", "x"},
      {"\r\n\t x y \x0B\x0C", "\r\n\t x y \x0B\x0C", "x y"},
      {"\xC2\x85x\xE2\x80\xA8\xE2\x80\xA9", "\xC2\x85x\xE2\x80\xA8\xE2\x80\xA9", "x"},  // next line, LS, PS
      {"\xC2\xA0 x\r", "x\r", "x"},
      {"\x1Cx\x1F", "\x1Cx\x1F", "\x1Cx\x1F"},        // information separators are not whitespace here
      {"\xE2\x80\x8Bx", "\xE2\x80\x8Bx", "\xE2\x80\x8Bx"},  // zero width space is not Zs
      {"\n\r\n ", "\n\r\n", ""},
      {"   \t ", "", ""},
      {"x \xC2", "x \xC2", "x \xC2"},                  // a torn sequence is not a space
  };
  for (const auto& c : cases) {
    EXPECT_EQ(trimSpacesAndTabs(c.in), c.first) << ::testing::PrintToString(c.in);
    EXPECT_EQ(trimWhitespaceAndNewlines(c.in), c.second) << ::testing::PrintToString(c.in);
  }
}

TEST(TextTest, CountsUserPerceivedCharacters) {
  struct Case {
    std::string text;
    int64_t count;
  };
  const std::vector<Case> cases = {
      {"", 0}, {"abc", 3}, {"a\r\nb", 3} /* CR LF is one cluster */, {"\r\r\n\n\r", 4},
      {"e\xCC\x81", 1},                                            // e + combining acute
      {"e\xCC\x81\r\n", 2},                                        // the same outside the ASCII path
      {"a\xCC\x81\xCC\xA7\xCC\x8A" "b", 2},                        // several marks on one base
      {"\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7", 1},  // family ZWJ sequence
      {"\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA", 2},  // two flags
      {"\xE2\x82\xAC\xE2\x82\xAC", 2},
  };
  for (const auto& c : cases) EXPECT_EQ(characterCount(c.text), c.count) << ::testing::PrintToString(c.text);

  EXPECT_EQ(characterCount("abcdef", 4), 4);
  EXPECT_EQ(characterCount("e\xCC\x81" "bcdef", 3), 3);
  EXPECT_EQ(prefixCharacters("a\r\nbc", 2), "a\r\n");
  EXPECT_EQ(prefixCharacters("e\xCC\x81xyz", 1), "e\xCC\x81");
  EXPECT_EQ(prefixCharacters("\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBDz", 1), "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD");
  EXPECT_EQ(prefixCharacters("ab", 5), "ab");
  EXPECT_EQ(prefixCharacters("ab", 0), "");
  // A cut in ASCII text stands whatever lies beyond it, but for a mark that
  // joins the last character kept; CR LF pairs count once, on either side.
  EXPECT_EQ(prefixCharacters("abc" + std::string(5000, 'x') + "\xC3\xA9", 2), "ab");
  EXPECT_EQ(prefixCharacters("ab\xCC\x81" "c", 2), "ab\xCC\x81");
  EXPECT_EQ(prefixCharacters("\r\n\r\n\rx\r\n", 3), "\r\n\r\n\r");
  EXPECT_EQ(prefixCharacters("\r\n\r\n\rx\r\n", 5), "\r\n\r\n\rx\r\n");
  EXPECT_EQ(prefixCharacters("a\rb\r", 9), "a\rb\r");
  const std::string crlf = "x\r\n" + std::string(3, 'y');
  for (int64_t n = 1; n <= 6; ++n)
    EXPECT_EQ(prefixCharacters(crlf, n), crlf.substr(0, n == 1 ? 1 : std::min<size_t>(n + 1, crlf.size()))) << n;
}

TEST(TextTest, LastPathComponentIgnoresTrailingSlashes) {
  struct Case {
    std::string path, last;
  };
  const std::vector<Case> cases = {
      {"/home/dev/shop/", "shop"}, {"a//b//", "b"}, {"shop", "shop"}, {"/", "/"}, {"///", "/"}, {"", ""}, {"/x", "x"},
  };
  for (const auto& c : cases) EXPECT_EQ(lastPathComponent(c.path), c.last) << c.path;
}

}  // namespace
}  // namespace ostler::text
