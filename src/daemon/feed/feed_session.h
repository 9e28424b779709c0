// One chat's row in the feed, and the active image loops. Keys are
// snake_case but for `sessionId`; optional keys are left out when absent.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace ostler {

// How far the closeout pipeline has digested a chat.
struct FeedPromptState {
  std::string state;                        // "warming", "quiet" or "ready"
  std::optional<int64_t> percent;           // warming only: share of the transcript digested
  std::optional<int64_t> estimate_seconds;  // warming only: time to digest the rest

  friend bool operator==(const FeedPromptState&, const FeedPromptState&) = default;
};

// The cache of a chat the user is at is about to expire.
struct FeedNudgeState {
  std::string state = "warning";
  int64_t seconds_remaining = 0;

  friend bool operator==(const FeedNudgeState&, const FeedNudgeState&) = default;
};

struct FeedSession {
  std::string sessionId;
  std::string project;
  int64_t context_tokens = 0;  // context of the newest turn with usage
  std::string temperature;     // "warm" or "cold"
  double rewarm_usd = 0;       // resuming: the context written to the cache again
  double fresh_usd = 0;        // a fresh chat's first prompt
  std::string last_activity;   // instant of the newest assistant line
  int64_t active_dispatches = 0;  // subagent files written in the last minute
  std::optional<FeedPromptState> prompt_state;
  std::optional<FeedNudgeState> nudge_state;

  friend bool operator==(const FeedSession&, const FeedSession&) = default;
};

// A run of images still growing in one file.
struct FeedMediaLoopActive {
  std::string sessionId;
  std::string project;
  int64_t images = 0;
  double usd_so_far = 0;  // rounded to six places
  int64_t tokens_so_far = 0;

  friend bool operator==(const FeedMediaLoopActive&, const FeedMediaLoopActive&) = default;
};

[[nodiscard]] nlohmann::json toJson(const FeedPromptState& v);
[[nodiscard]] nlohmann::json toJson(const FeedNudgeState& v);
[[nodiscard]] nlohmann::json toJson(const FeedSession& v);
[[nodiscard]] nlohmann::json toJson(const FeedMediaLoopActive& v);

// Strict but where noted; these throw JsonFields::DecodeError.
[[nodiscard]] FeedPromptState feedPromptStateFromJson(const nlohmann::json& j);
[[nodiscard]] FeedNudgeState feedNudgeStateFromJson(const nlohmann::json& j);
[[nodiscard]] FeedSession feedSessionFromJson(const nlohmann::json& j);
// `tokens_so_far` may be missing (older writers) and then reads as 0.
[[nodiscard]] FeedMediaLoopActive feedMediaLoopActiveFromJson(const nlohmann::json& j);

}  // namespace ostler
