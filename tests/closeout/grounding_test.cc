#include "closeout/grounding.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "closeout/transcript_reader.h"
#include "fake_file_existence.h"

namespace ostler {
namespace {

constexpr const char* kRoot = "/r";
constexpr const char* kHome = "/h";

CloseoutDocument document(const std::string& files, std::vector<DocUpdate> updates = {}) {
  return {"## STATE\ns\n## FILES TOUCHED\n" + files, std::move(updates), std::nullopt, std::nullopt, std::nullopt};
}

std::string jsonl(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\n";
  return out;
}

std::string toolUse(const std::string& id, const std::string& name, const std::string& path) {
  return R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":")" + id + R"(","name":")" + name +
         R"(","input":{"file_path":")" + path + R"("}}]}})";
}

std::string toolResult(const std::string& id, const std::string& isError) {
  return R"({"type":"user","message":{"content":[{"type":"tool_result","tool_use_id":")" + id + R"(")" +
         (isError.empty() ? "" : R"(,"is_error":)" + isError) + R"(,"content":"ok"}]}})";
}

TEST(GroundingTest, AnchoredContainsFindsThePathAsAWhole) {
  struct Case {
    std::string text, path;
    bool found;
  };
  const std::vector<Case> cases = {
      {"edited a.txt, then", "a.txt", true},
      {"edited a.txt.", "a.txt", false},  // right before a full stop
      {"xa.txt a.txt", "a.txt", true},    // the second occurrence stands alone
      {"src/a.txt", "a.txt", false},
      {"a.txt2", "a.txt", false},
      {"xa a a", "a a", true},            // overlapping occurrences are tried
      {"\xC3\xA9/a.txt", "/a.txt", false},  // a letter before it
      {"\xE2\x86\x92" "a.txt", "a.txt", true},  // an arrow is no path character
      {"(a.txt)", "a.txt", true},
      {"A.TXT", "a.txt", false},
      {"a.txt", "", false},
      {"", "a.txt", false},
  };
  for (const auto& c : cases) EXPECT_EQ(Grounding::anchoredContains(c.text, c.path), c.found) << c.text;
}

TEST(GroundingTest, MachineCorroborationNeedsAResultThatIsNotAnError) {
  const auto lines = TranscriptReader::parseLines(jsonl({
      toolUse("t1", "Read", "ok.txt"),       toolResult("t1", ""),
      toolUse("t2", "Edit", "failed.txt"),   toolResult("t2", "true"),
      toolUse("t3", "Edit", "unanswered.txt"),
      toolUse("t4", "Edit", "retried.txt"),  toolResult("t4", "true"), toolResult("t4", "false"),
      toolUse("t5", "Edit", "first.txt"),    toolUse("t5", "Edit", "second.txt"), toolResult("t5", "null"),
      toolUse("", "Write", "/abs/empty-id.txt"), toolResult("", ""),
      toolUse("t6", "Edit", "bad-flag.txt"), toolResult("t6", "\"false\""),  // a line that does not decode
      toolUse("t7", "Edit", ""),             toolResult("t7", ""),
  }));
  EXPECT_EQ(Grounding::machineCorroboratedPaths(lines, kRoot, kHome),
            (std::set<std::string>{"/r/ok.txt", "/r/retried.txt", "/r/second.txt", "/abs/empty-id.txt"}));
}

TEST(GroundingTest, FailingCitationsAreTheMissingOnesOrTheirMissingTokens) {
  testing::FakeFileExistence fm;
  fm.file("/r/a.txt").folder("/r/docs");
  const auto failing = Grounding::failingCitations(
      document("- a.txt\ndocs/\na.txt, ~/b.txt\nnowhere/"), kRoot, kHome, fm);
  EXPECT_EQ(failing, (std::vector<Grounding::FailingCitation>{{"/b.txt", "/h/b.txt"}, {"nowhere/", std::nullopt}}));
}

TEST(GroundingTest, EvaluateGradesOnlyWhatCanBeGraded) {
  testing::FakeFileExistence fm;
  fm.file("/r/here.txt");
  const auto lines = TranscriptReader::parseLines(jsonl({
      R"({"type":"user","message":{"content":"please look at /r/seen.txt and notes/said.md, not said.md."}})",
      toolUse("t1", "Edit", "deleted.txt"),
      toolResult("t1", "false"),
      R"({"type":"user","message":{"content":[{"type":"tool_result","content":[{"text":"wrote out/result.txt"}]}]}})",
  }));

  const Grounding::Result nothingMissing = Grounding::evaluate(document("here.txt"), kRoot, kHome, lines, fm);
  EXPECT_TRUE(nothingMissing.isVoid);
  EXPECT_FALSE(nothingMissing.pass);
  EXPECT_EQ(nothingMissing.detail, "void: C1 found no missing citations, nothing to ground");

  const Grounding::Result ungradeable =
      Grounding::evaluate(document("./", {{"docs/", "r", "p"}}), kRoot, kHome, lines, fm);
  EXPECT_TRUE(ungradeable.isVoid);
  EXPECT_TRUE(ungradeable.citations.empty());
  EXPECT_EQ(ungradeable.unverifiable, (std::vector<std::string>{"./", "docs/"}));
  EXPECT_EQ(ungradeable.detail,
            "void: every missing citation (2) was unverifiable, nothing gradeable to ground: ./; docs/");

  // seen.txt by its canonical form, notes/said.md and out/result.txt by
  // their raw text (they hold a "/"), deleted.txt by the tool's word; a bare
  // said.md is looked for by its canonical form alone, which the transcript
  // never writes, and invented.txt appears nowhere.
  const Grounding::Result mixed = Grounding::evaluate(
      document("seen.txt\nnotes/said.md\nout/result.txt\ndeleted.txt\nsaid.md\ninvented.txt\n./"), kRoot, kHome,
      lines, fm);
  EXPECT_FALSE(mixed.isVoid);
  EXPECT_FALSE(mixed.pass);
  std::vector<bool> grounded;
  for (const auto& c : mixed.citations) grounded.push_back(c.grounded);
  EXPECT_EQ(grounded, (std::vector<bool>{true, true, true, true, false, false}));
  EXPECT_EQ(mixed.citations[0], (Grounding::CitationVerdict{"seen.txt", "/r/seen.txt", true}));
  EXPECT_EQ(mixed.detail,
            "2/6 missing citation(s) UNGROUNDED (fabrication candidate): said.md; invented.txt; 1 unverifiable "
            "citation(s) excluded from the rate: ./");

  const Grounding::Result allGrounded = Grounding::evaluate(document("seen.txt, deleted.txt"), kRoot, kHome, lines, fm);
  EXPECT_TRUE(allGrounded.pass);
  EXPECT_EQ(allGrounded.detail, "2 missing citation(s), all grounded in transcript content");
  EXPECT_EQ(allGrounded.name, "GROUNDING");
}

}  // namespace
}  // namespace ostler
