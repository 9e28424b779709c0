// Sorts a session's spend into what was avoidable. Seven categories say, turn
// by turn, how much of a turn's cost need not have been spent: four of waste
// (W1 context growth past 100k, W2 duplicate reads, W3 oversized dumps, W4
// cache expiry) and three of mac-first work (R1 media reads, R2 repeat
// pipelines, R3 mechanical turns). Each turn's attribution is capped at its
// own cost in a fixed order, so together with fair spend they partition the
// session's dollars.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "meter/meter_state.h"

namespace ostler {

// Folds a finished session into the aggregator. A session without turns
// leaves no trace.
void finalizeSession(SessionState& state, const std::string& folderNameFallback, GlobalAggregator& agg);

// Whether one of the session's user lines held an image: without one, its
// timeline of user lines makes no media loop.
[[nodiscard]] bool hasAnyImage(const SessionState& state);

// Appends the media loop of `run` when it holds at least five images.
// `keepRatioR1[t]` is the share of its R1 that turn t kept.
void flushMediaRun(const std::vector<const MediaEvent*>& run, const std::string& sessionId,
                   const std::string& project, const std::vector<double>& keepRatioR1,
                   GlobalAggregator& agg);

// At the end of a subagent file: could this dispatch have run on the sonnet
// row? Adds its premium to the dispatch downshift diagnostics.
void dispatchUnitCheck(const SessionState& state, const PricingTable& pricing, GlobalAggregator& agg);

}  // namespace ostler
