#include "closeout/path_canon.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "closeout/word_split.h"

namespace ostler {
namespace {

constexpr const char* kHome = "/home/u";

TEST(PathCanonTest, CanonicalizeGivesOneAbsoluteFormOrNothing) {
  struct Case {
    std::string path;
    std::optional<std::string> canonical;
  };
  const std::vector<Case> cases = {
      {"", std::nullopt},
      {".", std::nullopt},
      {"./", std::nullopt},
      {"/", std::nullopt},
      {"~", std::nullopt},
      {"src/", std::nullopt},
      {"- src/ (folder)", std::nullopt},
      {"  \t ", std::nullopt},
      {"./a.txt", "/r/a.txt"},
      {"- a.txt (4 edits)", "/r/a.txt"},
      {"* ././b.txt", "/r/b.txt"},
      {"+ 1. c.txt", "/r/c.txt"},
      {"2)\tc.txt", "/r/c.txt"},
      {"\xD9\xA3. c.txt", "/r/c.txt"},  // an Arabic-Indic three
      {"a.txt:12", "/r/a.txt"},
      {"a.txt (x) (y)", "/r/a.txt"},
      {"(see notes).txt", "/r/(see notes).txt"},
      {"~/x.txt", "/home/u/x.txt"},
      {"~user/x.txt", "/r/~user/x.txt"},
      {"/abs//p/./q/../f.txt", "/abs/p/f.txt"},
      {"../../../x.txt", "/x.txt"},
      {"a.txt/.", "/r/a.txt"},
      {"src/..", "/r"},
      {"src/./lib//a.c", "/r/src/lib/a.c"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(PathCanon::canonicalize(c.path, "/r/", kHome), c.canonical) << c.path;
    EXPECT_EQ(PathCanon::canonicalize(c.path, "/r", kHome), c.canonical) << c.path;
  }
  EXPECT_EQ(PathCanon::canonicalize("~/x.txt", "", ""), "/x.txt");
  EXPECT_EQ(PathCanon::canonicalize("a.txt", "", kHome), "a.txt");
  EXPECT_EQ(PathCanon::canonicalize("a.txt", "/", kHome), "/a.txt");
  EXPECT_EQ(PathCanon::canonicalize("../a.txt", "rel", kHome), "a.txt");
  EXPECT_EQ(PathCanon::canonicalize("../../a.txt", "rel", kHome), "../a.txt");
}

TEST(PathCanonTest, StripsMarkersAndAnnotations) {
  for (const auto& [text, stripped] : std::vector<std::pair<std::string, std::string>>{
           {"  - a", "a"}, {"-a", "-a"}, {"1.a", "1.a"}, {"12)\n a", "a"}, {"- 3. a", "a"},
           {"1.\xC2\xA0" "a", "a"},                      // no-break space is white space
           {"1.\xE2\x80\x8B" "a", "1.\xE2\x80\x8B" "a"},  // zero-width space is not
           {"1. 2. a", "2. a"}})
    EXPECT_EQ(PathCanon::stripLineMarkers(text), stripped) << text;
  for (const auto& [text, stripped] : std::vector<std::pair<std::string, std::string>>{
           {"a (b (c))", "a"}, {"a b)", "a b)"}, {"x (y)z", "x (y)z"}, {"a.txt:1:2 (x)", "a.txt"},
           {"(a)", ""}, {" a.txt\t(1) ", "a.txt"}, {"a.txt (x:1)", "a.txt"}})
    EXPECT_EQ(PathCanon::stripAnnotations(text), stripped) << text;
}

TEST(PathCanonTest, ExtractsPathTokensFromProse) {
  using V = std::vector<std::string>;
  const std::vector<std::pair<std::string, V>> cases = {
      {"see src/main.txt. and main.txt.", {"src/main.txt", "main.txt"}},
      {"src/main ...", {}},
      {"~/x.txt", {"/x.txt"}},
      {"./", {"./"}},
      {".", {}},
      {"a.txt, b.txt a.txt", {"a.txt", "b.txt", "a.txt"}},
      {"dir/a.b/ /lead.c", {"dir/a.b/", "/lead.c"}},
      {"na\xC3\xAFve.txt", {"na\xC3\xAFve.txt"}},  // precomposed letter
      {"e\xCC\x81.txt", {".txt"}},                  // a combining mark is no letter
      {"\xE6\x97\xA5\xE6\x9C\xAC.md \xD9\xA3.x", {"\xE6\x97\xA5\xE6\x9C\xAC.md", "\xD9\xA3.x"}},
      {"a_b-c.d:12", {"a_b-c.d"}},
  };
  for (const auto& [text, tokens] : cases) EXPECT_EQ(PathCanon::extractPathTokens(text), tokens) << text;

  EXPECT_EQ(PathCanon::tildeReattached("/x.txt", "see ~/x.txt"), "~/x.txt");
  EXPECT_EQ(PathCanon::tildeReattached("/x.txt", "see /x.txt"), "/x.txt");
  EXPECT_EQ(PathCanon::canonicalTokenSet("edit ~/x.txt, ./src/a.txt and src/a.txt; not src/", "/r", kHome),
            (std::set<std::string>{"/x.txt", "/r/src/a.txt"}));
}

TEST(WordSplitTest, SplitsAtUnicodeWhiteSpaceOnly) {
  using V = std::vector<std::string_view>;
  EXPECT_EQ(WordSplit::words("a\xC2\xA0" "b\xE2\x80\xA8" "c\xE2\x80\x8B" "d\xEF\xBB\xBF" "e  f\r\ng\x0B" "h\xC2\x85"),
            (V{"a", "b", "c\xE2\x80\x8B" "d\xEF\xBB\xBF" "e", "f", "g", "h"}));
  EXPECT_TRUE(WordSplit::words(" \t\n\xE3\x80\x80").empty());

  struct Case {
    std::string text, first, second;
    int64_t count;
  };
  for (const auto& c : std::vector<Case>{{"", "", "", 0},
                                         {"one", "one", "", 1},
                                         {"a b", "a", "b", 2},
                                         {" a  b\n c ", "a", "b c", 3},
                                         {"a b c d", "a b", "c d", 4}}) {
    const auto h = WordSplit::halve(c.text);
    EXPECT_EQ(h.first, c.first) << c.text;
    EXPECT_EQ(h.second, c.second) << c.text;
    EXPECT_EQ(h.wordCount, c.count) << c.text;
  }
}

}  // namespace
}  // namespace ostler
