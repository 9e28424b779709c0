// What one attempt of the model on a piece of text gives: a value, a
// failure that a smaller piece would not cure, or "too large", which a
// smaller piece may.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace ostler {

template <typename T>
struct ChunkAttemptOutcome {
  enum class Kind { kSuccess, kOtherFailure, kTooLarge };

  Kind kind = Kind::kTooLarge;
  std::optional<T> value;  // kSuccess
  std::string reason;      // kOtherFailure: why the model failed

  [[nodiscard]] static ChunkAttemptOutcome success(T value) { return {Kind::kSuccess, std::move(value), {}}; }
  [[nodiscard]] static ChunkAttemptOutcome otherFailure(std::string reason) {
    return {Kind::kOtherFailure, std::nullopt, std::move(reason)};
  }
  // The text exceeded the model's context window.
  [[nodiscard]] static ChunkAttemptOutcome tooLarge() { return {Kind::kTooLarge, std::nullopt, {}}; }
};

}  // namespace ostler
