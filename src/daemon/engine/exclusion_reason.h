// Why the live accumulator left a line's dollars out of today's figures.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace ostler {

enum class ExclusionReason {
  kTimestampGate,  // "timestamp_gate": dated outside today
  kDedupRefusal,   // "dedup_refusal": a request already folded elsewhere
  kParseSkip,      // "parse_skip": the line did not decode
  kOther,          // "other": the line could not be dated
};

inline constexpr size_t kExclusionReasonCount = 4;

[[nodiscard]] constexpr std::string_view wireName(ExclusionReason r) {
  constexpr std::array<std::string_view, kExclusionReasonCount> kNames = {"timestamp_gate", "dedup_refusal",
                                                                          "parse_skip", "other"};
  return kNames[static_cast<size_t>(r)];
}

struct ExclusionTally {
  int64_t count = 0;
  double dollarsUSD = 0;  // not rounded

  friend bool operator==(const ExclusionTally&, const ExclusionTally&) = default;
};

}  // namespace ostler
