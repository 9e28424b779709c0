// Cutting text to a model's window: the budget, word and measured chunks,
// halving on "too large", and reducing summaries by levels.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "closeout/adaptive_halving.h"
#include "closeout/chunker.h"
#include "closeout/tree_reduce.h"
#include "closeout/word_split.h"

namespace ostler {
namespace {

// `n` distinct words.
std::string wordsOf(int n, const std::string& stem = "w") {
  std::string out;
  for (int i = 0; i < n; ++i) {
    if (i > 0) out += ' ';
    out.append(stem).append(std::to_string(i));
  }
  return out;
}

int64_t wordCount(std::string_view s) { return WordSplit::wordCount(s); }

TEST(ChunkerTest, BudgetDerivesReserveCeilingAndWords) {
  struct Case {
    Chunker::Budget budget;
    int64_t reserve, ceiling, words;
  };
  const std::vector<Case> cases = {
      {{4096, 0.15, 300, 0.75}, 614, 3482, 2611},
      {{1000, 0.15, 300, 0.75}, 300, 700, 525},  // the floor rules
      {{200, 0.15, 300, 0.75}, 300, 1, 0},       // a window smaller than the reserve
      {{10, 0.25, 0, 1.0}, 3, 7, 7},             // 2.5 rounds away from zero
      {{4096, 0.15, 300, 1'000'000}, 614, 3482, 3'482'000'000},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.budget.reserveTokens(), c.reserve) << c.budget.contextSize;
    EXPECT_EQ(c.budget.tokenCeiling(), c.ceiling) << c.budget.contextSize;
    EXPECT_EQ(c.budget.words(), c.words) << c.budget.contextSize;
  }
}

TEST(ChunkerTest, ChunksRunsOfWordsAndNormalisesWhiteSpace) {
  using V = std::vector<std::string>;
  const Chunker::Budget two{1000, 0.0, 997, 0.75};  // 3 tokens left: 2 words
  EXPECT_EQ(Chunker::chunk(" a\tb\n\nc d  e ", two), (V{"a b", "c d", "e"}));
  EXPECT_EQ(Chunker::chunk(" \n\t ", two), V{});
  const Chunker::Budget none{200, 0.15, 300, 0.75};  // 0 words: runs of one
  EXPECT_EQ(Chunker::chunk("a b c", none), (V{"a", "b", "c"}));
}

TEST(ChunkerTest, MeasuredChunksHalveOverTheCeilingDownToTheFloor) {
  // One token per word; a window leaving a ceiling of 10 tokens, and a word
  // budget so large that the first cut is the whole text.
  const Chunker::Budget budget{310, 0.0, 300, 1'000'000};
  ASSERT_EQ(budget.tokenCeiling(), 10);
  int64_t measured = 0;
  const Chunker::Measure measure = [&](std::string_view s) {
    ++measured;
    return wordCount(s);
  };
  struct Case {
    int words;
    int64_t floor;
    std::vector<int64_t> chunkWords, splits;
    int64_t measures;
  };
  const std::vector<Case> cases = {
      {10, 3, {10}, {}, 1},                         // exactly the ceiling is not cut
      {11, 3, {5, 6}, {11}, 3},                     // one token more is
      {40, 40, {40}, {}, 1},                        // at the floor: kept whole, over the ceiling
      {41, 40, {20, 21}, {41}, 3},                  // one word above it is halved
      {23, 3, {5, 6, 6, 6}, {23, 11, 12}, 7},       // left half first
  };
  for (const auto& c : cases) {
    measured = 0;
    const auto out = Chunker::chunkByMeasuredTokens(wordsOf(c.words), budget, c.floor, measure);
    std::vector<int64_t> sizes;
    for (const auto& chunk : out.chunks) sizes.push_back(wordCount(chunk));
    EXPECT_EQ(sizes, c.chunkWords) << c.words;
    EXPECT_EQ(out.splitEvents, c.splits) << c.words;
    EXPECT_EQ(measured, c.measures) << c.words;
  }
  // The words stay in text order: of 23, the second piece holds w5 to w10.
  EXPECT_EQ(Chunker::chunkByMeasuredTokens(wordsOf(23), budget, 3, measure).chunks.at(1), "w5 w6 w7 w8 w9 w10");
}

TEST(AdaptiveHalvingTest, HalvesOnTooLargeUntilTheFloor) {
  using Outcome = ChunkAttemptOutcome<int64_t>;
  // Never fits: 81 words halve into 40 (at the floor) and 41, which halves
  // into 20 and 21.
  const auto never = AdaptiveHalving::run<int64_t>(wordsOf(81), 40, [](std::string_view) { return Outcome::tooLarge(); });
  EXPECT_TRUE(never.results.empty());
  EXPECT_EQ(never.splits, (std::vector<AdaptiveHalving::SplitEvent>{{81}, {41}}));
  ASSERT_EQ(never.failures.size(), 3u);
  EXPECT_EQ(never.failures[0].reason, "exceededContextWindowSize at floor (40 words)");
  EXPECT_EQ(never.failures[0].text, wordsOf(40));
  EXPECT_EQ(never.failures[1].reason, "exceededContextWindowSize at floor (20 words)");
  EXPECT_EQ(never.failures[2].reason, "exceededContextWindowSize at floor (21 words)");

  // Pieces of up to 20 words fit, but one holding w3 is refused, which no
  // cut cures; one failing half does not stop the other.
  std::vector<std::string> attempted;
  const auto mixed = AdaptiveHalving::run<int64_t>(wordsOf(60), 10, [&](std::string_view s) {
    attempted.emplace_back(s);
    if (wordCount(s) > 20) return Outcome::tooLarge();
    if (s.find("w3 ") != std::string_view::npos) return Outcome::otherFailure("refusal");
    return Outcome::success(wordCount(s));
  });
  EXPECT_EQ(mixed.splits, (std::vector<AdaptiveHalving::SplitEvent>{{60}, {30}, {30}}));
  EXPECT_EQ(mixed.results, (std::vector<int64_t>{15, 15, 15}));
  ASSERT_EQ(mixed.failures.size(), 1u);
  EXPECT_EQ(mixed.failures[0], (AdaptiveHalving::FailedChunk{wordsOf(15), "refusal"}));
  EXPECT_EQ(attempted.size(), 7u);  // 60, 30, 15, 15, 30, 15, 15: each once

  const auto fits = AdaptiveHalving::run<std::string>("  a   b ", 40, [](std::string_view s) {
    return ChunkAttemptOutcome<std::string>::success(std::string(s));
  });
  EXPECT_EQ(fits.results, (std::vector<std::string>{"  a   b "}));
}

TEST(TreeReduceTest, ReducesByLevelsAndForcesALevelThatCannotProgress) {
  std::vector<std::vector<std::string>> combined;
  // A summary of a batch: the first letter of each of its items.
  const TreeReduce::CombineBatch combine = [&](const std::vector<std::string>& batch) {
    combined.push_back(batch);
    std::string out;
    for (const auto& s : batch) out += s.substr(0, 1);
    return out;
  };
  int64_t measured = 0;
  const Chunker::Measure length = [&](std::string_view s) {
    ++measured;
    return static_cast<int64_t>(s.size());
  };

  auto none = TreeReduce::reduce({}, length, 10, combine);
  auto one = TreeReduce::reduce({"only"}, length, 10, combine);
  EXPECT_EQ(none.result, "");
  EXPECT_EQ(one.result, "only");
  EXPECT_TRUE(none.levels.empty() && one.levels.empty() && combined.empty());
  EXPECT_EQ(measured, 0);

  // 4 + 4 fit in 10, the third starts a batch; the two results then fit.
  auto three = TreeReduce::reduce({"aaaa", "bbbb", "ccc"}, length, 10, combine);
  EXPECT_EQ(three.result, "ac");
  EXPECT_EQ(three.levels, (std::vector<TreeReduce::LevelInfo>{{3, {2, 1}}, {2, {2}}}));
  EXPECT_EQ(combined, (std::vector<std::vector<std::string>>{{"aaaa", "bbbb"}, {"ccc"}, {"ab", "c"}}));

  combined.clear();
  auto big = TreeReduce::reduce({"xxxxxxxxxxx", "yyyyyyyyyyy", "zzzzzzzzzzz"}, length, 10, combine);
  EXPECT_EQ(big.levels, (std::vector<TreeReduce::LevelInfo>{{3, {1, 1, 1}}}));
  EXPECT_EQ(combined.size(), 1u);
  EXPECT_EQ(big.result, "xyz");

  // An item exactly filling the ceiling closes nothing; one token more does.
  EXPECT_EQ(TreeReduce::packBatches({"aaaaa", "bbbbb", "c"}, length, 10), (std::vector<int64_t>{2, 1}));
  EXPECT_EQ(TreeReduce::packBatches({"aaaaa", "bbbbbb"}, length, 10), (std::vector<int64_t>{1, 1}));
}

}  // namespace
}  // namespace ostler
