// The closeout engine against the deterministic substitute model: what the
// map consumes and when, how the tree grows and degrades, when a handoff is
// baked, and what a click gives.
#include "closeout/closeout_engine.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "closeout/model/tier1_process_lock.h"
#include "closeout/transcript_reader.h"
#include "fake_file_existence.h"
#include "support/substitute_tier1_runner.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using CloseoutEngine::MapOutcome;
using testing::SubstituteTier1Runner;
using testing::TempDir;
using Kind = MapOutcome::Kind;

// A window of 1,000 tokens: 300 held back, a ceiling of 700 tokens and a
// word budget of 525. The substitute's tokens are words.
constexpr int64_t kBudgetWords = 525;
SubstituteTier1Runner::Options smallWindow() { return {1000, 700, Tier1Availability::available()}; }

std::string words(int64_t n, int64_t from = 0) {
  std::string out;
  for (int64_t i = from; i < from + n; ++i) out += (i > from ? " w" : "w") + std::to_string(i);
  return out;
}

std::string userLine(const std::string& text, const std::string& cwd = "/repo") {
  return R"({"type":"user","cwd":")" + cwd + R"(","message":{"content":")" + text + R"("}})";
}
// A line that holds no chunkable text, only a tool's result.
std::string toolResultLine(const std::string& payload) {
  return R"({"type":"user","message":{"content":[{"type":"tool_result","tool_use_id":"t","content":")" + payload +
         R"("}]}})";
}
std::string editLine(const std::string& path) {
  return R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"e","name":"Edit","input":{"file_path":")" +
         path + R"("}}]}})";
}

// A runner that behaves as the substitute except where a test scripts a
// combine or a handoff.
class ScriptedRunner final : public Tier1Runner {
 public:
  explicit ScriptedRunner(SubstituteTier1Runner::Options options = smallWindow()) : inner_(options) {}

  std::function<std::optional<ChunkAttemptOutcome<std::string>>(const std::vector<std::string>&)> combine;
  std::function<std::optional<ChunkAttemptOutcome<GeneratedHandoffResult>>()> handoff;
  int64_t scriptedCalls = 0;

  int64_t contextSize() override { return inner_.contextSize(); }
  bool tokensAreMeasured() override { return inner_.tokensAreMeasured(); }
  Tier1Availability checkAvailability() override { return inner_.checkAvailability(); }
  int64_t measureTokens(std::string_view text) override { return inner_.measureTokens(text); }
  ChunkAttemptOutcome<std::string> summarizeChunk(std::string_view text) override {
    return inner_.summarizeChunk(text);
  }
  ChunkAttemptOutcome<std::string> combineBatch(const std::vector<std::string>& summaries) override {
    if (combine) {
      if (auto scripted = combine(summaries)) {
        ++scriptedCalls;
        return *scripted;
      }
    }
    return inner_.combineBatch(summaries);
  }
  ChunkAttemptOutcome<GeneratedHandoffResult> generateHandoff(std::string_view summary) override {
    if (handoff) {
      if (auto scripted = handoff()) {
        ++scriptedCalls;
        return *scripted;
      }
    }
    return inner_.generateHandoff(summary);
  }
  std::vector<std::string> calls() { return inner_.calls(); }

 private:
  SubstituteTier1Runner inner_;
};

int64_t count(const std::vector<std::string>& calls, const std::string& call) {
  return std::count(calls.begin(), calls.end(), call);
}

class EngineTest : public ::testing::Test {
 protected:
  CloseoutEngine::Services services(Tier1Runner& runner) {
    CloseoutEngine::Services s{runner, systemFileSystem(), existence, "/home/u"};
    s.lockPath = dir.str() + "/lock/tier1.lock";
    return s;
  }
  std::string transcript() const { return dir.str() + "/s.jsonl"; }
  void write(const std::vector<std::string>& lines) { testing::writeFile(transcript(), testing::jsonl(lines)); }
  void append(const std::vector<std::string>& lines) { testing::appendFile(transcript(), testing::jsonl(lines)); }
  int64_t size() const { return static_cast<int64_t>(std::filesystem::file_size(transcript())); }

