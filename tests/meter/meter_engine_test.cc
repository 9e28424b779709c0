#include "meter/meter_engine.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/fake_file_system.h"
#include "support/transcript_tree.h"

namespace ostler {

void PrintTo(const MeterProgress& p, std::ostream* os) {
  *os << "{" << p.filesProcessed << ", " << p.totalFiles << ", " << p.tokensMetered << "}";
}

namespace {

using namespace testing;
using testing::json;  // not ostler::json

const std::string kOpus = "claude-opus-4-5";

struct Recorder {
  std::vector<MeterProgress> reports;
  FakeClock clock{testing::kOrigin};
  double advancePerReport = 0;  // seconds the clock moves after each report

  Receipt run(const MeterOptions& options) {
    return MeterEngine::run(
        systemFileSystem(), options,
        [this](const MeterProgress& p) {
          reports.push_back(p);
          clock.advance(advancePerReport);
        },
        clock);
  }
};

TEST(MeterEngineTest, ProgressReportsTheFirstAndLastOfEachPass) {
  Tree none;
  Recorder empty;
  empty.run(none.options());
  EXPECT_TRUE(empty.reports.empty());

  Tree one;
  one.main("-p", "s1", {assistant("a", kOpus, {.input = 3, .output = 4}, at(0))});
  Recorder single;
  single.run(one.options());
  EXPECT_EQ(single.reports, (std::vector<MeterProgress>{{1, 1, 0}, {1, 1, 7}}));

  Tree three;
  for (int i : {1, 2, 3})
    three.main("-p", fmt::format("s{}", i), {assistant(fmt::format("r{}", i), kOpus, {.output = 10 * (i + 1)}, at(i))});
  three.subagent("-p", "s1", "agent-1", {assistant("b", kOpus, {.output = 10}, at(0))});

  // With the clock standing still, the reports between first and last fall.
  Recorder still;
  still.run(three.options());
  EXPECT_EQ(still.reports, (std::vector<MeterProgress>{{1, 4, 0}, {4, 4, 0}, {4, 4, 30}, {4, 4, 100}}));

  // With time passing, every file of pass one and every group of pass two.
  Recorder moving;
  moving.advancePerReport = 0.25;
  moving.run(three.options());
  EXPECT_EQ(moving.reports, (std::vector<MeterProgress>{
                                {1, 4, 0}, {2, 4, 0}, {3, 4, 0}, {4, 4, 0}, {4, 4, 30}, {4, 4, 60}, {4, 4, 100}}));
}

TEST(MeterEngineTest, SessionIdsAreNotedOnEveryDecodedLine) {
  json other = assistant("a2", kOpus, {.output = 1'000}, at(1));
  other["sessionId"] = "resumed-id";
  json first = assistant("a1", kOpus, {.output = 1'000}, at(0));
  first["sessionId"] = "original-id";
  Tree tree;
  tree.main("-p", "s1", {first, other, json{{"sessionId", "no-type-id"}}});
  // Only out of range: no turn and no session, though its id is noted.
  json old = assistant("b1", kOpus, {.output = 1'000}, "2026-01-01T00:00:00Z");
  old["sessionId"] = "old-id";
  tree.main("-p", "s2", {old});
  testing::appendFile(tree.root() / "-p" / "s2.jsonl", "{\"sessionId\":\"skipped-id\",\"type\":7}\n \t\n\r\n");
  MeterOptions o = tree.options();
  o.since = "2026-11-01";
  const Receipt r = tree.run(o);
  EXPECT_EQ(r.totals.sessions, 1);
  EXPECT_EQ(r.flags.distinct_files, 1);
  EXPECT_EQ(r.flags.files_with_multiple_session_ids, 1);
  EXPECT_EQ(r.flags.distinct_session_ids, 4);  // original, resumed, no-type and old
  EXPECT_EQ(r.flags.skipped_lines, 2);  // a lone carriage return is no blank line; spaces and tabs are
  EXPECT_EQ(r.period.from, "2026-11-01");
  EXPECT_EQ(r.period.to, at(1));
}

// The checks every receipt must pass, whatever the tree.
void expectConsistent(const Receipt& r) {
  EXPECT_NEAR(r.fair_usd + r.waste.total_usd + r.mac_first.total_usd, r.totals.spent_usd, 2e-6);
  double waste = 0, macFirst = 0;
  for (const auto& c : r.waste.categories) waste += c.usd;
  for (const auto& c : r.mac_first.categories) macFirst += c.usd;
  EXPECT_NEAR(waste, r.waste.total_usd, 3e-6);
  EXPECT_NEAR(macFirst, r.mac_first.total_usd, 2e-6);
  const auto& d = r.waste.diagnostics_raw_usd;
  const double raw[] = {d.overweight, d.duplicate_reads, d.oversized_dumps, d.cache_expiry};
  for (size_t i = 0; i < 4; ++i) EXPECT_LE(r.waste.categories[i].usd, raw[i] + 1e-6) << r.waste.categories[i].key;
  const double rawMac[] = {d.media_reads, d.repeat_pipelines, d.downshift};
  for (size_t i = 0; i < 3; ++i)
    EXPECT_LE(r.mac_first.categories[i].usd, rawMac[i] + 1e-6) << r.mac_first.categories[i].key;
  double byModel = 0, byDay = 0;
  for (const auto& m : r.by_model) byModel += m.spent_usd;
  for (const auto& day : r.by_day) byDay += day.spent_usd;
  EXPECT_NEAR(byModel, r.totals.spent_usd, 1e-6 * double(r.by_model.size() + 1));
  EXPECT_NEAR(byDay, r.totals.spent_usd, 1e-6 * double(r.by_day.size() + 1));
}

TEST(MeterEngineTest, GeneratedTreesKeepThePartitionOfSpend) {
  if (!testing::haveShared()) GTEST_SKIP() << "no shared fixtures beside the checkout";
  for (int seed : {11, 12, 13}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TempDir dir;
    ASSERT_TRUE(testing::generateTree(dir.path(), {"--seed", std::to_string(seed), "--sessions", "6", "--turns", "12",
                                                   "--image-kb", "8", "--end", "2026-11-20"}));
    MeterOptions o;
    o.root = dir.str();
    const Receipt r = MeterEngine::run(systemFileSystem(), o);
    ASSERT_GT(r.totals.turns, 0);
    EXPECT_GT(r.waste.total_usd + r.mac_first.total_usd, 0.0);
    expectConsistent(r);

    MeterOptions window = o;
    window.sinceInstant = "2026-11-10T00:00:00Z";
    window.until = "2026-11-15";
    const Receipt windowed = MeterEngine::run(systemFileSystem(), window);
    expectConsistent(windowed);
    EXPECT_LT(windowed.totals.turns, r.totals.turns);
  }
}

// Passes sharing one reading give exactly what each gives on its own, and
// a reading shared with another fold, which holds the sessions waiting for
// pass one within a budget, gives what two readings give. The sample tree,
// with a chat resumed into another project, has repeated commands, images,
// a subagent and requests counted twice; repeated commands are the figures
// the wait is for.
TEST(RunAllTest, SharedReadingsEqualSeparateRuns) {
  testing::FakeFileSystem fs;
  const std::string root = "/home/ana/.claude/projects";
  copyTree(sourceDir() / "samples" / "projects", fs, root);
  const std::string chat = "3f2a9c1e-7b4d-4e8a-9c2f-1a6b5d8e0f31.jsonl";
  fs.put(root + "/-home-ana-code-resumed/" + chat, *fs.bytes(root + "/-home-ana-code-webshop/" + chat));
  std::vector<MeterOptions> passes(3);
  for (auto& p : passes) p.root = root;
  passes[1].since = "2026-11-16";
  passes[1].until = "2026-11-17";
  passes[2].sinceInstant = "2026-11-16T09:00:00.000Z";
  passes[2].untilInstant = "2026-11-18T12:00:00Z";
  const std::vector<MeterRun> together = *MeterEngine::runAll(fs, passes);
  ASSERT_EQ(together.size(), passes.size());
  for (size_t i = 0; i < passes.size(); ++i) {
    MeterRun alone = MeterEngine::runWithLoopDetail(fs, passes[i]);
    alone.receipt.generated_at = together[i].receipt.generated_at;
    EXPECT_EQ(together[i].receipt, alone.receipt) << i;
    EXPECT_EQ(together[i].loopDetail, alone.loopDetail) << i;
  }
  EXPECT_GT(together[0].receipt.totals.turns, together[1].receipt.totals.turns);
  EXPECT_GT(together[0].receipt.flags.duplicate_request_id_lines_skipped, 0);
  const auto& categories = together[0].receipt.mac_first.categories;
  const auto repeats = std::find_if(categories.begin(), categories.end(),
                                    [](const ReceiptCategory& c) { return c.key == "repeat_pipelines"; });
  ASSERT_NE(repeats, categories.end());
  EXPECT_GT(repeats->usd, 0);

  IdleFold other;
  for (uint64_t holdBytes : {uint64_t{0}, uint64_t{10'000}, MeterReading::kDefaultHoldBytes}) {
    const std::vector<MeterRun> held =
        *MeterEngine::runAll(fs, passes, nullptr, systemClock(), {.alsoFold = {&other}, .holdBytes = holdBytes});
    for (size_t i = 0; i < passes.size(); ++i) {
      MeterRun r = held[i];
      r.receipt.generated_at = together[i].receipt.generated_at;
      EXPECT_EQ(r.receipt, together[i].receipt) << i << " holding " << holdBytes;
      EXPECT_EQ(r.loopDetail, together[i].loopDetail) << i << " holding " << holdBytes;
    }
  }
}

TEST(MeterEngineTest, SessionsOfOneIdAreReadInTheOrderOfTheirProjects) {
  Tree tree;
  // The same request in two projects counts once, in the project read first.
  tree.main("-a-first", "x", {assistant("R", "claude-opus-4-5", {.output = 1'000}, at(0))});
  tree.main("-b-second", "x", {assistant("R", "claude-haiku-4-5", {.output = 1'000}, at(0)),
                               assistant("S", "claude-haiku-4-5", {.output = 1'000}, at(1))});
  // A chat whose top-level file is gone still counts when it has turns.
  tree.subagent("-b-second", "y", "agent-1", {assistant("T", "claude-haiku-4-5", {.output = 1'000}, at(2))});
  const Receipt r = tree.run();
  EXPECT_EQ(r.totals.sessions, 3);
  EXPECT_EQ(r.by_model, (std::vector<ReceiptByModel>{{"claude-opus-4-5", 1, 0.025}, {"claude-haiku-4-5", 2, 0.01}}));
  EXPECT_EQ(r.flags.duplicate_request_id_lines_skipped, 1);
  EXPECT_EQ(r.flags.subagent_turns, 1);
}

}  // namespace
}  // namespace ostler
