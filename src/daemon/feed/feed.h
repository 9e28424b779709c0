// The feed: the one record through which the live engine reaches every
// surface, published as a JSON file about once a second and decoded again by
// readers in this process or another.
//
// Keys are the JSON keys. Optional keys are left out when empty; a written
// feed holds no null. Instants are strings in UTC with milliseconds and "Z";
// dollar figures are rounded to six places where their producers say so.
//
// Decoding accepts the feeds of older writers: the keys they may lack take
// the defaults given at each record. Everything else decodes strictly.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "daemon/feed/agents_by_model_aggregate.h"
#include "daemon/feed/feed_session.h"
#include "daemon/feed/feed_windows.h"
#include "daemon/engine/today_share.h"
#include "transcript/iso8601.h"
#include "platform/result.h"

namespace ostler {

inline constexpr const char* kFeedSchema = "ostler.feed.v0";

// "0001-01-01T00:00:00.000Z": stands for an instant never seen, such as the
// last activity of a chat with no assistant line yet.
inline constexpr InstantMs kEarliestInstant = -62'135'596'800'000;

inline constexpr const char* kAvoidableBasis = "windowed pass";
inline constexpr const char* kSpentBasisNote =
    "windowed turns count under the meter's own inclusion law, which has no stub gate; a permanent zero-usage "
    "stub can make the two bases disagree on turns by construction, not by defect";

// Lifetime figures of the whole tree's receipt.
struct FeedOdometer {
  double spent_usd = 0;
  double stamp_usd = 0;      // waste and mac-first together, rounded once
  double mac_first_usd = 0;
  std::string since;         // the receipt's first timestamp

  friend bool operator==(const FeedOdometer&, const FeedOdometer&) = default;
};

using FeedAvoidableShareSplit = TodayShare::AvoidableShareSplit;

struct FeedToday {
  double spent_usd = 0;      // rounded
  double avoidable_usd = 0;  // the four windowed avoidable figures, rounded
  int64_t turns = 0;
  std::map<std::string, int64_t> tokens_by_family;  // the four families always, 0 when unseen
  double avoidable_share = 0;
  FeedAvoidableShareSplit avoidable_share_split;
  std::string avoidable_basis = kAvoidableBasis;
  std::optional<std::string> spent_basis;  // "accumulator" or "windowed"
  std::string spent_basis_note = kSpentBasisNote;
  std::optional<std::string> windowed_computed_at;  // when the windowed figures were taken

  friend bool operator==(const FeedToday&, const FeedToday&) = default;
};

// The last usage-limit message.
struct FeedQuota {
  std::optional<std::string> last_limit_event_at;  // the line's timestamp as written
  std::optional<std::string> resets_note;          // its reset phrase
  std::optional<std::string> limited_until;        // the instant the phrase names
  std::optional<std::string> extra_usage_disabled_reason;

  friend bool operator==(const FeedQuota&, const FeedQuota&) = default;
};

struct FeedMacAiSessions {
  int64_t count = 0;
  std::string period_label;

  friend bool operator==(const FeedMacAiSessions&, const FeedMacAiSessions&) = default;
};

// What runs right now.
struct FeedNow {
  int64_t active_agents = 0;        // subagent files written in the last minute
  int64_t rate_tokens_per_min = 0;  // tokens of the last five minutes, per minute
  std::optional<FeedMacAiSessions> mac_ai_sessions;
  std::optional<std::vector<FeedAgentsByModelEntry>> agents_by_model;  // absent with no agent running

  friend bool operator==(const FeedNow&, const FeedNow&) = default;
};

struct FeedSetupTaxJump {
  int64_t delta_tokens = 0;
  int64_t previous_tokens = 0;

  friend bool operator==(const FeedSetupTaxJump&, const FeedSetupTaxJump&) = default;
};

// What a fresh chat costs before any work is done.
struct FeedSetupTax {
  int64_t setup_tokens = 0;
  double first_turn_cost_usd = 0;
  double steady_state_setup_usd = 0;
  std::string measured_at;
  std::optional<FeedSetupTaxJump> jump;

  friend bool operator==(const FeedSetupTax&, const FeedSetupTax&) = default;
};

// The last comparison of today's accumulator with the windowed receipt.
struct FeedDiagnosticsEquality {
  bool matches = false;
  double diff_usd = 0;     // accumulator less windowed, rounded
  std::string checked_at;  // the instant the accumulator was read
  std::optional<double> accumulator_spent_usd;
  std::optional<int64_t> accumulator_turns;