  TempDir dir;
  testing::FakeFileExistence existence;
};

TEST_F(EngineTest, MapsOnlyAFullBudgetOfWholeLinesAndLeavesTheRestUnread) {
  EXPECT_TRUE(CloseoutEngine::shouldMap(525, 525));
  EXPECT_FALSE(CloseoutEngine::shouldMap(524, 525));

  // One word short of the budget: nothing is consumed and no model call made.
  SubstituteTier1Runner runner(smallWindow());
  auto s = services(runner);
  write({userLine(words(300)), toolResultLine(words(900)), userLine(words(kBudgetWords - 301, 300))});
  CloseoutEngine::MapResult below = CloseoutEngine::mapIfDue(transcript(), CloseoutStoreState::fresh("s"), s);
  EXPECT_EQ(below.outcome, (MapOutcome{Kind::kBelowBudget, kBudgetWords - 1, kBudgetWords, 0, 0}));
  EXPECT_EQ(below.store, CloseoutStoreState::fresh("s"));
  EXPECT_TRUE(runner.calls().empty());

  // Exactly the budget maps; the tool result, which counts no words, goes
  // with its macro chunk, and a later short line waits.
  write({userLine(words(300)), toolResultLine(words(900)), userLine(words(kBudgetWords - 300, 300))});
  const int64_t closedEnd = size();
  append({userLine(words(10, 1000))});
  CloseoutEngine::MapResult mapped = CloseoutEngine::mapIfDue(transcript(), CloseoutStoreState::fresh("s"), s);
  EXPECT_EQ(mapped.outcome, (MapOutcome{Kind::kMapped, 0, 0, 1, 1}));
  ASSERT_EQ(mapped.store.chunks.size(), 1u);
  EXPECT_EQ(mapped.store.chunks[0].byteStart, 0);
  EXPECT_EQ(mapped.store.chunks[0].byteEnd, closedEnd - 1);
  EXPECT_EQ(mapped.store.chunks[0].summary, "summary of 525 words.");
  EXPECT_EQ(mapped.store.chunks[0].measuredTokens, kBudgetWords);
  EXPECT_EQ(mapped.store.tailOffset, closedEnd);

  // Nothing new, an unreadable transcript, and no model.
  CloseoutEngine::MapResult again = CloseoutEngine::mapIfDue(transcript(), mapped.store, s);
  EXPECT_EQ(again.outcome.kind, Kind::kBelowBudget);
  EXPECT_EQ(again.store, mapped.store);
  EXPECT_EQ(CloseoutEngine::mapIfDue(dir.str() + "/missing.jsonl", CloseoutStoreState::fresh("s"), s).outcome.kind,
            Kind::kNoNewContent);
  CloseoutStoreState atEnd = CloseoutStoreState::fresh("s");
  atEnd.tailOffset = size();
  EXPECT_EQ(CloseoutEngine::mapIfDue(transcript(), atEnd, s).outcome.kind, Kind::kNoNewContent);
  SubstituteTier1Runner absent({1000, 700, Tier1Availability::unavailable(Tier1Availability::kModelNotReady)});
  auto sa = services(absent);
  CloseoutEngine::MapResult none = CloseoutEngine::mapIfDue(transcript(), CloseoutStoreState::fresh("s"), sa);
  EXPECT_EQ(none.outcome.kind, Kind::kNoTier1);
  EXPECT_EQ(none.store, CloseoutStoreState::fresh("s"));
}

