// What the session snapshot reads of the closeout service: how far a chat's
// store has digested its transcript, and how fast digestion has gone. The
// store and the pace file belong to the closeout service; the snapshot only
// reads them, best effort, so that a missing or unreadable one costs a row
// its prompt state and nothing else.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ostler {

// The two facts of a closeout store that the snapshot uses.
struct CloseoutDigestProgress {
  int64_t tailOffset = -1;  // bytes of the transcript digested; below 0 when nothing was yet
  bool isDirty = false;     // the digest must be redone before a handoff

  friend bool operator==(const CloseoutDigestProgress&, const CloseoutDigestProgress&) = default;
};

// Called on the tick thread only.
class CloseoutProgressSource {
 public:
  virtual ~CloseoutProgressSource() = default;
  // The store of `sessionId` under `storeBase`; nothing when the chat has no
  // store or it does not load.
  [[nodiscard]] virtual std::optional<CloseoutDigestProgress> load(const std::string& sessionId,
                                                                   const std::string& storeBase) const = 0;
  // Digestion pace from the pace file under `storeBase`; nothing when the
  // file is missing, unreadable or holds no measure.
  [[nodiscard]] virtual std::optional<double> measuredThroughputBytesPerSecond(
      const std::string& storeBase) const = 0;
};

// A machine on which no chat was ever digested: no store, no pace.
class NoCloseoutStores final : public CloseoutProgressSource {
 public:
  [[nodiscard]] std::optional<CloseoutDigestProgress> load(const std::string&, const std::string&) const override {
    return std::nullopt;
  }
  [[nodiscard]] std::optional<double> measuredThroughputBytesPerSecond(const std::string&) const override {
    return std::nullopt;
  }
};

}  // namespace ostler
