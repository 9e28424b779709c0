// The engine that turns a growing transcript into a closeout store and a
// graded handoff with the on-device model. It has two entries:
//
// - `backgroundPass`, the quiet one, run on idle chats: it summarises the
//   unread tail once it holds a full word budget, extends the tree, and
//   bakes a handoff ahead of time when little of the transcript is left
//   unread.
// - `click`, the demanding one: the user wants the handoff now, so it also
//   summarises the unfinished remainder, then generates and grades.
//
// In map and reduce terms: the map turns the unread tail into leaf
// summaries, the reduce folds them into the tree, and the generation turns
// the root into a handoff that the checks grade.
//
// Both entries take a store by value and give back the new value; saving is
// the caller's. Model work runs synchronously on the caller's thread, one
// request at a time, holding `Tier1Serializer` and then the process lock
// (map, reduce and generation each take their own hold in a background
// pass, so other chats can get in between; a click holds them throughout).
// No failure escapes as an error: a failed piece, combine or handoff is
// recorded in the store and the rest goes on.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/checks.h"
#include "closeout/closeout_document.h"
#include "closeout/closeout_failure_kind.h"
#include "closeout/closeout_store.h"
#include "closeout/closeout_tail_reader.h"
#include "closeout/closeout_tree.h"
#include "closeout/file_existence.h"
#include "closeout/model/tier1_process_lock.h"
#include "closeout/model/tier1_runner.h"
#include "closeout/transcript_model.h"
#include "platform/file_system.h"

namespace ostler::CloseoutEngine {

// Cutting text to the model's window.
inline constexpr double kReserveFraction = 0.15;
inline constexpr int64_t kReserveFloor = 300;  // tokens
inline constexpr double kWordsPerToken = 0.75;
inline constexpr int64_t kFloorWords = 40;  // a piece this small is not cut further
// Reading the transcript.
inline constexpr size_t kTailReadSize = 1'048'576;
inline constexpr int64_t kBakeRemainderBytes = 15'000;  // a bake needs less than this unread
inline constexpr int64_t kRepoRootHeadLines = 50;
inline constexpr size_t kHeadReadBlock = 8'192;
inline constexpr size_t kHeadReadCap = 65'536;
// The longest fallback text of a combine that failed, in characters.
inline constexpr size_t kDegradedSummaryCap = 2'000;
inline constexpr uint64_t kLockPollNs = 50'000'000;

// How far a run has got, for a person watching.
struct Progress {
  int64_t macroChunksDone = 0;
  int64_t macroChunksTotal = 0;
  int64_t modelCalls = 0;  // every model request of the run so far
};

// What the engine works with. The runner is asked its window at every
// pass, since a model server may be restarted with another.
struct Services {
  Tier1Runner& runner;
  FileSystem& fs;
  FileExistence& fileExistence;  // for the checks' cited paths
  std::string home;              // what a leading "~/" in a cited path means
  std::string lockPath = Tier1ProcessLock::kDefaultPath;
  std::function<void(const Progress&)> onProgress;  // may be empty
};

// The word budget and token ceiling for a window of `contextSize` tokens.
[[nodiscard]] Chunker::Budget budgetFor(int64_t contextSize);

struct MapOutcome {
  enum class Kind { kBelowBudget, kMapped, kNoTier1, kNoNewContent };
  Kind kind = Kind::kNoNewContent;
  int64_t accumulatedWords = 0;  // kBelowBudget
  int64_t budgetWords = 0;       // kBelowBudget
  int64_t chunksAdded = 0;       // kMapped
  int64_t callsMade = 0;         // kMapped

  friend bool operator==(const MapOutcome&, const MapOutcome&) = default;
};

struct MapResult {
  MapOutcome outcome;
  CloseoutStoreState store;
};

struct BackgroundPassResult {
  MapOutcome mapOutcome;
  int64_t reduceModelCalls = 0;  // the tree's and the bake's together
  CloseoutStoreState store;
};

struct ClickResult {
  CloseoutDocument document;
  Checks::Verdict verdict;
  int64_t reduceCallsMade = 0;
  CloseoutStoreState store;
  int64_t mapCallsMade = 0;      // summaries of the remainder
  int64_t handoffCallsMade = 0;  // handoff requests, halved ones included
};

struct ClickOutcome {
  enum class Kind { kSucceeded, kFailed, kNoTier1, kNoChunksYet };
  Kind kind = Kind::kNoChunksYet;
  std::optional<ClickResult> result;  // kSucceeded
  std::string reason;                 // kFailed: why; kNoTier1: the availability reason
};

// True when `accumulatedWords` reaches `budgetWords`.
[[nodiscard]] inline bool shouldMap(int64_t accumulatedWords, int64_t budgetWords) {
  return accumulatedWords >= budgetWords;
}

// Summarises the unread tail when it holds at least a word budget of
// chunkable words, in macro chunks of whole lines; the last lines wait
// until there are enough of them. Nothing is locked or consumed below the
// budget.
[[nodiscard]] MapResult mapIfDue(const std::string& transcriptPath, CloseoutStoreState store, Services& services);

// `mapIfDue`, then the tree extended over the new chunks, then a bake when
// the tree is current, less than 15,000 bytes are unread and this tail has
// not been tried.
[[nodiscard]] BackgroundPassResult backgroundPass(const std::string& transcriptPath, CloseoutStoreState store,
                                                  Services& services);

// The handoff now: the whole remainder summarised, the tree extended, the
// handoff generated from the root and graded against `transcriptLines`
// with `root` as the repository. On success the store carries the handoff
// as its baked artifact; on failure the store's changes are dropped.
[[nodiscard]] ClickOutcome click(const std::string& transcriptPath, CloseoutStoreState store, std::string_view root,
                                 std::span<const TranscriptLine> transcriptLines, Services& services);

// The repository root of a chat: the first non-empty string `cwd` among the
// first `maxLines` lines of its transcript, lines read as plain JSON
// objects. The head of the file is read in blocks up to 64 KiB; only when
// that cap cut the reading short of `maxLines` lines is the whole file
// read. Found roots are remembered for the life of the process.
[[nodiscard]] std::optional<std::string> repoRoot(FileSystem& fs, const std::string& transcriptPath,
                                                  int64_t maxLines = kRepoRootHeadLines);

// The combine used for the tree: one model call for two or more summaries;
// on "too large" the list is split in two and each half and then their two
// results are combined; on another failure, or a pair still too large, the
// summaries joined by spaces and cut to 2,000 characters stand in, marked
// with the failure's kind. Adds each model request to `calls`.
[[nodiscard]] CloseoutTree::Combined treeCombine(const std::vector<std::string>& summaries, Tier1Runner& runner,
                                                 int64_t& calls);

}  // namespace ostler::CloseoutEngine