TEST_F(EngineTest, AGrowingTranscriptOnlyAddsToTheStoreAndNeverResummarises) {
  ScriptedRunner runner;
  auto s = services(runner);
  write({userLine(words(kBudgetWords)), userLine(words(kBudgetWords, 1000)), userLine(words(kBudgetWords, 2000))});
  CloseoutEngine::BackgroundPassResult first =
      CloseoutEngine::backgroundPass(transcript(), CloseoutStoreState::fresh("s"), s);
  EXPECT_EQ(first.mapOutcome, (MapOutcome{Kind::kMapped, 0, 0, 3, 3}));
  EXPECT_EQ(runner.calls(), (std::vector<std::string>{"summarize", "summarize", "summarize", "combine", "handoff"}));
  EXPECT_EQ(first.reduceModelCalls, 2);  // the tree's combine and the bake's handoff
  EXPECT_EQ(first.store.treeCoveredChunkCount(), 3);
  ASSERT_TRUE(first.store.bakedArtifact.has_value());

  append({userLine(words(kBudgetWords, 3000)), userLine(words(kBudgetWords + 5, 4000))});
  CloseoutEngine::BackgroundPassResult second = CloseoutEngine::backgroundPass(transcript(), first.store, s);
  EXPECT_EQ(second.mapOutcome, (MapOutcome{Kind::kMapped, 0, 0, 2, 2}));
  const std::vector<std::string> calls = runner.calls();
  EXPECT_EQ(count(calls, "summarize"), 5) << "closed summaries must not be made again";
  EXPECT_EQ(second.store.chunks.size(), 5u);
  EXPECT_TRUE(std::equal(first.store.chunks.begin(), first.store.chunks.end(), second.store.chunks.begin()));
  EXPECT_EQ(second.store.chunks[4].summary, "summary of 530 words.");
  EXPECT_EQ(second.store.treeCoveredChunkCount(), 5);
  EXPECT_EQ(second.store.tailOffset, size());
  EXPECT_EQ(second.store.bakedArtifact->sourceTailOffset, size());
  EXPECT_EQ(second.reduceModelCalls, static_cast<int64_t>(calls.size()) - 5 - 2);
}

TEST_F(EngineTest, FailedPiecesAreRecordedInPlaceAndPassedOverForGood) {
  ScriptedRunner runner;
  auto s = services(runner);
  // A refused macro chunk, then one of 1,401 words that the window cuts
  // into pieces of 700, 350 and 351 words, the second failing.
  std::string cut = words(1401);
  cut.replace(cut.find("w800 "), 5, "[fail] ");
  write({userLine("[refuse] " + words(kBudgetWords)), userLine(cut)});
  const int64_t refusedEnd = static_cast<int64_t>(testing::readFile(transcript()).find('\n'));
  CloseoutEngine::MapResult mapped = CloseoutEngine::mapIfDue(transcript(), CloseoutStoreState::fresh("s"), s);
  EXPECT_EQ(mapped.outcome, (MapOutcome{Kind::kMapped, 0, 0, 2, 4}));
  ASSERT_EQ(mapped.store.failures.size(), 2u);
  EXPECT_EQ(mapped.store.failures[0], (CloseoutChunkFailure{0, refusedEnd, mapped.store.failures[0].contentHash,
                                                            CloseoutFailureKind::kRefusal, 1, 1}));
  EXPECT_EQ(mapped.store.failures[1].kind, CloseoutFailureKind::kOther);
  EXPECT_EQ(mapped.store.failures[1].pieceIndex, 2);
  EXPECT_EQ(mapped.store.failures[1].pieceCount, 3);
  ASSERT_EQ(mapped.store.chunks.size(), 2u);
  EXPECT_EQ(mapped.store.chunks[0].index, 0);
  EXPECT_EQ(mapped.store.chunks[0].pieceIndex, 1);
  EXPECT_EQ(mapped.store.chunks[0].measuredTokens, 700);
  EXPECT_EQ(mapped.store.chunks[1].index, 1);
  EXPECT_EQ(mapped.store.chunks[1].pieceIndex, 3);
  EXPECT_EQ(mapped.store.chunks[1].pieceCount, 3);
  EXPECT_EQ(mapped.store.chunks[0].contentHash, mapped.store.chunks[1].contentHash);
  EXPECT_EQ(mapped.store.chunks[1].byteStart, refusedEnd + 1);
  EXPECT_EQ(mapped.store.tailOffset, size());
  // Nothing is retried: the refused text lies behind the offset.
  EXPECT_EQ(CloseoutEngine::mapIfDue(transcript(), mapped.store, s).outcome.kind, Kind::kNoNewContent);

  // A single word too large for the window fails at the floor.
  SubstituteTier1Runner tiny({1000, 0, Tier1Availability::available()});
  auto st = services(tiny);
  write({userLine(words(kBudgetWords))});
  CloseoutEngine::MapResult floor = CloseoutEngine::mapIfDue(transcript(), CloseoutStoreState::fresh("s"), st);
  EXPECT_TRUE(floor.store.chunks.empty());
  ASSERT_FALSE(floor.store.failures.empty());
  for (const CloseoutChunkFailure& f : floor.store.failures)
    EXPECT_EQ(f.kind, CloseoutFailureKind::kExceededContextWindowSizeAtFloor);
}

