// How the on-device model failed, in the three kinds the pipeline tells
// apart: a refusal, a text still too large once cut to the word floor, and
// anything else. Every failure record of a closeout store carries one,
// saved by its name.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ostler {

enum class CloseoutFailureKind : uint8_t { kRefusal, kExceededContextWindowSizeAtFloor, kOther };

namespace CloseoutFailure {

// "refusal", "exceededContextWindowSizeAtFloor" or "other".
[[nodiscard]] std::string_view name(CloseoutFailureKind kind);

// The kind named `name`; nothing for any other text.
[[nodiscard]] std::optional<CloseoutFailureKind> parse(std::string_view name);

// The kind of a model's failure reason: exactly "refusal" is a refusal, a
// reason that begins "exceededContextWindowSize" is too large at the floor,
// and every other reason is other.
[[nodiscard]] CloseoutFailureKind classify(std::string_view reason);

}  // namespace CloseoutFailure
}  // namespace ostler
