// The receipt: everything one metering pass found, as the JSON record
// "ostler.receipt.v1". Money is in US dollars, rounded to six decimals when
// the receipt is built (top sessions excepted); counts are integers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/result.h"

namespace ostler {

inline constexpr const char* kReceiptSchema = "ostler.receipt.v1";
inline constexpr const char* kSessionIdConvention =
    "session ids in this receipt are the first 8 characters of the transcript file's own name stem "
    "(a UUID in practice, not hex)";

struct ReceiptPeriod {
  std::string from;
  std::string to;
  friend bool operator==(const ReceiptPeriod&, const ReceiptPeriod&) = default;
};

struct ReceiptTokens {
  int64_t input = 0;
  int64_t output = 0;
  int64_t cache_read = 0;
  int64_t cache_write = 0;
  friend bool operator==(const ReceiptTokens&, const ReceiptTokens&) = default;
};

struct ReceiptTotals {
  int64_t turns = 0;
  int64_t sessions = 0;
  int64_t projects = 0;
  double spent_usd = 0;
  ReceiptTokens tokens;
  int64_t sessions_context_over_100k = 0;
  friend bool operator==(const ReceiptTotals&, const ReceiptTotals&) = default;
};

struct ReceiptByModel {
  std::string model;
  int64_t turns = 0;
  double spent_usd = 0;
  friend bool operator==(const ReceiptByModel&, const ReceiptByModel&) = default;
};

struct ReceiptByProject {
  std::string project;
  int64_t sessions = 0;
  double spent_usd = 0;
  friend bool operator==(const ReceiptByProject&, const ReceiptByProject&) = default;
};

struct ReceiptByDay {
  std::string date;
  double spent_usd = 0;
  friend bool operator==(const ReceiptByDay&, const ReceiptByDay&) = default;
};

struct ReceiptDetailLine {
  std::string text;
  double usd = 0;
  std::optional<std::string> session_id;  // first 8 characters of the session id
  friend bool operator==(const ReceiptDetailLine&, const ReceiptDetailLine&) = default;
};

// One waste or mac-first category; `key` is its WasteCategoryKey or
// MacFirstCategoryKey.
struct ReceiptCategory {
  std::string key;
  std::string label;
  double usd = 0;
  std::vector<ReceiptDetailLine> detail_lines;
  int64_t sessions_distinct = 0;
  std::optional<std::string> session_attribution_note;
  friend bool operator==(const ReceiptCategory&, const ReceiptCategory&) = default;
};
using ReceiptWasteCategory = ReceiptCategory;
using ReceiptMacFirstCategory = ReceiptCategory;

struct W1CompositionUSD {
  double input_usd = 0;
  double cache_write_usd = 0;
  friend bool operator==(const W1CompositionUSD&, const W1CompositionUSD&) = default;
};

// The uncapped figures, beside the partition of spend.
struct ReceiptWasteDiagnostics {
  double overweight = 0;
  double duplicate_reads = 0;
  double oversized_dumps = 0;
  double cache_expiry = 0;
  W1CompositionUSD w1_composition;
  double carried_context_read_usd = 0;
  double media_reads = 0;
  double repeat_pipelines = 0;
  double downshift = 0;
  double carried_duplicates_read_usd = 0;
  double carried_dumps_read_usd = 0;
  double whole_session_downshift_usd = 0;
  double dispatch_downshift_usd = 0;
  int64_t dispatch_downshift_units = 0;
  double dispatch_downshift_spend_usd = 0;
  friend bool operator==(const ReceiptWasteDiagnostics&, const ReceiptWasteDiagnostics&) = default;
};

struct ReceiptWaste {
  double total_usd = 0;
  std::string overlap_note;
  std::vector<ReceiptWasteCategory> categories;
  ReceiptWasteDiagnostics diagnostics_raw_usd;
  friend bool operator==(const ReceiptWaste&, const ReceiptWaste&) = default;
};

struct ReceiptMediaLoop {
  std::string sessionId;  // the whole stem
  std::string project;
  int64_t images = 0;
  double usd = 0;
  friend bool operator==(const ReceiptMediaLoop&, const ReceiptMediaLoop&) = default;
};

struct ReceiptMediaLoops {
  double total_usd = 0;
  double raw_uncapped_usd = 0;
  int64_t count = 0;
  std::vector<ReceiptMediaLoop> loops;
  std::string attribution_note;
  int64_t sessions_distinct = 0;
  friend bool operator==(const ReceiptMediaLoops&, const ReceiptMediaLoops&) = default;
};

struct ReceiptMacFirst {
  double total_usd = 0;
  std::vector<ReceiptMacFirstCategory> categories;
  ReceiptMediaLoops media_loops;
  friend bool operator==(const ReceiptMacFirst&, const ReceiptMacFirst&) = default;
};

struct ReceiptTopSession {
  std::string sessionId;  // the whole stem
  std::string project;
  double spent_usd = 0;  // not rounded
  int64_t turns = 0;
  int64_t context_peak = 0;
  friend bool operator==(const ReceiptTopSession&, const ReceiptTopSession&) = default;
};

struct ReceiptFlags {
  std::vector<std::string> unknown_models;
  int64_t skipped_lines = 0;
  std::string pricing_note;
  int64_t distinct_session_ids = 0;
  int64_t distinct_files = 0;
  int64_t files_with_multiple_session_ids = 0;
  int64_t turns_per_session_p50 = 0;
  int64_t turns_per_session_p95 = 0;
  int64_t turns_per_session_max = 0;
  int64_t subagent_files = 0;
  int64_t subagent_turns = 0;
  int64_t lines_without_request_id = 0;
  int64_t duplicate_request_id_lines_skipped = 0;
  int64_t distinct_request_ids = 0;
  friend bool operator==(const ReceiptFlags&, const ReceiptFlags&) = default;
};

struct ReceiptTypedShare {
  double floor_usd = 0;
  int64_t floor_turns = 0;
  double ceiling_usd = 0;
  int64_t ceiling_turns = 0;
  int64_t paste_count = 0;
  double base_usd = 0;
  int64_t base_turns = 0;
  double faced_share_percent = 0;
  int64_t synthetic_zeroed_count = 0;
  int64_t sessions_distinct = 0;
  friend bool operator==(const ReceiptTypedShare&, const ReceiptTypedShare&) = default;
};

struct ReceiptSwitchTax {
  double floor_usd = 0;
  double counterfactual_usd = 0;
  int64_t switch_count = 0;
  int64_t session_count = 0;
  std::vector<ReceiptDetailLine> top_switches;
  int64_t sessions_distinct = 0;
  friend bool operator==(const ReceiptSwitchTax&, const ReceiptSwitchTax&) = default;
};

struct ReceiptAutoCompactions {
  double primary_usd = 0;
  double bound_usd = 0;
  int64_t event_count = 0;
  int64_t involuntary_count = 0;
  int64_t voluntary_count = 0;
  double example_primary_usd = 0;
  int64_t example_pre_tokens = 0;
  int64_t example_post_tokens = 0;
  double primary_pre_leg_usd = 0;
  double output_leg_usd = 0;
  double bound_pre_leg_usd = 0;
  std::vector<ReceiptDetailLine> top_events;
  int64_t sessions_distinct = 0;
  friend bool operator==(const ReceiptAutoCompactions&, const ReceiptAutoCompactions&) = default;
};

struct Receipt {
  std::string schema = kReceiptSchema;
  std::string generated_at;
  ReceiptPeriod period;
  ReceiptTotals totals;
  std::vector<ReceiptByModel> by_model;
  std::vector<ReceiptByProject> by_project;
  std::vector<ReceiptByDay> by_day;
  ReceiptWaste waste;
  ReceiptMacFirst mac_first;
  double fair_usd = 0;
  std::vector<ReceiptTopSession> top_sessions;
  ReceiptFlags flags;
  std::optional<ReceiptTypedShare> typed_share;
  std::optional<ReceiptSwitchTax> switch_tax;
  std::optional<ReceiptAutoCompactions> auto_compactions;
  std::string session_id_convention = kSessionIdConvention;
  friend bool operator==(const Receipt&, const Receipt&) = default;
};

// JSON with the receipt's own keys; absent optional keys are left out.
void to_json(nlohmann::json& j, const Receipt& r);

// Decodes a receipt, accepting those of older versions that lack the keys
// added since (each then takes its default). Any other missing key or a
// wrong type is an error.
[[nodiscard]] Result<Receipt> decodeReceipt(const nlohmann::json& j);

// Pretty-printed (two spaces) with sorted keys, and a final line feed.
[[nodiscard]] std::string encodeReceiptJSON(const Receipt& r);

}  // namespace ostler