TEST_F(EngineTest, AFailedCombineDegradesItsNodeAndTheTreeGoesOn) {
  const auto refuse = [](const std::vector<std::string>&) {
    return std::optional(ChunkAttemptOutcome<std::string>::otherFailure("refusal"));
  };
  ScriptedRunner runner;
  runner.combine = refuse;
  auto s = services(runner);
  write({userLine(words(kBudgetWords)), userLine(words(kBudgetWords, 1000))});
  CloseoutEngine::BackgroundPassResult pass =
      CloseoutEngine::backgroundPass(transcript(), CloseoutStoreState::fresh("s"), s);
  ASSERT_EQ(pass.store.tree.levels.size(), 1u);
  const CloseoutTree::Node& root = pass.store.tree.levels[0].nodes.at(0);
  EXPECT_TRUE(root.degraded);
  EXPECT_EQ(root.summary, "summary of 525 words. summary of 525 words.");
  ASSERT_EQ(pass.store.reduceFailures.size(), 1u);
  EXPECT_EQ(pass.store.reduceFailures[0].kind, CloseoutFailureKind::kRefusal);
  EXPECT_EQ(pass.store.degradedNodeCount(), 1);
  // The bake still came, and its document counts the degraded node.
  ASSERT_TRUE(pass.store.bakedArtifact.has_value());
  EXPECT_EQ(pass.store.bakedArtifact->document.degradation_count, 1);
  EXPECT_EQ(pass.store.bakedArtifact->document.map_failure_count, 0);
}

TEST(TreeCombineTest, TooLargeSplitsDownToAPairThenFallsBack) {
  ScriptedRunner runner;
  runner.combine = [](const std::vector<std::string>& summaries) -> std::optional<ChunkAttemptOutcome<std::string>> {
    if (summaries.size() > 2 || summaries[0].size() > 1) return ChunkAttemptOutcome<std::string>::tooLarge();
    return std::nullopt;
  };
  int64_t calls = 0;
  // Fewer than two need no model.
  EXPECT_EQ(CloseoutEngine::treeCombine({}, runner, calls).summary, "");
  EXPECT_EQ(CloseoutEngine::treeCombine({"only"}, runner, calls).summary, "only");
  EXPECT_EQ(calls, 0);

  // Three too large: split as [a] and [b, c]; the pair fits and the final
  // pair of "a" and that result does too.
  CloseoutTree::Combined three = CloseoutEngine::treeCombine({"a", "b", "c"}, runner, calls);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(three.summary, "combined 2 summaries.");
  EXPECT_FALSE(three.degradedKind.has_value());

  // A pair too large ends after its one request, in the joined fallback.
  calls = 0;
  CloseoutTree::Combined pair = CloseoutEngine::treeCombine({"long one", "two"}, runner, calls);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(pair.summary, "long one two");
  EXPECT_EQ(pair.degradedKind, CloseoutFailureKind::kExceededContextWindowSizeAtFloor);

  // A degraded part marks the whole, and a fallback is cut to 2,000
  // characters, not bytes.
  runner.combine = [](const std::vector<std::string>&) {
    return std::optional(ChunkAttemptOutcome<std::string>::otherFailure("server gone"));
  };
  std::string accented;
  for (int i = 0; i < 1500; ++i) accented += "\xC3\xA9";
  CloseoutTree::Combined cut = CloseoutEngine::treeCombine({accented, accented}, runner, calls);
  EXPECT_EQ(cut.degradedKind, CloseoutFailureKind::kOther);
  EXPECT_EQ(cut.summary.size(), 2u * 1500 + 1 + 2u * 499);
  runner.combine = [](const std::vector<std::string>& summaries) -> std::optional<ChunkAttemptOutcome<std::string>> {
    if (summaries.size() > 2) return ChunkAttemptOutcome<std::string>::tooLarge();
    if (summaries[0] == "a") return ChunkAttemptOutcome<std::string>::otherFailure("refusal");
    return std::nullopt;
  };
  EXPECT_EQ(CloseoutEngine::treeCombine({"a", "b", "c", "d"}, runner, calls).degradedKind,
            CloseoutFailureKind::kRefusal);
}

