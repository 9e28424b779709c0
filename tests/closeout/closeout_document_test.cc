#include "closeout/closeout_document.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "closeout/checks.h"

namespace ostler {
namespace {

TEST(CloseoutDocumentTest, RendersTheFourSectionsAndFindsThemAgain) {
  const std::string handoff =
      CloseoutDocument::renderHandoff("  state one\n\n", "\tdecided\n", "next", "\n- a.txt\n- b.txt\n");
  EXPECT_EQ(handoff,
            "## STATE\nstate one\n\n## DECISIONS\ndecided\n\n## NEXT\nnext\n\n## FILES TOUCHED\n- a.txt\n- b.txt");
  EXPECT_EQ(CloseoutDocument::section("STATE", handoff), "state one");
  EXPECT_EQ(CloseoutDocument::section("FILES TOUCHED", handoff), "- a.txt\n- b.txt");
  EXPECT_EQ(CloseoutDocument::renderHandoff("", "", "", ""),
            "## STATE\n\n\n## DECISIONS\n\n\n## NEXT\n\n\n## FILES TOUCHED\n");
}

TEST(CloseoutDocumentTest, SectionsStartAtTrimmedHeadingsAndEndAtTwoHashes) {
  struct Case {
    std::string handoff;
    std::optional<std::string> state;
  };
  const std::vector<Case> cases = {
      {"## STATE  \t\nbody\n## NEXT\nx", "body"},           // trailing blanks on the heading
      {"  ## STATE\nbody", "body"},                          // leading ones too
      {"## STATE\na\n### sub\nb\n## NEXT", "a\n### sub\nb"},  // three hashes do not end it
      {"## STATE\na\n ## NEXT\nb", "a\n ## NEXT\nb"},         // an indented "## " does not either
      {"## STATE\na\n##NEXT\nb\n## NEXT", "a\n##NEXT\nb"},
      {"## STATE\n\n  \n## NEXT", ""},
      {"## STATE", ""},
      {"## STATES\nbody", std::nullopt},
      {"##  STATE\nbody", std::nullopt},
      {"## STATE\r\nbody\r\n", std::nullopt},  // CR LF: no heading reads as one
      {"## NEXT\n## STATE\nfirst\n## STATE\nsecond", "first"},
  };
  for (const auto& c : cases) EXPECT_EQ(CloseoutDocument::section("STATE", c.handoff), c.state) << c.handoff;
}

TEST(CloseoutDocumentTest, EncodesSortedAndDecodesWhatItEncodes) {
  CostRecord cost{"tier1", 1200, 340, std::nullopt, 5, std::nullopt, std::nullopt, 12.5, true, std::nullopt,
                  "apple-on-device", std::nullopt};
  const CloseoutDocument document = CloseoutDocument::assemble(
      {"## STATE\nx", {{"docs/a.md", "why", "+ line"}}}, cost, 2, 0);
  auto pretty = document.encodedJSON(true);
  ASSERT_TRUE(pretty.ok());
  const std::string& text = pretty.value();
  EXPECT_LT(text.find("\"cost\""), text.find("\"degradation_count\""));
  EXPECT_LT(text.find("\"doc_updates\""), text.find("\"handoff\""));
  EXPECT_EQ(text.find("cache_read_tokens"), std::string::npos);  // absent stays absent
  EXPECT_NE(text.find("\n  \"handoff\""), std::string::npos);
  auto compact = document.encodedJSON(false);
  ASSERT_TRUE(compact.ok());
  EXPECT_EQ(compact.value().find('\n'), std::string::npos);
  for (const auto& bytes : {pretty.value(), compact.value()}) {
    auto decoded = CloseoutDocument::decode(bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error().message;
    EXPECT_EQ(decoded.value(), document);
  }

  CloseoutDocument infinite = document;
  infinite.cost->usd = std::numeric_limits<double>::infinity();
  EXPECT_FALSE(infinite.encodedJSON(true).ok());
}

TEST(CloseoutDocumentTest, DecodingRefusesMissingAndMistypedFields) {
  const std::vector<std::string> bad = {
      "",
      "[]",
      R"({"doc_updates":[]})",
      R"({"handoff":null,"doc_updates":[]})",
      R"({"handoff":"h"})",
      R"({"handoff":"h","doc_updates":[{"path":"a","rationale":"r"}]})",
      R"({"handoff":"h","doc_updates":[],"cost":{"tier":"t","input_tokens":1,"output_tokens":2,"wall_seconds":1}})",
      R"({"handoff":"h","doc_updates":[],"cost":{"tier":"t","input_tokens":1.5,"output_tokens":2,)"
      R"("wall_seconds":1,"tokens_are_proxy":false}})",
      R"({"handoff":"h","doc_updates":[],"degradation_count":"2"})",
  };
  for (const auto& bytes : bad) EXPECT_FALSE(CloseoutDocument::decode(bytes).ok()) << bytes;
  auto lenient = CloseoutDocument::decode(
      R"({"handoff":"h","doc_updates":[],"cost":null,"map_failure_count":null,"extra":[1,2]})");
  ASSERT_TRUE(lenient.ok());
  EXPECT_FALSE(lenient.value().cost.has_value());

  EXPECT_TRUE(ModelFacingOutput::decode(R"({"handoff":"h","doc_updates":[]})").ok());
  EXPECT_FALSE(ModelFacingOutput::decode(R"({"handoff":"h"})").ok());
}

TEST(CloseoutDocumentTest, DocUpdatesComeAsAListOrInsideADocument) {
  const std::vector<DocUpdate> expected = {{"a.md", "r", "p"}, {"b.md", "s", "q"}};
  const std::string list = R"([{"path":"a.md","rationale":"r","patch":"p"},{"path":"b.md","rationale":"s","patch":"q"}])";
  auto fromList = decodeDocUpdates(list);
  ASSERT_TRUE(fromList.ok());
  EXPECT_EQ(fromList.value(), expected);
  auto fromDocument = decodeDocUpdates(R"({"handoff":"h","doc_updates":)" + list + "}");
  ASSERT_TRUE(fromDocument.ok());
  EXPECT_EQ(fromDocument.value(), expected);
  for (const std::string bytes : {R"({"doc_updates":[]})", "5", R"([{"path":"a.md"}])", "[1]", "{"})
    EXPECT_FALSE(decodeDocUpdates(bytes).ok()) << bytes;
  EXPECT_TRUE(decodeDocUpdates("[]").ok());
}

TEST(VerdictJsonTest, WritesVoidAlwaysAndReadsItsAbsenceAsFalse) {
  Checks::Verdict verdict;
  verdict.c1 = {"C1", true, "1 path(s) checked, all exist under root /r", false};
  verdict.c2 = {"C2", false, "void: nothing", true};
  verdict.c3 = {"C3", false, "missing: STATE", false};
  verdict.c4 = {"C4", true, "250 words", false};
  verdict.grounding = Grounding::Result{"GROUNDING", {{"b.txt", "/r/b.txt", false}}, {"./"}, false, false, "1/1"};
  auto json = verdict.encodedJSON(true);
  ASSERT_TRUE(json.ok());
  EXPECT_NE(json.value().find("\"void\": false"), std::string::npos);
  EXPECT_NE(json.value().find("\"overall_pass\": false"), std::string::npos);
  auto decoded = Checks::Verdict::decode(json.value());
  ASSERT_TRUE(decoded.ok()) << decoded.error().message;
  EXPECT_EQ(decoded.value(), verdict);

  auto noVoid = Checks::Verdict::decode(
      R"({"c1":{"name":"C1","pass":true,"detail":"d"},"c2":{"name":"C2","pass":true,"detail":"d","void":true},)"
      R"("c3":{"name":"C3","pass":true,"detail":"d"},"c4":{"name":"C4","pass":true,"detail":"d"},)"
      R"("overall_pass":true,"disclosure":"x"})");
  ASSERT_TRUE(noVoid.ok());
  EXPECT_FALSE(noVoid.value().c1.isVoid);
  EXPECT_TRUE(noVoid.value().c2.isVoid);
  EXPECT_FALSE(noVoid.value().grounding.has_value());
}

}  // namespace
}  // namespace ostler
