// The on-device language model as the closeout pipeline sees it. Everything
// the pipeline asks of a model goes through `Tier1Runner`, so all of the
// logic above it runs the same against a real model or a substitute.
//
// A runner never fails by raising: each model call comes back as a
// `ChunkAttemptOutcome`, read downstream in three ways only. `tooLarge` when
// the text did not fit the model's window (a smaller piece may), an
// `otherFailure` whose reason is exactly "refusal" when the model declined,
// and any other `otherFailure`, whose reason says what went wrong in one
// line. Calls may take seconds; they run off the engine's tick thread, one
// at a time under `Tier1Serializer` and `Tier1ProcessLock`.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/chunk_attempt_outcome.h"
#include "closeout/closeout_document.h"
#include "platform/file_system.h"
#include "platform/result.h"

namespace ostler {

// Whether the model can run here, and when not, why.
struct Tier1Availability {
  static constexpr std::string_view kDeviceNotEligible = "deviceNotEligible";
  static constexpr std::string_view kAppleIntelligenceNotEnabled = "appleIntelligenceNotEnabled";
  static constexpr std::string_view kModelNotReady = "modelNotReady";
  static constexpr std::string_view kUnknown = "unknown";

  bool isAvailable = false;
  std::string reason;  // when unavailable: one of the four reasons above

  [[nodiscard]] static Tier1Availability available() { return {true, {}}; }
  [[nodiscard]] static Tier1Availability unavailable(std::string_view reason) { return {false, std::string(reason)}; }

  friend bool operator==(const Tier1Availability&, const Tier1Availability&) = default;
};

// The reason of an `otherFailure` when the model declined the text.
inline constexpr std::string_view kRefusalReason = "refusal";

// A handoff as the model wrote it: the four section bodies and the
// documentation changes it proposes.
struct GeneratedHandoffResult {
  std::string state;
  std::string decisions;
  std::string next;
  std::string filesTouched;
  std::vector<DocUpdate> docUpdates;

  friend bool operator==(const GeneratedHandoffResult&, const GeneratedHandoffResult&) = default;
};

// The model. Implementations are safe to call from several threads, though
// the pipeline calls them one at a time.
class Tier1Runner {
 public:
  virtual ~Tier1Runner() = default;

  // The model's context window in tokens; read at every pass, since a model
  // server may be restarted with another.
  [[nodiscard]] virtual int64_t contextSize() = 0;
  // Whether `measureTokens` gives the model's own count rather than an
  // estimate.
  [[nodiscard]] virtual bool tokensAreMeasured() = 0;
  // Asked first on every entry into the pipeline.
  [[nodiscard]] virtual Tier1Availability checkAvailability() = 0;
  // `text` in the model's tokens, at least 1. Never fails: a count the model
  // cannot give is estimated.
  [[nodiscard]] virtual int64_t measureTokens(std::string_view text) = 0;
  // A summary of one excerpt of a transcript.
  [[nodiscard]] virtual ChunkAttemptOutcome<std::string> summarizeChunk(std::string_view text) = 0;
  // One summary of many consecutive ones; a single summary comes back as it
  // is, without a model call.
  [[nodiscard]] virtual ChunkAttemptOutcome<std::string> combineBatch(const std::vector<std::string>& summaries) = 0;
  // The structured handoff, from the combined summary of the whole chat.
  [[nodiscard]] virtual ChunkAttemptOutcome<GeneratedHandoffResult> generateHandoff(
      std::string_view combinedSummary) = 0;
};

namespace Tier1Tokens {
// The count a runner gives when the model cannot measure: a token per four
// user-perceived characters, at least 1.
[[nodiscard]] int64_t estimate(std::string_view text);
}  // namespace Tier1Tokens

namespace Tier1RunnerFactory {

// The runner that the settings file at `settingsPath` configures: one on a
// local model server. A null runner when none is configured; an error when
// the one configured is refused (a remote server not allowed, a URL that
// cannot be read).
[[nodiscard]] Result<std::unique_ptr<Tier1Runner>> runnerFromSettings(FileSystem& fs, const std::string& settingsPath);

// The runner of this system, from the user's settings file; none when none
// is configured or the one configured is refused. A caller that gets none
// treats the closeout pipeline as unavailable.
[[nodiscard]] std::unique_ptr<Tier1Runner> systemRunner();

}  // namespace Tier1RunnerFactory
}  // namespace ostler