TEST_F(EngineTest, ABakeComesOnlyWhenLessThan15000BytesAreLeftUnread) {
  // The remainder is one line of tool output, which holds no words, of a
  // chosen length with its line feed.
  const auto remainderOf = [](int64_t bytes) {
    const std::string shell = toolResultLine("");
    return toolResultLine(std::string(static_cast<size_t>(bytes) - shell.size() - 1, 'x'));
  };
  for (const int64_t remainder : {int64_t{15'000}, int64_t{14'999}}) {
    ScriptedRunner runner;
    auto s = services(runner);
    write({userLine(words(kBudgetWords)), remainderOf(remainder)});
    CloseoutEngine::BackgroundPassResult pass =
        CloseoutEngine::backgroundPass(transcript(), CloseoutStoreState::fresh("s"), s);
    EXPECT_EQ(size() - pass.store.tailOffset, remainder);
    EXPECT_EQ(pass.store.bakedArtifact.has_value(), remainder < 15'000) << remainder;
    EXPECT_EQ(count(runner.calls(), "handoff"), remainder < 15'000 ? 1 : 0) << remainder;
    if (remainder >= 15'000) continue;
    const CloseoutBakedArtifact& baked = *pass.store.bakedArtifact;
    EXPECT_EQ(baked.sourceTailOffset, pass.store.tailOffset);
    EXPECT_EQ(pass.store.lastGenerationAttemptTailOffset, pass.store.tailOffset);
    EXPECT_EQ(baked.document.cost->tier, "tier1");
    EXPECT_FALSE(baked.document.cost->tokens_are_proxy);
    EXPECT_EQ(baked.document.map_failure_count, 0);
    EXPECT_NE(baked.document.handoff.find("## STATE\nState of a chat summarised in"), std::string::npos);
    EXPECT_FALSE(baked.verdict.overallPass) << "a handoff of a few words fails its bounds";
  }
}

TEST_F(EngineTest, AFailedBakeIsRecordedOncePerTailAndDoesNotHoldBackAClick) {
  ScriptedRunner runner;
  runner.handoff = [] { return std::optional(ChunkAttemptOutcome<GeneratedHandoffResult>::otherFailure("refusal")); };
  auto s = services(runner);
  write({userLine(words(kBudgetWords)), userLine(words(kBudgetWords, 1000))});
  CloseoutEngine::BackgroundPassResult pass =
      CloseoutEngine::backgroundPass(transcript(), CloseoutStoreState::fresh("s"), s);
  EXPECT_FALSE(pass.store.bakedArtifact.has_value());
  EXPECT_EQ(pass.store.generationFailures,
            (std::vector<CloseoutGenerationFailure>{
                {CloseoutFailureKind::kRefusal, "reduce step produced no closeout document"}}));
  EXPECT_EQ(pass.store.lastGenerationAttemptTailOffset, pass.store.tailOffset);

  runner.handoff = nullptr;
  const std::vector<TranscriptLine> lines = TranscriptReader::parseLines(testing::readFile(transcript()));
  CloseoutEngine::ClickOutcome clicked = CloseoutEngine::click(transcript(), pass.store, "/repo", lines, s);
  ASSERT_EQ(clicked.kind, CloseoutEngine::ClickOutcome::Kind::kSucceeded) << clicked.reason;
  EXPECT_EQ(clicked.result->mapCallsMade, 0);
  EXPECT_EQ(clicked.result->reduceCallsMade, 0);
  EXPECT_EQ(clicked.result->handoffCallsMade, 1);
  EXPECT_EQ(clicked.result->store.bakedArtifact->document, clicked.result->document);

  // Without a working folder in the transcript a bake is recorded as failed,
  // and the tail is left open to another try.
  write({userLine(words(kBudgetWords), ""), userLine(words(kBudgetWords, 1000), "")});
  const std::string rootless = dir.str() + "/rootless.jsonl";
  std::filesystem::rename(transcript(), rootless);
  CloseoutEngine::BackgroundPassResult noRoot =
      CloseoutEngine::backgroundPass(rootless, CloseoutStoreState::fresh("r"), s);
  EXPECT_EQ(
      noRoot.store.generationFailures,
      (std::vector<CloseoutGenerationFailure>{{CloseoutFailureKind::kOther, "repo root not found in transcript"}}));
  EXPECT_FALSE(noRoot.store.lastGenerationAttemptTailOffset.has_value());
}

TEST_F(EngineTest, AClickSummarisesTheRemainderAndGradesTheHandoff) {
  ScriptedRunner runner;
  auto s = services(runner);
  existence.file("/repo/src/a.cc");
  std::vector<TranscriptLine> lines;
  const auto clickOn = [&](const CloseoutStoreState& store) {
    return CloseoutEngine::click(transcript(), store, "/repo", lines, s);
  };

  testing::writeFile(transcript(), "");
  EXPECT_EQ(clickOn(CloseoutStoreState::fresh("s")).kind, CloseoutEngine::ClickOutcome::Kind::kNoChunksYet);

  // Below the budget, one chunk and so no tree: the handoff is made from
  // that chunk's summary, and an unterminated last line stays unread.
  write({userLine(words(20)), userLine(words(5, 100)), editLine("src/a.cc")});
  lines = TranscriptReader::parseLines(testing::readFile(transcript()));
  const int64_t whole = size();
  testing::appendFile(transcript(), userLine("still being written"));
  CloseoutEngine::ClickOutcome clicked = clickOn(CloseoutStoreState::fresh("s"));
  ASSERT_EQ(clicked.kind, CloseoutEngine::ClickOutcome::Kind::kSucceeded) << clicked.reason;
  const CloseoutEngine::ClickResult& result = *clicked.result;
  EXPECT_EQ(runner.calls(), (std::vector<std::string>{"summarize", "handoff"}));
  EXPECT_EQ(result.mapCallsMade, 1);
  EXPECT_EQ(result.store.tailOffset, whole);
  EXPECT_TRUE(result.store.tree.levels.empty());
  EXPECT_NE(result.document.handoff.find("## FILES TOUCHED\n- src/a.cc"), std::string::npos);
  EXPECT_TRUE(result.verdict.c1.pass) << result.verdict.c1.detail;
  EXPECT_TRUE(result.verdict.c2.pass) << result.verdict.c2.detail;
  EXPECT_EQ(result.store.bakedArtifact->sourceTailOffset, whole);

  // A handoff that cannot be made drops the store's changes with it.
  runner.handoff = [] { return std::optional(ChunkAttemptOutcome<GeneratedHandoffResult>::tooLarge()); };
  CloseoutEngine::ClickOutcome failed = clickOn(CloseoutStoreState::fresh("s"));
  EXPECT_EQ(failed.kind, CloseoutEngine::ClickOutcome::Kind::kFailed);
  EXPECT_EQ(failed.reason, "reduce step produced no closeout document");
  EXPECT_FALSE(failed.result.has_value());

  SubstituteTier1Runner absent({1000, 700, Tier1Availability::unavailable(Tier1Availability::kModelNotReady)});
  auto sa = services(absent);
  CloseoutEngine::ClickOutcome none =
      CloseoutEngine::click(transcript(), CloseoutStoreState::fresh("s"), "/repo", {}, sa);
  EXPECT_EQ(none.kind, CloseoutEngine::ClickOutcome::Kind::kNoTier1);
  EXPECT_EQ(none.reason, Tier1Availability::kModelNotReady);
  EXPECT_TRUE(absent.calls().empty());
}

TEST_F(EngineTest, RepoRootIsTheFirstWorkingFolderInTheHeadOfTheTranscript) {
  FileSystem& fs = systemFileSystem();
  const auto file = [&](const std::string& name, const std::string& text) {
    testing::writeFile(dir.path() / name, text);
    return dir.str() + "/" + name;
  };
  std::string head = "not json\n[1]\n{\"cwd\":5}\n{\"cwd\":\"\"}\n{\"type\":\"user\"}\n";
  for (int i = 5; i < 29; ++i) head += "{}\n";
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, file("line30.jsonl", head + "{\"cwd\":\"/a\"}\n{\"cwd\":\"/b\"}\n")), "/a");
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, file("line30b.jsonl", head + "{}\n{\"cwd\":\"/late\"}\n"), 30), std::nullopt);

  // A first line longer than the head's cap: the whole file is read.
  const std::string huge = "{\"pad\":\"" + std::string(70'000, 'x') + "\"}\n";
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, file("huge.jsonl", huge + "{\"cwd\":\"/deep\"}\n")), "/deep");
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, file("huge-bad.jsonl", huge + "{\"cwd\":\"/d\xC3\x28\"}\n")), std::nullopt);
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, dir.str() + "/missing.jsonl"), std::nullopt);

  // A root found is kept; a root not found is looked for again.
  const std::string later = file("later.jsonl", "{}\n");
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, later), std::nullopt);
  testing::writeFile(later, "{\"cwd\":\"/now\"}\n");
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, later), "/now");
  testing::writeFile(later, "{\"cwd\":\"/changed\"}\n");
  EXPECT_EQ(CloseoutEngine::repoRoot(fs, later), "/now");
}

