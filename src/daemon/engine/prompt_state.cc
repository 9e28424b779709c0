#include "daemon/engine/prompt_state.h"

#include <algorithm>
#include <cmath>

namespace ostler {

FeedPromptState DaemonPromptState::wireValue() const {
  switch (kind) {
    case Kind::kWarming:
      return {"warming", percent, estimateSeconds};
    case Kind::kReady:
      return {"ready", std::nullopt, std::nullopt};
    case Kind::kQuiet:
      break;
  }
  return {"quiet", std::nullopt, std::nullopt};
}

namespace PromptStateDerivation {

DaemonPromptState derive(int64_t transcriptByteSize, int64_t tailOffset, bool isDirty, int64_t sizeFloorBytes,
                         int64_t chunkBudgetBytes, std::optional<double> measuredThroughputBytesPerSecond) {
  if (transcriptByteSize < sizeFloorBytes) return DaemonPromptState::quiet();
  const int64_t consumed = tailOffset < 0 ? 0 : std::min(tailOffset, transcriptByteSize);
  const int64_t remaining = transcriptByteSize - consumed;
  // The undigested rest is small enough to take in one chunk at prepare time.
  if (!isDirty && remaining < chunkBudgetBytes) return DaemonPromptState::ready();
  const int64_t percent = transcriptByteSize == 0 ? 0 : consumed * 100 / transcriptByteSize;
  std::optional<int64_t> estimate;
  if (measuredThroughputBytesPerSecond && *measuredThroughputBytesPerSecond > 0)
    estimate = std::llround(static_cast<double>(remaining) / *measuredThroughputBytesPerSecond);
  return DaemonPromptState::warming(percent, isDirty, estimate);
}

}  // namespace PromptStateDerivation

namespace PromptStateSnapshot {

std::optional<DaemonPromptState> compute(FileSystem& fs, const std::string& sessionId, const std::string& transcriptPath,
                                         const std::string& storeBase, const CloseoutProgressSource& stores,
                                         std::optional<double> measuredThroughputBytesPerSecond) {
  std::optional<CloseoutDigestProgress> store = stores.load(sessionId, storeBase);
  if (!store) return std::nullopt;
  auto info = fs.stat(transcriptPath);
  if (!info || info.value().size > uint64_t{INT64_MAX}) return std::nullopt;
  return PromptStateDerivation::derive(static_cast<int64_t>(info.value().size), store->tailOffset, store->isDirty,
                                       PromptStateDerivation::kProvisionalSizeFloorBytes,
                                       PromptStateDerivation::kProvisionalChunkBudgetBytes,
                                       measuredThroughputBytesPerSecond);
}

}  // namespace PromptStateSnapshot
}  // namespace ostler