  friend bool operator==(const FeedDiagnosticsEquality&, const FeedDiagnosticsEquality&) = default;
};

// Saves of the engine's state since it started.
struct FeedDiagnosticsPersist {
  int64_t count_since_start = 0;
  int64_t bytes_last = 0;
  int64_t bytes_since_start = 0;

  friend bool operator==(const FeedDiagnosticsPersist&, const FeedDiagnosticsPersist&) = default;
};

struct FeedDiagnostics {
  std::optional<FeedDiagnosticsEquality> equality;
  std::optional<FeedDiagnosticsPersist> persist;
  std::optional<FeedDiagnosticsExclusions> exclusions;
  // Transcripts and folders the last poll could not read; left out when
  // every one could be.
  std::optional<int64_t> unreadable_files;

  [[nodiscard]] static FeedDiagnostics empty() { return {}; }

  friend bool operator==(const FeedDiagnostics&, const FeedDiagnostics&) = default;
};

// What closeouts have saved against resuming.
struct FeedLedger {
  double month_saved_usd = 0;
  int64_t month_event_count = 0;
  double lifetime_saved_usd = 0;

  friend bool operator==(const FeedLedger&, const FeedLedger&) = default;
};

struct Feed {
  std::string schema = kFeedSchema;
  std::string generated_at;
  FeedOdometer odometer;
  FeedToday today;
  FeedQuota quota;
  std::vector<FeedSession> sessions;  // the last day's chats, warm first, at most 10
  int64_t zero_context_sessions = 0;
  std::vector<FeedSession> sessions_all;  // every chat, newest first
  std::vector<FeedMediaLoopActive> media_loops_active;
  FeedWindows windows;
  FeedNow now;
  std::optional<bool> parser_alarm;  // true or absent, never false
  std::optional<FeedSetupTax> setup_tax;
  FeedDiagnostics diagnostics;  // always written, empty or not
  std::optional<FeedLedger> ledger;

  friend bool operator==(const Feed&, const Feed&) = default;
};

[[nodiscard]] nlohmann::json toJson(const FeedOdometer& v);
[[nodiscard]] nlohmann::json toJson(const FeedToday& v);
[[nodiscard]] nlohmann::json toJson(const FeedQuota& v);
[[nodiscard]] nlohmann::json toJson(const FeedNow& v);
[[nodiscard]] nlohmann::json toJson(const FeedSetupTax& v);
[[nodiscard]] nlohmann::json toJson(const FeedDiagnosticsEquality& v);
[[nodiscard]] nlohmann::json toJson(const FeedDiagnostics& v);
[[nodiscard]] nlohmann::json toJson(const FeedLedger& v);
[[nodiscard]] nlohmann::json toJson(const Feed& v);

// Pretty-printed (two spaces) with sorted keys and a final line feed.
[[nodiscard]] std::string encodeFeedJSON(const Feed& feed);

// Encodes feeds one after another exactly as encodeFeedJSON does, keeping
// the text of each `sessions_all` row so that a row equal to the one
// encoded before is not encoded again. The inventory of every chat ever
// seen is the bulk of a feed and, from one second to the next, almost all
// of it is unchanged. Not thread-safe.
class FeedEncoder {
 public:
  [[nodiscard]] std::string encode(const Feed& feed);

  // Encodes the rows of `feed` that are new or changed, ahead of the encode
  // that will take them, so that it only assembles them.
  void prepareRows(const Feed& feed);

 private:
  struct EncodedRow {
    FeedSession row;
    std::string text;     // indented for its place in the array
    uint64_t usedIn = 0;  // the last encoding that used it
  };
  // The row's entry, its text brought up to date.
  EncodedRow& encodedRow(const FeedSession& row);
  std::unordered_map<std::string, EncodedRow> rows_;  // by session id
  uint64_t encodings_ = 0;
};

// A feed from its JSON, leniently for older writers:
// - `schema` is not read; the result carries the constant.
// - `windows`, `now`, `diagnostics` and `sessions_all` may be missing and
//   then read as empty.
// - In `today`, all but `spent_usd`, `avoidable_usd` and `turns` may be
//   missing and take the record's defaults.
// - In a media loop, `tokens_so_far` may be missing and reads as 0.
// Any other missing key or a wrong type is an error naming the key.
[[nodiscard]] Result<Feed> decodeFeed(const nlohmann::json& j);
[[nodiscard]] Result<Feed> decodeFeedJSON(std::string_view text);

}  // namespace ostler
