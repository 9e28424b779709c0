// A model for the pipeline's tests: deterministic, instant, and honouring
// every convention of `Tier1Runner`. Tokens are words; a text of more words
// than `tokenBound` is too large; a text holding kRefuseMarker is refused and
// one holding kFailMarker fails otherwise. Summaries keep the text's
// "[file touched: PATH]" markers, so that a handoff can name its files.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/model/tier1_runner.h"

namespace ostler::testing {

class SubstituteTier1Runner final : public Tier1Runner {
 public:
  static constexpr std::string_view kRefuseMarker = "[refuse]";
  static constexpr std::string_view kFailMarker = "[fail]";

  struct Options {
    int64_t contextSize = 4096;
    int64_t tokenBound = 3482;  // the most words a request may hold
    Tier1Availability availability = Tier1Availability::available();
  };

  SubstituteTier1Runner() = default;
  explicit SubstituteTier1Runner(Options options) : options_(std::move(options)) {}

  int64_t contextSize() override { return options_.contextSize; }
  bool tokensAreMeasured() override { return true; }
  Tier1Availability checkAvailability() override { return options_.availability; }
  int64_t measureTokens(std::string_view text) override;
  ChunkAttemptOutcome<std::string> summarizeChunk(std::string_view text) override;
  ChunkAttemptOutcome<std::string> combineBatch(const std::vector<std::string>& summaries) override;
  ChunkAttemptOutcome<GeneratedHandoffResult> generateHandoff(std::string_view combinedSummary) override;

  // The model calls made so far (measurements and availability are not
  // calls): "summarize", "combine" or "handoff", in order.
  [[nodiscard]] std::vector<std::string> calls();

 private:
  // Records the call `call`; the failure that `text` meets, or nothing when
  // the call succeeds.
  template <typename T>
  [[nodiscard]] std::optional<ChunkAttemptOutcome<T>> failureFor(std::string_view call, std::string_view text);

  const Options options_;
  std::mutex mutex_;
  std::vector<std::string> calls_;
};

}  // namespace ostler::testing
