// The substitute model keeps the conventions the pipeline's tests rely on.
#include "support/substitute_tier1_runner.h"

#include <gtest/gtest.h>

namespace ostler {
namespace {

using testing::SubstituteTier1Runner;
using Kind = ChunkAttemptOutcome<std::string>::Kind;

TEST(SubstituteTier1RunnerTest, HonoursTheRunnersConventions) {
  SubstituteTier1Runner runner({.contextSize = 1000, .tokenBound = 5});
  EXPECT_EQ(runner.measureTokens(""), 1);
  EXPECT_EQ(runner.summarizeChunk("a b c d e").kind, Kind::kSuccess) << "at the bound";
  EXPECT_EQ(runner.summarizeChunk("a b c d e f").kind, Kind::kTooLarge);
  EXPECT_EQ(runner.summarizeChunk("please [refuse]").reason, "refusal");
  const auto failed = runner.summarizeChunk("please [fail]");
  EXPECT_EQ(failed.kind, Kind::kOtherFailure);
  EXPECT_NE(failed.reason, "refusal");
  EXPECT_EQ(runner.combineBatch({"only"}).value, "only");
  EXPECT_EQ(runner.combineBatch({"a b c", "d e f"}).kind, Kind::kTooLarge) << "six words together";
  EXPECT_EQ(runner.calls(), (std::vector<std::string>{"summarize", "summarize", "summarize", "summarize", "combine"}))
      << "one summary is combined without a call";

  SubstituteTier1Runner roomy;
  const auto summary =
      roomy.summarizeChunk("edit [file touched: src/a.cc] then [file touched: b.h] [file touched: src/a.cc]");
  ASSERT_EQ(summary.kind, Kind::kSuccess);
  const auto handoff = roomy.generateHandoff(*summary.value);
  ASSERT_TRUE(handoff.value.has_value());
  EXPECT_EQ(handoff.value->filesTouched, "- src/a.cc\n- b.h");
}

}  // namespace
}  // namespace ostler
