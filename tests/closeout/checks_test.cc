#include "closeout/checks.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "closeout/transcript_reader.h"
#include "fake_file_existence.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using Checks::CheckResult;

constexpr const char* kRoot = "/r";
constexpr const char* kHome = "/h";

// `n` distinct words, starting at w{from}.
std::string words(int n, int from = 0) {
  std::string out;
  for (int i = from; i < from + n; ++i) {
    if (i > from) out += ' ';
    out.append("w").append(std::to_string(i));
  }
  return out;
}

std::string handoff(const std::string& files, int sectionWords = 30) {
  return CloseoutDocument::renderHandoff(words(sectionWords), words(sectionWords, 100), words(sectionWords, 200),
                                         files);
}

CloseoutDocument document(std::string text, std::vector<DocUpdate> updates = {}) {
  return {std::move(text), std::move(updates), std::nullopt, std::nullopt, std::nullopt};
}

// A transcript of three lines whose last, the final third, edits `paths`.
std::vector<TranscriptLine> editing(const std::vector<std::string>& paths) {
  std::string blocks;
  for (size_t i = 0; i < paths.size(); ++i)
    blocks += std::string(i > 0 ? "," : "") + R"({"type":"tool_use","id":"t)" + std::to_string(i) +
              R"(","name":"Edit","input":{"file_path":")" + paths[i] + R"("}})";
  return TranscriptReader::parseLines(R"({"type":"user","message":{"content":"go"}})"
                                      "\n"
                                      R"({"type":"assistant","message":{"content":"ok"}})"
                                      "\n"
                                      R"({"type":"assistant","message":{"content":[)" +
                                      blocks + "]}}\n");
}

testing::FakeFileExistence disk() {
  testing::FakeFileExistence fm;
  fm.file("/r/a.txt").file("/r/b.txt").file("/r/src/main.c").file("/h/notes.md").folder("/r/docs");
  return fm;
}

TEST(ChecksTest, C1FindsEachCitationAsFileFolderOrTokens) {
  struct Case {
    std::string files;
    std::vector<std::string> updatePaths;
    bool pass;
    std::string detail;
  };
  const std::string missingNothing = " (resolves to nothing: empty, '.', './', or a bare directory)";
  const std::vector<Case> cases = {
      {"- a.txt (4 edits)", {}, true, "1 path(s) checked, all exist under root /r"},
      {"docs/\ndocs\nsrc/", {}, true, "3 path(s) checked, all exist under root /r"},
      {"a.txt, b.txt", {}, true, "3 path(s) checked, all exist under root /r"},
      {"~/notes.md\n\n  \n", {" b.txt\t", "  "}, true, "2 path(s) checked, all exist under root /r"},
      {"a.txt, gone.txt", {}, false, "missing: a.txt, gone.txt (tokenized fallback missing: gone.txt)"},
      {"see ~/notes.md and ~/gone.md",
       {},
       false,
       "missing: see ~/notes.md and ~/gone.md (tokenized fallback missing: /gone.md)"},
      {"x.txt x.txt", {}, false, "missing: x.txt x.txt (tokenized fallback missing: x.txt, x.txt)"},
      {"./", {}, false, "missing: ./ (tokenized fallback missing: ./)"},
      {"a.txt/", {}, false, "missing: a.txt/ (tokenized fallback missing: a.txt/)"},  // a file is no folder
      {"gone.txt\nnowhere/",
       {},
       false,
       "missing: gone.txt (tokenized fallback missing: gone.txt); nowhere/" + missingNothing},
      {"", {"docs/gone/"}, false, "missing: docs/gone/" + missingNothing},
  };
  for (const auto& c : cases) {
    std::vector<DocUpdate> updates;
    for (const auto& p : c.updatePaths) updates.push_back({p, "r", "p"});
    auto fm = disk();
    const CheckResult r = Checks::c1PathExistence(document(handoff(c.files), updates), kRoot, kHome, fm);
    EXPECT_EQ(r.pass, c.pass) << c.files;
    EXPECT_EQ(r.detail, c.detail) << c.files;
    EXPECT_FALSE(r.isVoid);
  }
  auto fm = disk();
  const CheckResult none = Checks::c1PathExistence(document("## STATE\nno files"), kRoot, kHome, fm);
  EXPECT_EQ(none.detail, "no paths named in handoff or doc_updates");
  EXPECT_FALSE(none.pass);
}

