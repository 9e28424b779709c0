#include "closeout/closeout_engine.h"

#include <algorithm>
#include <utility>

#include "closeout/adaptive_halving.h"
#include "closeout/chunker.h"
#include "closeout/code_points.h"
#include "closeout/model/tier1_serializer.h"
#include "closeout/transcript_reader.h"
#include "closeout/word_split.h"

namespace ostler::CloseoutEngine {
namespace {

// Holds the model for one stage: the serializer within this process, then
// the lock between processes, given up in the opposite order however the
// stage ends.
class ModelHold {
 public:
  explicit ModelHold(const std::string& lockPath) {
    Tier1Serializer::shared().acquire();
    fd_ = Tier1ProcessLock::acquireAsync(lockPath, kLockPollNs);
  }
  ~ModelHold() {
    Tier1ProcessLock::release(fd_);
    Tier1Serializer::shared().release();
  }
  ModelHold(const ModelHold&) = delete;
  ModelHold& operator=(const ModelHold&) = delete;

 private:
  int32_t fd_ = -1;
};

struct MacroChunk {
  std::vector<CloseoutTailReader::Line> lines;
  int64_t byteStart = 0;
  int64_t byteEnd = 0;
};

struct PieceOutcome {
  bool success = false;
  std::string text;     // the piece attempted
  std::string summary;  // on success
  std::string reason;   // on failure
};

struct HandoffGeneration {
  bool succeeded = false;
  ClickResult result;  // when succeeded: document, verdict, reduce calls and store
  CloseoutFailureKind kind = CloseoutFailureKind::kOther;
  std::string reason;
  int64_t handoffCalls = 0;
  int64_t reduceCalls = 0;
};

// A run's tally, for progress reports.
struct RunTally {
  Services& services;
  int64_t calls = 0;
  int64_t macroChunksDone = 0;
  int64_t macroChunksTotal = 0;

