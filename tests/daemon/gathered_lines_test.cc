// The heavy pass folds the lines gathered on the meter's reading instead of
// reading the tree again; what comes out must be exactly what reading it
// again gives.
#include "daemon/engine/gathered_lines.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "daemon/engine/live_engine.h"
#include "daemon/line_builder.h"
#include "daemon/loop/odometer.h"
#include "daemon/state/persisted_state_codec.h"
#include "daemon/windows/window_scan.h"
#include "support/fake_file_system.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using testing::jsonl;

constexpr const char* kRoot = "/home/dev/projects";
const InstantMs kNow = testing::at("2026-03-10T12:00:00Z");

struct Reading {
  PersistedState state;
  std::optional<FeedDiagnosticsExclusions> exclusions;
  WindowScan::Result scan;
  std::map<std::string, int64_t> freshTokens;
};

Reading readTree(FileSystem& fs, const GatheredLines* gathered) {
  const PricingTable& pricing = PricingTable::defaultTable();
  LiveEngine engine(fs, pricing, "Europe/Berlin");
  (void)engine.poll(kRoot, kNow, nullptr, gathered);
  PersistedState state = engine.snapshotForPersistence(kRoot);
  // The daemon saves from the engine's own fields: the same text as a copy.
  EXPECT_EQ(PersistedStateCodec::encode(engine.persistenceView(kRoot)), PersistedStateCodec::encode(state));
  std::sort(state.seenRequestIds.begin(), state.seenRequestIds.end());  // a set, listed in the order of its table
  return {std::move(state), engine.exclusionsSnapshot(), WindowScan::scan(fs, kRoot, pricing, gathered),
          LiveEngine::freshWindowedTokensByFamily(fs, kRoot, pricing, kNow, "Europe/Berlin", gathered)};
}

void expectSameReading(const Reading& gathered, const Reading& read) {
  EXPECT_EQ(gathered.state, read.state);
  EXPECT_EQ(gathered.exclusions, read.exclusions);
  EXPECT_EQ(gathered.scan.events, read.scan.events);
  EXPECT_EQ(gathered.scan.limitEvents, read.scan.limitEvents);
  EXPECT_EQ(gathered.freshTokens, read.freshTokens);
}

// The meter's reading of the tree, gathering as the daemon's heavy pass does.
void gather(FileSystem& fs, GatheredLines& gathered) {
  const auto receipts = Odometer::lifetimeAndToday(fs, kRoot, PricingTable::defaultTable(), kNow - 86'400'000, kNow,
                                                   nullptr, {.alsoFold = {&gathered}});
  ASSERT_TRUE(receipts.has_value());
}

// The sample tree, a chat resumed from it, a subagent, and what the samples
// lack: limit messages, typed names behind blank lines, lines that only the
// meter or only the engine fails, a torn last line.
void writeTree(testing::FakeFileSystem& fs) {
  testing::copyTree(testing::sourceDir() / "samples" / "projects", fs, kRoot);
  const std::string webshop = std::string(kRoot) + "/-home-ana-code-webshop";
  const std::string resumed = *fs.bytes(webshop + "/3f2a9c1e-7b4d-4e8a-9c2f-1a6b5d8e0f31.jsonl");
  fs.put(webshop + "/resumed.jsonl",
         resumed + jsonl({testing::turnLine("2026-03-10T10:30:00.000Z", "req-new", {.input = 5, .output = 9})}));
  fs.put(webshop + "/resumed/subagents/agent-1.jsonl",
         jsonl({testing::turnLine("2026-03-10T10:31:00.000Z", "req-agent", {.input = 7, .output = 2},
                                  "claude-haiku-4-5")}));
  fs.put(std::string(kRoot) + "/-keys/keys.jsonl",
         jsonl({testing::limitLine("2026-03-10T10:00:00.000Z",
                                   "Claude AI usage limit reached: session limit. resets 3pm (UTC)"),
                "   ", testing::userTextLine("  name\tthis   chat  "),
                testing::limitLine("2026-03-10T11:00:00.000Z", "weekly limit reached"),
                R"({"type":"ai-title","aiTitle":"kept","aiTitle":7})", R"({"type":"custom-title","customTitle":7})",
                R"({"type":"user","uuid":7,"message":{"content":"typed where the meter fails"}})",
                R"({"type":"user","timestamp":"2026-03-10T09:00:00.000Z","message":{"content":[)"
                R"({"type":"image","source":{"data":"QUJDREVGR0g="}},{"type":"tool_result","tool_use_id":7}]}})",
                R"({"type":"assistant","isApiErrorMessage":"yes","requestId":"r-odd"})",
                R"({"type":"assistant","error":"rate_limit","lastPrompt":"go","requestId":"r-err",)"
                R"("timestamp":"2026-03-10T09:00:02.000Z","message":{"model":"claude-sonnet-4-5",)"
                R"("usage":{"input_tokens":3,"output_tokens":4}}})",
                "not json"}) +
             R"({"type":"assistant","requestId":"torn")");
  fs.put(std::string(kRoot) + "/-typed/late.jsonl",
         jsonl({testing::userTextLine(" "), testing::userTextLine("\n\t"), testing::userTextLine("  spaced name"),
                testing::userTextLine("later prompt")}));
}

TEST(GatheredLinesTest, FoldingGatheredLinesEqualsReadingTheTree) {
  testing::FakeFileSystem fs;
  writeTree(fs);
  GatheredLines gathered(Odometer::kGatheredBytes);
  gather(fs, gathered);
  const std::string keys = std::string(kRoot) + "/-keys/keys.jsonl";
  ASSERT_TRUE(gathered.serve(keys, static_cast<int64_t>(fs.bytes(keys)->size())));
  const Reading read = readTree(fs, nullptr);
  EXPECT_FALSE(read.scan.limitEvents.empty());
  EXPECT_GT(read.exclusions->dedup_refusal.count, 0);
  EXPECT_GT(read.exclusions->parse_skip.count, 2);
  expectSameReading(readTree(fs, &gathered), read);

  // A file that grew since it was gathered is read from disk, whole.
  fs.append(keys, jsonl({"", testing::turnLine("2026-03-10T11:30:00.000Z", "req-late", {.input = 5, .output = 9})}));
  EXPECT_FALSE(gathered.serve(keys, static_cast<int64_t>(fs.bytes(keys)->size())));
  expectSameReading(readTree(fs, &gathered), readTree(fs, nullptr));
}

TEST(GatheredLinesTest, FilesPastTheBudgetOrReadInPartAreLeftToDisk) {
  testing::FakeFileSystem fs;
  writeTree(fs);
  // A file whose reading failed part way is served whole or not at all.
  const std::string broken = std::string(kRoot) + "/-typed/late.jsonl";
  fs.failReadsFrom(broken, 20);
  GatheredLines all(Odometer::kGatheredBytes);
  gather(fs, all);
  const size_t budget = all.bytes() / 2;
  GatheredLines small(budget);
  gather(fs, small);
  EXPECT_LE(small.bytes(), budget);
  EXPECT_FALSE(small.serve(broken, static_cast<int64_t>(fs.bytes(broken)->size())));
  size_t served = 0;
  const auto files = SessionDiscovery::discoverFiles(fs, kRoot);
  for (const auto& f : files)
    if (small.serve(f.path, static_cast<int64_t>(fs.bytes(f.path)->size()))) ++served;
  EXPECT_GT(served, 0u);
  EXPECT_LT(served, files.size() - 1);
}

}  // namespace
}  // namespace ostler
