// How far the closeout pipeline has prepared a chat. A small transcript is
// "quiet" (nothing worth digesting); one whose undigested rest fits in a
// single chunk is "ready"; anything else is "warming", with the share done
// and, when the pace is known, the seconds still needed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "daemon/engine/closeout_progress_source.h"
#include "daemon/feed/feed_session.h"
#include "platform/file_system.h"

namespace ostler {

struct DaemonPromptState {
  enum class Kind { kWarming, kQuiet, kReady };

  Kind kind = Kind::kQuiet;
  int64_t percent = 0;                     // warming only
  bool dirty = false;                      // warming only; not published
  std::optional<int64_t> estimateSeconds;  // warming only

  [[nodiscard]] static DaemonPromptState warming(int64_t percent, bool dirty, std::optional<int64_t> estimate) {
    return {Kind::kWarming, percent, dirty, estimate};
  }
  [[nodiscard]] static DaemonPromptState quiet() { return {Kind::kQuiet, 0, false, std::nullopt}; }
  [[nodiscard]] static DaemonPromptState ready() { return {Kind::kReady, 0, false, std::nullopt}; }

  // The feed's form: "warming" with its percent and estimate, or "quiet" and
  // "ready" with neither.
  [[nodiscard]] FeedPromptState wireValue() const;

  friend bool operator==(const DaemonPromptState&, const DaemonPromptState&) = default;
};

namespace PromptStateDerivation {

// Below this size a transcript is not worth digesting.
inline constexpr int64_t kProvisionalSizeFloorBytes = 8000;
// The most a prepare step digests at once.
inline constexpr int64_t kProvisionalChunkBudgetBytes = 15000;

// `tailOffset` below 0 means nothing was digested; one beyond the file counts
// the whole file as digested. A dirty store is always warming. The estimate
// is the rest over `measuredThroughputBytesPerSecond`, to the nearest second,
// when that is above 0.
[[nodiscard]] DaemonPromptState derive(int64_t transcriptByteSize, int64_t tailOffset, bool isDirty,
                                       int64_t sizeFloorBytes, int64_t chunkBudgetBytes,
                                       std::optional<double> measuredThroughputBytesPerSecond);

}  // namespace PromptStateDerivation

namespace PromptStateSnapshot {

// The state of the chat whose top-level transcript is `transcriptPath`;
// nothing when it has no closeout store or the transcript's size cannot be
// read.
[[nodiscard]] std::optional<DaemonPromptState> compute(FileSystem& fs, const std::string& sessionId,
                                                       const std::string& transcriptPath,
                                                       const std::string& storeBase,
                                                       const CloseoutProgressSource& stores,
                                                       std::optional<double> measuredThroughputBytesPerSecond);

}  // namespace PromptStateSnapshot
}  // namespace ostler
