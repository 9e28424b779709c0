#include "meter/meter_engine.h"

#include <algorithm>

#include "meter/bash_scan.h"
#include "meter/build_receipt.h"
#include "meter/session_fold.h"
#include "transcript/session_discovery.h"
#include "transcript/tree_reading.h"

namespace ostler {
namespace {

// A shared reading goes further ahead through runs of small files, so that a
// worker is not held up while the heavier folds work through a large slice;
// every reading is bounded by the bytes of the slices ahead.
constexpr size_t kFirstReadingWindow = 16;
constexpr size_t kSecondReadingWindow = 6;

MediaLoopDetailRecord loopRecord(const MediaLoopCandidate& c) {
  return {c.sessionId, c.project, c.images, roundUSD(c.rawUsd), roundUSD(c.usd), c.firstTimestamp, c.lastTimestamp,
          c.fileCount};
}

// Every media loop, largest kept dollars first, ties by session id.
std::vector<MediaLoopDetailRecord> loopDetail(const GlobalAggregator& agg) {
  std::vector<MediaLoopCandidate> loops = agg.mediaLoopCandidates;
  std::stable_sort(loops.begin(), loops.end(), [](const MediaLoopCandidate& a, const MediaLoopCandidate& b) {
    if (a.usd != b.usd) return a.usd > b.usd;
    return a.sessionId < b.sessionId;
  });
  std::vector<MediaLoopDetailRecord> out;
  for (const auto& c : loops) out.push_back(loopRecord(c));
  return out;
}

}  // namespace

namespace MeterEngine {

std::optional<std::vector<MeterRun>> runAll(FileSystem& fs, const std::vector<MeterOptions>& passList,
                                            const ProgressCallback& onProgress, const Clock& clock,
                                            const MeterReading& reading) {
  if (passList.empty()) return std::vector<MeterRun>{};
  Unreadable unreadable;
  const std::vector<SessionGroup> groups =
      SessionDiscovery::discoverSessionGroups(fs, passList.front().root, &unreadable);
  const std::vector<TranscriptFile> files = SessionDiscovery::meteringOrder(groups);
  const auto totalFiles = static_cast<int64_t>(files.size());

  std::vector<GlobalAggregator> aggs(passList.size());
  std::vector<MeterPass> passes(passList.size());
  std::vector<BashOccurrences> counts;
  for (size_t i = 0; i < passList.size(); ++i) {
    passes[i].options = &passList[i];
    passes[i].bounds = RangeBounds::from(passList[i]);
    passes[i].agg = &aggs[i];
  }
  for (auto& p : passes) counts.emplace_back(p.bounds, *p.agg);

  BashScanFold passOne(counts, totalFiles, onProgress, clock);
  SessionProgress progress{onProgress, totalFiles, groups.size(), 0, ProgressThrottle(clock)};
  // Alone, pass one reads assistant lines only, and pass two follows on a
  // reading of its own; shared, pass two holds its sessions on the first
  // reading until pass one has counted the whole tree.
  const bool shared = !reading.alsoFold.empty();
  SessionFold passTwo(passes, SessionFold::Mode::kHold, reading.holdBytes, progress);
  TreeReading first(fs, files, {.window = shared ? kFirstReadingWindow : kSecondReadingWindow});
  first.add(passOne);
  if (shared) first.add(passTwo);
  for (TreeFold* fold : reading.alsoFold) first.add(*fold);
  if (!first.run(reading.stop)) return std::nullopt;
  unreadable.add(first.unreadable());
  passTwo.finalizeHeld();

  // The sessions not folded yet, on a reading of their own.
  const std::optional<size_t> stoppedAt = shared ? passTwo.stoppedAtFile() : std::optional<size_t>(0);
  if (stoppedAt) {
    SessionFold rest(passes, SessionFold::Mode::kFinalize, 0, progress);
    TreeReading second(fs, std::vector<TranscriptFile>(files.begin() + static_cast<std::ptrdiff_t>(*stoppedAt), files.end()),
                       {.window = kSecondReadingWindow});
    second.add(rest);
    if (!second.run(reading.stop)) return std::nullopt;
    unreadable.add(second.unreadable());
  }

  const std::string generatedAt = ISO8601::whole(clock.nowMs());
  std::vector<MeterRun> runs;
  for (size_t i = 0; i < passes.size(); ++i)
    runs.push_back({buildReceipt(aggs[i], passList[i], generatedAt), loopDetail(aggs[i]), unreadable});
  return runs;
}

MeterRun runWithLoopDetail(FileSystem& fs, const MeterOptions& options, const ProgressCallback& onProgress,
                           const Clock& clock) {
  auto runs = runAll(fs, {options}, onProgress, clock);
  return std::move(runs->front());
}

Receipt run(FileSystem& fs, const MeterOptions& options, const ProgressCallback& onProgress, const Clock& clock) {
  return runWithLoopDetail(fs, options, onProgress, clock).receipt;
}

}  // namespace MeterEngine
}  // namespace ostler