// Links are followed: one to a folder is a folder, one to nothing is
// missing. A path holding NUL names no file, even though the text before
// the NUL does.
TEST(ChecksTest, FileSystemExistenceFollowsLinksAndTreatsAnUntestablePathAsMissing) {
  testing::TempDir dir;
  testing::writeFile(dir.path() / "a.txt", "x");
  std::filesystem::create_directory_symlink(dir.path(), dir.path() / "folder-link");
  std::filesystem::create_symlink(dir.path() / "gone.txt", dir.path() / "dangling.txt");
  FileSystemExistence fm(systemFileSystem());
  EXPECT_TRUE(fm.exists(dir.str() + "/a.txt"));
  EXPECT_TRUE(fm.isDirectory(dir.str()));
  EXPECT_TRUE(fm.isDirectory(dir.str() + "/folder-link"));
  EXPECT_FALSE(fm.isDirectory(dir.str() + "/a.txt"));
  EXPECT_FALSE(fm.exists(dir.str() + "/dangling.txt"));
  EXPECT_FALSE(fm.exists(dir.str() + "/a.txt" + std::string(1, '\0') + "x"));
  EXPECT_FALSE(fm.exists(dir.str() + "/b.txt"));
}

TEST(ChecksTest, C2WantsTheFinalThirdsTopFilesNamed) {
  struct Case {
    std::vector<std::string> edits;
    std::string handoffText;
    std::optional<int64_t> threshold;
    bool pass;
    std::string detail;
  };
  const std::vector<Case> cases = {
      {{"a.txt", "a.txt", "b.txt"}, "only a.txt here", std::nullopt, false,
       "top 2 by edit count: a.txt (2), b.txt (1); named in handoff: a.txt; 1/2 threshold (min(3, qualifying=2))"},
      {{"a.txt", "a.txt", "b.txt"}, "only a.txt here", 1, true,
       "top 2 by edit count: a.txt (2), b.txt (1); named in handoff: a.txt; 1/1 threshold (min(3, qualifying=2))"},
      {{"a.c", "b.c", "c.c", "d.c", "e.c", "f.c"}, "a.c /r/b.c ./e.c", std::nullopt, true,
       "top 5 by edit count: a.c (1), b.c (1), c.c (1), d.c (1), e.c (1); named in handoff: a.c, b.c, e.c; 3/3 "
       "threshold (min(3, qualifying=5))"},
      {{"./a.txt", "a.txt", "src/"}, "a.txt", std::nullopt, true,
       "top 2 by edit count: ./a.txt (1), a.txt (1); named in handoff: ./a.txt, a.txt; 2/2 threshold (min(3, "
       "qualifying=2))"},
      {{"a.txt"}, "nothing", std::nullopt, false,
       "top 1 by edit count: a.txt (1); named in handoff: none; 0/1 threshold (min(3, qualifying=1))"},
      {{"src/", "./"}, "src/", std::nullopt, false, "top edited files did not canonicalize against root /r"},
  };
  for (const auto& c : cases) {
    const CheckResult r = Checks::c2Coverage(document(c.handoffText), editing(c.edits), kRoot, kHome, c.threshold, 5);
    EXPECT_EQ(r.pass, c.pass) << c.detail;
    EXPECT_EQ(r.detail, c.detail);
    EXPECT_FALSE(r.isVoid);
  }
  const CheckResult none = Checks::c2Coverage(document("a.txt"), editing({}), kRoot, kHome, std::nullopt, 5);
  EXPECT_TRUE(none.isVoid);
  EXPECT_FALSE(none.pass);
  EXPECT_EQ(none.detail,
            "void: no edited files found in final third of transcript (R3: excluded from pass-rate denominators, "
            "never a free pass or a fail)");
}

TEST(ChecksTest, C3WantsEverySectionWithSubstance) {
  struct Case {
    std::string handoffText;
    bool pass;
    std::string detail;
  };
  const std::vector<Case> cases = {
      {handoff("- a.txt", 25), true, "all four sections present, floors met, FILES TOUCHED has a valid path line"},
      {"## DECISIONS\n" + words(24) + "\n## NEXT\n\n", false,
       "missing: STATE; DECISIONS too short (24 words, floor 25); empty: NEXT; missing: FILES TOUCHED"},
      {handoff("src/\n./\n.\n", 30), false,
       "FILES TOUCHED has no valid path line (only empty/'.'/'./'/bare-directory entries)"},
      {handoff("", 30), false, "empty: FILES TOUCHED"},
      {handoff("- nowhere.txt (1 edit)", 30), true,
       "all four sections present, floors met, FILES TOUCHED has a valid path line"},
  };
  for (const auto& c : cases) {
    const CheckResult r = Checks::c3Schema(document(c.handoffText), kRoot, kHome);
    EXPECT_EQ(r.pass, c.pass) << c.handoffText;
    EXPECT_EQ(r.detail, c.detail);
  }
}

