// The limit-window gauges and the exclusion tallies as the feed publishes
// them. Keys are snake_case; optional keys are left out when absent, never
// written as null. Instants are strings in UTC with milliseconds and "Z".
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "platform/result.h"

namespace ostler {

// The plan's own percentage of a window, from its usage history.
struct FeedAuthoritativePct {
  double value = 0;        // percent
  std::string sampled_at;  // instant of the sample

  friend bool operator==(const FeedAuthoritativePct&, const FeedAuthoritativePct&) = default;
};

// One window's gauge.
struct FeedWindow {
  double burn_value = 0;  // dollars burned in the window, rounded to six places
  int64_t tokens = 0;     // tokens burned in the window
  std::optional<std::string> anchor;       // start of the window, where known
  std::optional<std::string> resets_note;  // phrase of the last reset
  std::optional<double> lowest_cutoff_observed;          // the learned wall, dollars
  std::optional<int64_t> lowest_cutoff_observed_tokens;  // the learned wall, tokens
  std::optional<FeedAuthoritativePct> authoritative_pct;  // session and week only
  std::optional<bool> near_limit;  // true or absent, never false

  friend bool operator==(const FeedWindow&, const FeedWindow&) = default;
};

// The billing month's gauge; its anchor is always known.
struct FeedMonthWindow {
  double burn_value = 0;
  int64_t tokens = 0;
  std::string anchor;
  std::optional<double> lowest_cutoff_observed;
  std::optional<int64_t> lowest_cutoff_observed_tokens;

  friend bool operator==(const FeedMonthWindow&, const FeedMonthWindow&) = default;
};

struct FeedWindows {
  FeedWindow session;
  FeedWindow week;
  FeedWindow week_top_model;
  std::optional<FeedMonthWindow> month;

  // All numbers 0, all optional keys absent.
  [[nodiscard]] static FeedWindows empty() { return {}; }

  friend bool operator==(const FeedWindows&, const FeedWindows&) = default;
};

struct FeedDiagnosticsExclusionTally {
  int64_t count = 0;
  double dollars_usd = 0;  // rounded to six places

  friend bool operator==(const FeedDiagnosticsExclusionTally&, const FeedDiagnosticsExclusionTally&) = default;
};

// Lines and dollars the live accumulator left out, by reason.
struct FeedDiagnosticsExclusions {
  FeedDiagnosticsExclusionTally timestamp_gate;
  FeedDiagnosticsExclusionTally dedup_refusal;
  FeedDiagnosticsExclusionTally parse_skip;
  FeedDiagnosticsExclusionTally other;

  friend bool operator==(const FeedDiagnosticsExclusions&, const FeedDiagnosticsExclusions&) = default;
};

[[nodiscard]] nlohmann::json toJson(const FeedAuthoritativePct& v);
[[nodiscard]] nlohmann::json toJson(const FeedWindow& v);
[[nodiscard]] nlohmann::json toJson(const FeedMonthWindow& v);
[[nodiscard]] nlohmann::json toJson(const FeedWindows& v);
[[nodiscard]] nlohmann::json toJson(const FeedDiagnosticsExclusionTally& v);
[[nodiscard]] nlohmann::json toJson(const FeedDiagnosticsExclusions& v);

// Strict decoding: every key that is not optional is required, with its JSON
// type. An error names the first offending key.
[[nodiscard]] Result<FeedWindow> feedWindowFromJson(const nlohmann::json& j);
[[nodiscard]] Result<FeedMonthWindow> feedMonthWindowFromJson(const nlohmann::json& j);
[[nodiscard]] Result<FeedWindows> feedWindowsFromJson(const nlohmann::json& j);
[[nodiscard]] Result<FeedDiagnosticsExclusions> feedDiagnosticsExclusionsFromJson(const nlohmann::json& j);

}  // namespace ostler