  void report() const {
    if (services.onProgress) services.onProgress({macroChunksDone, macroChunksTotal, calls});
  }
};

// The summarisable words of one line, read by itself.
int64_t chunkableWords(const std::string& lineText) {
  const std::vector<TranscriptLine> parsed = TranscriptReader::parseLines(lineText);
  return WordSplit::wordCount(TranscriptReader::chunkableText(parsed));
}

std::optional<std::vector<CloseoutTailReader::Line>> readTail(FileSystem& fs, const std::string& path, int64_t offset) {
  std::optional<CloseoutTailReader> reader = CloseoutTailReader::open(fs, path, offset, kTailReadSize);
  if (!reader) return std::nullopt;
  std::vector<CloseoutTailReader::Line> lines = reader->readAvailableLines();
  reader->close();
  return lines;
}

// Whole lines gathered into chunks of at least `budgetWords` chunkable
// words: a chunk closes on the line that reaches the budget. What is left
// open at the end is closed only when `forceRemainder` is set; otherwise
// those lines stay unread until more arrive.
std::vector<MacroChunk> closeMacroChunks(const std::vector<CloseoutTailReader::Line>& lines, int64_t budgetWords,
                                         bool forceRemainder) {
  std::vector<MacroChunk> out;
  MacroChunk open;
  int64_t words = 0;
  const auto close = [&] {
    open.byteStart = open.lines.front().byteStart;
    open.byteEnd = open.lines.back().byteEnd;
    out.push_back(std::move(open));
    open = MacroChunk{};
    words = 0;
  };
  for (const CloseoutTailReader::Line& line : lines) {
    open.lines.push_back(line);
    words += chunkableWords(line.text);
    if (words >= budgetWords) close();
  }
  if (forceRemainder && !open.lines.empty()) close();
  return out;
}

// `AdaptiveHalving` keeping successes and failures in one list in text
// order, so that each piece keeps its place among its macro chunk's pieces.
void processPieceOrdered(std::string_view text, int64_t floorWords,
                         const std::function<ChunkAttemptOutcome<std::string>(std::string_view)>& attempt,
                         std::vector<PieceOutcome>& out) {
  ChunkAttemptOutcome<std::string> outcome = attempt(text);
  switch (outcome.kind) {
    case ChunkAttemptOutcome<std::string>::Kind::kSuccess:
      out.push_back({true, std::string(text), std::move(*outcome.value), {}});
      return;
    case ChunkAttemptOutcome<std::string>::Kind::kOtherFailure:
      out.push_back({false, std::string(text), {}, std::move(outcome.reason)});
      return;
    case ChunkAttemptOutcome<std::string>::Kind::kTooLarge: break;
  }
  const int64_t words = WordSplit::wordCount(text);
  if (words <= floorWords) {
    out.push_back(
        {false, std::string(text), {}, "exceededContextWindowSize at floor (" + std::to_string(words) + " words)"});
    return;
  }
  const WordSplit::Halves halves = WordSplit::halve(text);
  processPieceOrdered(halves.first, floorWords, attempt, out);
  processPieceOrdered(halves.second, floorWords, attempt, out);
}

// Summarises each macro chunk into chunks (or failures) of the store, and
// moves the tail offset past the last one: the only place it moves. A
// failed piece's text is passed over for good.
int64_t processMacroChunks(const std::vector<MacroChunk>& macroChunks, const Chunker::Budget& budget,
                           CloseoutStoreState& store, RunTally& tally) {
  Tier1Runner& runner = tally.services.runner;
  const Chunker::Measure measure = [&runner](std::string_view text) { return runner.measureTokens(text); };
  // Measured tokens alone decide the cut: the word budget already shaped
  // the macro chunk, so the first cut takes it whole.
  Chunker::Budget measuredOnly = budget;
  measuredOnly.wordsPerToken = 1'000'000;
  int64_t chunksAdded = 0;
  tally.macroChunksTotal += static_cast<int64_t>(macroChunks.size());
  tally.report();
  for (const MacroChunk& macro : macroChunks) {
    std::string joined;
    for (const CloseoutTailReader::Line& line : macro.lines) {
      if (!joined.empty()) joined += '\n';
      joined += line.text;
    }
    const std::string sourceText = TranscriptReader::chunkableText(TranscriptReader::parseLines(joined));
    const std::string contentHash = CloseoutChunk::hash(sourceText);
    std::vector<std::string> pieces =
        Chunker::chunkByMeasuredTokens(sourceText, measuredOnly, kFloorWords, measure).chunks;
    if (pieces.empty()) pieces.push_back(sourceText);

    std::vector<PieceOutcome> outcomes;
    const auto attempt = [&](std::string_view text) {
      ++tally.calls;
      ChunkAttemptOutcome<std::string> outcome = runner.summarizeChunk(text);
      tally.report();
      return outcome;
    };
    for (const std::string& piece : pieces) processPieceOrdered(piece, kFloorWords, attempt, outcomes);

    const auto pieceCount = static_cast<int64_t>(outcomes.size());
    for (int64_t i = 0; i < pieceCount; ++i) {
      PieceOutcome& outcome = outcomes[static_cast<size_t>(i)];
      if (outcome.success) {
        store.chunks.push_back({static_cast<int64_t>(store.chunks.size()), macro.byteStart, macro.byteEnd,
                                runner.measureTokens(outcome.text), std::move(outcome.summary), contentHash, i + 1,
                                pieceCount});
        ++chunksAdded;
      } else {
        store.failures.push_back({macro.byteStart, macro.byteEnd, contentHash,
                                  CloseoutFailure::classify(outcome.reason), i + 1, pieceCount});
      }
    }
    ++tally.macroChunksDone;
    tally.report();
  }
  if (!macroChunks.empty()) store.tailOffset = macroChunks.back().byteEnd + 1;
  return chunksAdded;
}

// The tree grown over the chunks it does not cover yet; the model calls
// this took.
int64_t extendTreeIfDirty(CloseoutStoreState& store, Tier1Runner& runner, int64_t& runCalls) {
  if (!store.isDirty()) return 0;
  const auto covered = static_cast<size_t>(store.treeCoveredChunkCount());
  std::vector<std::string> oldHashes, oldSummaries, newHashes, newSummaries;
  for (size_t i = 0; i < store.chunks.size(); ++i) {
    const CloseoutChunk& chunk = store.chunks[i];
    (i < covered ? oldHashes : newHashes).push_back(chunk.leafIdentityHash());
    (i < covered ? oldSummaries : newSummaries).push_back(chunk.summary);
  }
  int64_t calls = 0;
  const Chunker::Budget budget = budgetFor(runner.contextSize());
  CloseoutTree::BuildOutcome grown = CloseoutTree::appendLeavesTrackingDegradation(
      store.tree, oldHashes, oldSummaries, newHashes, newSummaries,
      [&runner](std::string_view text) { return runner.measureTokens(text); }, budget.tokenCeiling(),
      [&](const std::vector<std::string>& summaries) { return treeCombine(summaries, runner, calls); });
  store.tree = std::move(grown.tree);
  store.reduceFailures.insert(store.reduceFailures.end(), grown.reduceFailures.begin(), grown.reduceFailures.end());
  runCalls += calls;
  return calls;
}

// Several handoffs (from halves of a summary too large for one request) as
// one: sections joined by blank lines, files by line feeds.
GeneratedHandoffResult mergeHandoffResults(std::vector<GeneratedHandoffResult> results) {
  if (results.size() == 1) return std::move(results.front());
  GeneratedHandoffResult merged;
  const auto join = [](std::string& into, const std::string& part, std::string_view separator) {
    into += separator;
    into += part;
  };
  for (size_t i = 0; i < results.size(); ++i) {
    GeneratedHandoffResult& r = results[i];
    if (i == 0) {
      merged = std::move(r);
      continue;
    }
    join(merged.state, r.state, "\n\n");
    join(merged.decisions, r.decisions, "\n\n");
    join(merged.next, r.next, "\n\n");
    join(merged.filesTouched, r.filesTouched, "\n");
    merged.docUpdates.insert(merged.docUpdates.end(), r.docUpdates.begin(), r.docUpdates.end());
  }
  return merged;
}

// The tree brought up to date, a handoff generated from its root, and the
// handoff graded.
HandoffGeneration generateAndGradeHandoff(CloseoutStoreState store, std::string_view root,
                                          std::span<const TranscriptLine> transcriptLines, RunTally& tally) {
  Services& services = tally.services;
  HandoffGeneration out;
  out.reduceCalls = extendTreeIfDirty(store, services.runner, tally.calls);
  tally.report();

  std::string rootSummary;
  if (const CloseoutTree::Node* node = store.tree.rootNode()) {
    rootSummary = node->summary;
  } else if (store.chunks.size() == 1) {
    rootSummary = store.chunks.front().summary;
  } else {
    out.reason = "no root summary available";
    return out;
  }

  AdaptiveHalving::Outcome<GeneratedHandoffResult> generated =
      AdaptiveHalving::run<GeneratedHandoffResult>(rootSummary, kFloorWords, [&](std::string_view text) {
        ++out.handoffCalls;
        ++tally.calls;
        ChunkAttemptOutcome<GeneratedHandoffResult> outcome = services.runner.generateHandoff(text);
        tally.report();
        return outcome;
      });
  if (generated.results.empty()) {
    out.kind = generated.failures.empty() ? CloseoutFailureKind::kOther
                                          : CloseoutFailure::classify(generated.failures.front().reason);
    out.reason = "reduce step produced no closeout document";
    return out;
  }
  GeneratedHandoffResult merged = mergeHandoffResults(std::move(generated.results));

  CostRecord cost;
  cost.tier = "tier1";
  cost.cache_read_tokens = 0;
  cost.cache_write_tokens = 0;
  cost.tokens_are_proxy = !services.runner.tokensAreMeasured();
  CloseoutDocument document = CloseoutDocument::assemble(
      {CloseoutDocument::renderHandoff(merged.state, merged.decisions, merged.next, merged.filesTouched),
       std::move(merged.docUpdates)},
      cost, store.degradedNodeCount(), static_cast<int64_t>(store.failures.size()));
  Checks::Verdict verdict =
      Checks::grade(document, root, services.home, transcriptLines, std::nullopt, services.fileExistence);

  out.succeeded = true;
  out.result.document = std::move(document);
  out.result.verdict = std::move(verdict);
  out.result.reduceCallsMade = out.reduceCalls;
  out.result.handoffCallsMade = out.handoffCalls;
  out.result.store = std::move(store);
  return out;
}

// A handoff made ahead of any click, when the tree is current, little is
// left unread and this tail has not been tried. The model calls it took.
int64_t bakeIfReady(const std::string& transcriptPath, CloseoutStoreState& store, RunTally& tally) {
  Services& services = tally.services;
  if (store.chunks.empty()) return 0;
  if (store.treeCoveredChunkCount() < static_cast<int64_t>(store.chunks.size())) return 0;
  Result<FileInfo> info = services.fs.stat(transcriptPath);
  const int64_t size = info ? static_cast<int64_t>(info.value().size) : 0;
  if (size - std::clamp<int64_t>(store.tailOffset, 0, size) >= kBakeRemainderBytes) return 0;
  if (store.bakedArtifact && store.bakedArtifact->sourceTailOffset == store.tailOffset) return 0;
  if (store.lastGenerationAttemptTailOffset == store.tailOffset) return 0;
  if (!services.runner.checkAvailability().isAvailable) return 0;

  const std::optional<std::string> root = repoRoot(services.fs, transcriptPath, kRepoRootHeadLines);
  if (!root) {
    // The attempt is not noted against this tail: a root that turns up
    // later (a file still being written) lets the next pass try again.
    store.generationFailures.push_back({CloseoutFailureKind::kOther, "repo root not found in transcript"});
    return 0;
  }
  Result<std::vector<TranscriptLine>> lines = TranscriptReader::parseLines(services.fs, transcriptPath);
  const std::vector<TranscriptLine> transcriptLines = lines ? std::move(lines).value() : std::vector<TranscriptLine>{};

  HandoffGeneration generated;
  {
    const ModelHold hold(services.lockPath);
    generated = generateAndGradeHandoff(store, *root, transcriptLines, tally);
  }
  const int64_t tailOffset = store.tailOffset;
  if (generated.succeeded) {
    store = std::move(generated.result.store);
    store.bakedArtifact =
        CloseoutBakedArtifact{std::move(generated.result.document), std::move(generated.result.verdict), tailOffset};
  } else {
    store.generationFailures.push_back({generated.kind, generated.reason});
  }
  store.lastGenerationAttemptTailOffset = tailOffset;
  return generated.reduceCalls + generated.handoffCalls;
}

// The fallback for a combine that failed: the summaries themselves, joined
// and cut to the cap.
std::string degradedSummary(const std::vector<std::string>& summaries) {
  std::string joined;
  for (size_t i = 0; i < summaries.size(); ++i) {
    if (i > 0) joined += ' ';
    joined += summaries[i];
  }
  size_t at = 0;
  for (size_t n = 0; n < kDegradedSummaryCap && at < joined.size(); ++n) at += CodePoints::decodeAt(joined, at).length;
  joined.resize(at);
  return joined;
}

}  // namespace

Chunker::Budget budgetFor(int64_t contextSize) {
  Chunker::Budget budget;
  budget.contextSize = contextSize;
  budget.reserveFraction = kReserveFraction;
  budget.reserveFloor = kReserveFloor;
  budget.wordsPerToken = kWordsPerToken;
  return budget;
}

CloseoutTree::Combined treeCombine(const std::vector<std::string>& summaries, Tier1Runner& runner, int64_t& calls) {
  if (summaries.size() < 2) return {summaries.empty() ? std::string() : summaries.front(), std::nullopt};
  ++calls;
  ChunkAttemptOutcome<std::string> outcome = runner.combineBatch(summaries);
  switch (outcome.kind) {
    case ChunkAttemptOutcome<std::string>::Kind::kSuccess: return {std::move(*outcome.value), std::nullopt};
    case ChunkAttemptOutcome<std::string>::Kind::kOtherFailure:
      return {degradedSummary(summaries), CloseoutFailure::classify(outcome.reason)};
    case ChunkAttemptOutcome<std::string>::Kind::kTooLarge: break;
  }
  // A pair is the floor. Its halves are single summaries, which combine to
  // themselves without the model, so combining their results would only
  // send the same request again: a pair too large ends here, after its one
  // request, in the fallback. Every longer list splits into strictly
  // shorter ones and a final pair, so the recursion always ends.
  if (summaries.size() == 2) {
    return {degradedSummary(summaries), CloseoutFailureKind::kExceededContextWindowSizeAtFloor};
  }
  const auto middle = static_cast<std::ptrdiff_t>(summaries.size() / 2);
  const CloseoutTree::Combined first =
      treeCombine(std::vector<std::string>(summaries.begin(), summaries.begin() + middle), runner, calls);
  const CloseoutTree::Combined second =
      treeCombine(std::vector<std::string>(summaries.begin() + middle, summaries.end()), runner, calls);
  CloseoutTree::Combined last = treeCombine({first.summary, second.summary}, runner, calls);
  if (first.degradedKind) {
    last.degradedKind = first.degradedKind;
  } else if (second.degradedKind) {
    last.degradedKind = second.degradedKind;
  }
  return last;
}

MapResult mapIfDue(const std::string& transcriptPath, CloseoutStoreState store, Services& services) {
  MapResult out{{}, std::move(store)};
  if (!services.runner.checkAvailability().isAvailable) {
    out.outcome.kind = MapOutcome::Kind::kNoTier1;
    return out;
  }
  std::optional<std::vector<CloseoutTailReader::Line>> lines =
      readTail(services.fs, transcriptPath, out.store.tailOffset);
  if (!lines || lines->empty()) return out;  // no new content

  const Chunker::Budget budget = budgetFor(services.runner.contextSize());
  const int64_t budgetWords = budget.words();
  int64_t accumulated = 0;
  for (const CloseoutTailReader::Line& line : *lines) accumulated += chunkableWords(line.text);
  if (!shouldMap(accumulated, budgetWords)) {
    out.outcome = {MapOutcome::Kind::kBelowBudget, accumulated, budgetWords, 0, 0};
    return out;
  }

  const ModelHold hold(services.lockPath);
  const std::vector<MacroChunk> macroChunks = closeMacroChunks(*lines, budgetWords, /*forceRemainder=*/false);
  if (macroChunks.empty()) return out;
  RunTally tally{services};
  const int64_t added = processMacroChunks(macroChunks, budget, out.store, tally);
  out.outcome = {MapOutcome::Kind::kMapped, 0, 0, added, tally.calls};
  return out;
}

BackgroundPassResult backgroundPass(const std::string& transcriptPath, CloseoutStoreState store, Services& services) {
  MapResult mapped = mapIfDue(transcriptPath, std::move(store), services);
  BackgroundPassResult out{mapped.outcome, 0, std::move(mapped.store)};
  if (mapped.outcome.kind != MapOutcome::Kind::kMapped) return out;
  if (!services.runner.checkAvailability().isAvailable) return out;

  RunTally tally{services};
  {
    const ModelHold hold(services.lockPath);
    extendTreeIfDirty(out.store, services.runner, tally.calls);
  }
  bakeIfReady(transcriptPath, out.store, tally);
  out.reduceModelCalls = tally.calls;
  return out;
}

ClickOutcome click(const std::string& transcriptPath, CloseoutStoreState store, std::string_view root,
                   std::span<const TranscriptLine> transcriptLines, Services& services) {
  ClickOutcome out;
  const Tier1Availability availability = services.runner.checkAvailability();
  if (!availability.isAvailable) {
    out.kind = ClickOutcome::Kind::kNoTier1;
    out.reason = availability.reason;
    return out;
  }
  const ModelHold hold(services.lockPath);
  RunTally tally{services};

  // The remainder, however short: the user wants everything in the handoff.
  // An unterminated last line is still being written, and stays unread.
  int64_t mapCalls = 0;
  if (std::optional<std::vector<CloseoutTailReader::Line>> lines =
          readTail(services.fs, transcriptPath, store.tailOffset);
      lines && !lines->empty()) {
    const Chunker::Budget budget = budgetFor(services.runner.contextSize());
    const std::vector<MacroChunk> macroChunks = closeMacroChunks(*lines, budget.words(), /*forceRemainder=*/true);
    if (!macroChunks.empty()) {
      processMacroChunks(macroChunks, budget, store, tally);
      mapCalls = tally.calls;
    }
  }
  if (store.chunks.empty()) {
    out.kind = ClickOutcome::Kind::kNoChunksYet;
    return out;
  }

  HandoffGeneration generated = generateAndGradeHandoff(std::move(store), root, transcriptLines, tally);
  if (!generated.succeeded) {
    out.kind = ClickOutcome::Kind::kFailed;
    out.reason = std::move(generated.reason);
    return out;
  }
  ClickResult& result = generated.result;
  result.mapCallsMade = mapCalls;
  result.store.bakedArtifact = CloseoutBakedArtifact{result.document, result.verdict, result.store.tailOffset};
  out.kind = ClickOutcome::Kind::kSucceeded;
  out.result = std::move(result);
  return out;
}

}  // namespace ostler::CloseoutEngine