TEST(ChecksTest, C4BoundsWordsAndRepetition) {
  struct Case {
    std::string text;
    double floor;
    bool pass;
    std::string detail;
  };
  std::string atFloor = words(60), underFloor = words(59);
  for (int i = 0; i < 140; ++i) atFloor += " W0";
  for (int i = 0; i < 141; ++i) underFloor += " w0";
  std::string repeated;
  for (int i = 0; i < 50; ++i) repeated += "the same line again\n";
  const std::vector<Case> cases = {
      {words(199), 0.3, false, "199 words (bounds 200-2000); distinct-word ratio 1.000 (floor 0.3)"},
      {words(200), 0.3, true, "200 words (bounds 200-2000); distinct-word ratio 1.000 (floor 0.3)"},
      {words(2000), 0.3, true, "2000 words (bounds 200-2000); distinct-word ratio 1.000 (floor 0.3)"},
      {words(2001), 0.3, false, "2001 words (bounds 200-2000); distinct-word ratio 1.000 (floor 0.3)"},
      {repeated, 0.3, false, "200 words (bounds 200-2000); distinct-word ratio 0.020 (floor 0.3)"},
      {atFloor, 0.3, true, "200 words (bounds 200-2000); distinct-word ratio 0.300 (floor 0.3)"},
      {underFloor, 0.3, false, "200 words (bounds 200-2000); distinct-word ratio 0.295 (floor 0.3)"},
      {words(200), 0.25, true, "200 words (bounds 200-2000); distinct-word ratio 1.000 (floor 0.25)"},
      {words(200), 1, true, "200 words (bounds 200-2000); distinct-word ratio 1.000 (floor 1.0)"},
      {"", 0.3, false, "0 words (bounds 200-2000); distinct-word ratio 0.000 (floor 0.3)"},
  };
  for (const auto& c : cases) {
    const CheckResult r = Checks::c4Bounds(document(c.text), 200, 2000, c.floor);
    EXPECT_EQ(r.pass, c.pass) << c.detail;
    EXPECT_EQ(r.detail, c.detail);
  }
  EXPECT_EQ(Checks::c4Bounds(document("a a b"), 0, 10, 0.3).detail,
            "3 words (bounds 0-10); distinct-word ratio 0.667 (floor 0.3)");
}

// Each code point is lower-cased alone: a final capital sigma becomes the
// ordinary small sigma, never the final form.
TEST(ChecksTest, DistinctWordsCompareInFullLowerCase) {
  EXPECT_EQ(Checks::distinctWordRatio(""), 0.0);
  EXPECT_EQ(Checks::distinctWordRatio("A a"), 0.5);
  EXPECT_EQ(Checks::distinctWordRatio("\xCE\xA3\xCE\x91\xCE\xA3 \xCF\x83\xCE\xB1\xCF\x83"), 0.5);  // ΣΑΣ σασ
  EXPECT_EQ(Checks::distinctWordRatio("\xC4\xB0 i\xCC\x87"), 0.5);  // U+0130 is "i" and a dot above
  EXPECT_EQ(Checks::distinctWordRatio("\xC3\x89 e\xCC\x81"), 1.0);  // no normalisation
}

TEST(ChecksTest, OverallPassCountsOnlyChecksThatMeasured) {
  const CheckResult pass{"C", true, "", false}, fail{"C", false, "", false}, voided{"C", false, "", true};
  using V = std::vector<CheckResult>;
  for (const auto& [results, expected] : std::vector<std::pair<V, bool>>{{{}, false},
                                                                          {{voided, voided}, false},
                                                                          {{pass, voided, pass}, true},
                                                                          {{pass, fail}, false},
                                                                          {{voided, fail}, false}})
    EXPECT_EQ(Checks::overallPass(results), expected);
}

TEST(ChecksTest, GradeRunsTheFourChecksAndReportsGroundingBeside) {
  auto fm = disk();
  const auto lines = editing({"a.txt", "b.txt"});
  const std::string body = words(80);
  const std::string good = CloseoutDocument::renderHandoff(body, words(80, 100), words(80, 200), "- a.txt\n- b.txt");
  const Checks::Verdict v = Checks::grade(document(good), kRoot, kHome, lines, std::nullopt, fm);
  EXPECT_TRUE(v.c1.pass && v.c2.pass && v.c3.pass && v.c4.pass) << v.c1.detail << v.c2.detail << v.c4.detail;
  EXPECT_TRUE(v.overallPass);
  EXPECT_EQ(v.disclosure,
            "pass rates are floors on shape and recall, necessary not sufficient; qualitative sampling is X4's job");
  ASSERT_TRUE(v.grounding.has_value());
  EXPECT_TRUE(v.grounding->isVoid);

  // An invented file fails C1 and grounding; C2 turns void without edits and
  // leaves the verdict to the rest.
  const std::string invented = CloseoutDocument::renderHandoff(body, words(80, 100), words(80, 200), "- made/up.txt");
  const Checks::Verdict w = Checks::grade(document(invented), kRoot, kHome, editing({}), std::nullopt, fm);
  EXPECT_TRUE(w.c2.isVoid);
  EXPECT_FALSE(w.c1.pass);
  EXPECT_FALSE(w.overallPass);
  EXPECT_FALSE(w.grounding->pass);
}

}  // namespace
}  // namespace ostler
