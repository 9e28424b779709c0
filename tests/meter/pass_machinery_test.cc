// The machinery that lets the pass run on several threads in bounded memory
// without changing a figure: ordered results, slices, compact id sets and
// bounded top lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "meter/id_set.h"
#include "meter/meter_engine.h"
#include "meter/ordered_work.h"
#include "meter/top_k.h"
#include "support/test_support.h"

namespace ostler {
namespace {

TEST(OrderedWorkTest, HandsResultsBackInIndexOrderWhateverTheThreads) {
  for (size_t threads : {0u, 1u, 2u, 4u}) {
    std::atomic<int> inFlight{0}, maxInFlight{0};
    OrderedWork<int> work(
        200,
        [&](size_t i) {
          int now = ++inFlight;
          int seen = maxInFlight.load();
          while (now > seen && !maxInFlight.compare_exchange_weak(seen, now)) {
          }
          --inFlight;
          return static_cast<int>(i) * 3;
        },
        threads, 4);
    for (size_t i = 0; i < 200; ++i) ASSERT_EQ(work.take(i), static_cast<int>(i) * 3) << threads;
    EXPECT_LE(maxInFlight.load(), std::max<int>(1, static_cast<int>(threads)));
  }
}

// Items made ahead of the consumer stay within the size budget (one item
// always may be made, however large), and within the window.
TEST(OrderedWorkTest, ReadsAheadWithinItsSizeBudget) {
  std::vector<uint64_t> sizes(300);
  for (size_t i = 0; i < sizes.size(); ++i) sizes[i] = i % 10 == 0 ? 50 : 1;  // a large item now and then
  for (size_t threads : {1u, 3u}) {
    std::mutex mutex;
    size_t requested = 0;  // the item the consumer asks for; those past it are ahead
    std::vector<size_t> started;
    uint64_t worstAhead = 0;
    size_t worstCount = 0;
    OrderedWork<int> work(
        sizes.size(),
        [&](size_t i) {
          std::lock_guard lock(mutex);
          started.push_back(i);
          uint64_t ahead = 0;
          size_t count = 0;
          for (size_t j : started)
            if (j > requested) ahead += sizes[j], ++count;
          if (count > 1) worstAhead = std::max(worstAhead, ahead);
          worstCount = std::max(worstCount, count);
          return static_cast<int>(i);
        },
        threads, 8, sizes, 20);
    for (size_t i = 0; i < sizes.size(); ++i) {
      {
        std::lock_guard lock(mutex);
        requested = i;
      }
      ASSERT_EQ(work.take(i), static_cast<int>(i));
    }
    EXPECT_LE(worstAhead, 20u) << threads;
    EXPECT_LE(worstCount, 8u) << threads;
  }
}

TEST(IdSetTest, CountsDistinctIdsThroughGrowth) {
  IdSet set;
  for (int i = 0; i < 50000; ++i) EXPECT_TRUE(set.insert("req_" + std::to_string(i)));
  for (int i = 0; i < 50000; i += 7) EXPECT_FALSE(set.insert("req_" + std::to_string(i)));
  EXPECT_EQ(set.size(), 50000u);
  EXPECT_TRUE(set.contains("req_49999"));
  EXPECT_FALSE(set.contains("req_50000"));
  EXPECT_FALSE(set.contains(""));
  EXPECT_TRUE(set.insert(""));
  EXPECT_TRUE(set.contains(""));
}

struct ByValueThenName {
  bool operator()(const std::pair<int, std::string>& a, const std::pair<int, std::string>& b) const {
    if (a.first != b.first) return a.first > b.first;
    return a.second < b.second;
  }
};

TEST(TopKTest, KeepsWhatAStableSortWouldPutFirst) {
  std::mt19937 rng(3);
  for (int round = 0; round < 200; ++round) {
    std::vector<std::pair<int, std::string>> all;
    TopK<std::pair<int, std::string>, ByValueThenName, 10> top;
    for (int i = 0, n = static_cast<int>(rng() % 40); i < n; ++i) {
      // Few distinct values and names, so that full ties are common.
      std::pair<int, std::string> v{static_cast<int>(rng() % 5), std::string(1, static_cast<char>('a' + rng() % 3))};
      all.push_back(v);
      top.push_back(v);
    }
    std::stable_sort(all.begin(), all.end(), ByValueThenName{});
    if (all.size() > 10) all.resize(10);
    EXPECT_EQ(top.sorted(), all);
  }
}

// A file read in slices gives the same lines, in the same order, as read
// whole, wherever the slice boundaries fall: inside a line, on a line feed,
// or just after one.
TEST(FileSliceTest, DigestInSlicesEqualsDigestWhole) {
  testing::TempDir dir;
  std::string text;
  for (int i = 0; i < 60; ++i) {
    text += R"({"type":"assistant","sessionId":"s)" + std::to_string(i % 3) + R"(","requestId":"r)" +
            std::to_string(i) + R"(","message":{"model":"claude-opus-4","usage":{"output_tokens":)" +
            std::to_string(i) + "}}}";
    text += (i % 7 == 0) ? "\n\n" : "\n";
    if (i % 11 == 0) text += "not json\n";
  }
  text += R"({"type":"assistant","requestId":"last-without-line-feed"})";
  const auto path = dir.path() / "f.jsonl";
  testing::writeFile(path, text);
  // Each line's request id, "!" for a skipped line; line numbers must rise.
  auto read = [&](const std::vector<FileSlice>& slices) {
    std::vector<std::string> ids;
    std::vector<int64_t> numbers;
    for (const FileSlice& slice : slices) {
      FileDigest part = digestFile(path.string(), slice);
      EXPECT_TRUE(part.opened);
      for (const auto& line : part.lines) {
        ids.emplace_back(line.requestId.value_or(line.kind == MeterLine::Kind::kSkipped ? "!" : "-"));
        numbers.push_back(line.lineNumber);
      }
    }
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    return ids;
  };
  const std::vector<std::string> whole = read({FileSlice{0, UINT64_MAX, 0}});
  for (uint64_t sliceBytes : {1u, 7u, 64u, 100u, 333u}) {
    const std::vector<FileSlice> slices = sliceFile(text.size(), sliceBytes);
    // The last slice reads on to the end, however far the file has grown.
    EXPECT_EQ(slices.back().end, UINT64_MAX) << sliceBytes;
    EXPECT_EQ(read(slices), whole) << sliceBytes;
  }
  // No empty slice past an exact multiple; one for an empty file.
  EXPECT_EQ(sliceFile(8, 4).size(), 2u);
  EXPECT_EQ(sliceFile(0, 4).size(), 1u);
}

// Passes sharing one reading give exactly what each gives on its own.
TEST(RunAllTest, SharedReadingEqualsSeparateRuns) {
  testing::TempDir dir;
  if (!testing::generateTree(dir.path(), {"--seed", "5", "--sessions", "10", "--turns", "14", "--resume-rate", "0.3",
                                           "--image-rate", "0.3", "--bad-rate", "0.02"}))
    GTEST_SKIP() << "no transcript generator beside the checkout";
  std::vector<MeterOptions> passes(3);
  for (auto& p : passes) p.root = dir.str();
  passes[1].since = "2026-11-05";
  passes[1].until = "2026-11-12";
  passes[2].sinceInstant = "2026-11-03T12:00:00.000Z";
  passes[2].untilInstant = "2026-11-09T06:30:00Z";
  const std::vector<MeterRun> together = MeterEngine::runAll(passes);
  ASSERT_EQ(together.size(), passes.size());
  for (size_t i = 0; i < passes.size(); ++i) {
    MeterRun alone = MeterEngine::runWithLoopDetail(passes[i]);
    alone.receipt.generated_at = together[i].receipt.generated_at;
    EXPECT_EQ(together[i].receipt, alone.receipt) << i;
    EXPECT_EQ(together[i].loopDetail, alone.loopDetail) << i;
  }
  EXPECT_GT(together[0].receipt.totals.turns, together[1].receipt.totals.turns);

  // Read once, with every session finalised only after the whole tree is
  // counted, the figures stay those of two readings. Repeated commands are
  // among them, and they are the figures the wait is for.
  const std::vector<MeterRun> once = MeterEngine::runAll(passes, nullptr, systemClock(), {true, nullptr});
  for (size_t i = 0; i < passes.size(); ++i) {
    MeterRun r = once[i];
    r.receipt.generated_at = together[i].receipt.generated_at;
    EXPECT_EQ(r.receipt, together[i].receipt) << i;
    EXPECT_EQ(r.loopDetail, together[i].loopDetail) << i;
  }
  const auto& categories = together[0].receipt.mac_first.categories;
  const auto repeats = std::find_if(categories.begin(), categories.end(),
                                    [](const ReceiptCategory& c) { return c.key == "repeat_pipelines"; });
  ASSERT_NE(repeats, categories.end());
  EXPECT_GT(repeats->usd, 0);
}

}  // namespace
}  // namespace ostler