TEST_F(EngineTest, AClickInAnotherProcessWaitsForTheModelLockAndGivesItBack) {
  write({userLine(words(30))});
  const std::string lockPath = dir.str() + "/lock/tier1.lock";
  const std::string marker = dir.str() + "/clicked";
  const int32_t held = Tier1ProcessLock::acquireBlocking(lockPath);
  ASSERT_GE(held, 0);
  const pid_t child = ::fork();
  if (child == 0) {
    SubstituteTier1Runner runner(smallWindow());
    auto s = services(runner);
    const auto outcome = CloseoutEngine::click(transcript(), CloseoutStoreState::fresh("s"), "/repo", {}, s);
    testing::writeFile(marker, std::to_string(runner.calls().size()));
    ::_exit(outcome.kind == CloseoutEngine::ClickOutcome::Kind::kSucceeded ? 0 : 1);
  }
  ASSERT_GT(child, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(std::filesystem::exists(marker)) << "the click ran while another process held the model";
  Tier1ProcessLock::release(held);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(testing::readFile(marker), "2");

  // Here too the lock is free again once the click is over.
  SubstituteTier1Runner runner(smallWindow());
  auto s = services(runner);
  ASSERT_EQ(CloseoutEngine::click(transcript(), CloseoutStoreState::fresh("s"), "/repo", {}, s).kind,
            CloseoutEngine::ClickOutcome::Kind::kSucceeded);
  const int fd = ::open(lockPath.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
  ::close(fd);
}

}  // namespace
}  // namespace ostler
