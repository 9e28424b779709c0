// Derives the receipt from a finished pass, with no further reading.
#pragma once

#include <string>
#include <vector>

#include "meter/meter_options.h"
#include "meter/meter_state.h"
#include "meter/receipt.h"

namespace ostler {

inline constexpr const char* kOverlapNote =
    "waste and mac_first are one partition of spend (v1.1/v1.4): each turn's attribution is capped at its own "
    "actual cost in priority order W4, R2, R1, R3, W1, W2, W3, so nothing overlaps past what was really spent";

// `generatedAt` is the instant written as `generated_at`.
[[nodiscard]] Receipt buildReceipt(const GlobalAggregator& agg, const MeterOptions& options,
                                   const std::string& generatedAt);

// The ten largest candidates (ties by text), rounded.
[[nodiscard]] std::vector<ReceiptDetailLine> topDetails(std::vector<DetailCandidate> candidates);
[[nodiscard]] std::vector<ReceiptDetailLine> topDetails(const DetailCandidates& candidates);

// The element at index round(p/100 * (n - 1)) of an ascending list; 0 when
// empty.
[[nodiscard]] int64_t percentile(const std::vector<int64_t>& sorted, double p);

// Media loop candidates in receipt order: kept dollars descending, then
// session id and project ascending.
void sortMediaLoopCandidates(std::vector<MediaLoopCandidate>& candidates);

}  // namespace ostler
