// The live record of one chat, kept by session id and fed by the chat's
// top-level file and its subagent files alike.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "transcript/iso8601.h"
#include "transcript/pricing.h"

namespace ostler {

// The usage of a chat's earliest turn with tokens: what loading the chat
// cost before any work was done.
struct SetupTaxCapture {
  std::optional<std::string> requestId;  // the request it came from
  int64_t input = 0;
  int64_t output = 0;
  int64_t cacheRead = 0;
  int64_t cache5m = 0;
  int64_t cache1h = 0;
  std::string model;

  friend bool operator==(const SetupTaxCapture&, const SetupTaxCapture&) = default;
};

struct SessionLiveState {
  std::string project;         // last path component of the first non-empty cwd; empty until seen
  std::string projectDirPath;  // the project directory from discovery
  std::optional<InstantMs> lastActivity;  // newest timestamp of any assistant line
  std::string lastModel;                  // model of the newest turn with usage
  int64_t lastContextTokens = 0;          // context size of that turn
  std::optional<InstantMs> contextTurnAt;     // timestamp of that turn
  std::optional<InstantMs> lastCacheWriteAt;  // newest turn that wrote cache
  bool lastCacheWriteWasEphemeral1h = false;  // that write had one-hour tokens
  std::optional<InstantMs> setupTaxAt;        // timestamp of the earliest turn with usage
  std::optional<SetupTaxCapture> setupTax;    // usage of that turn
  std::optional<std::string> customTitle;     // from "custom-title" lines
  std::optional<std::string> aiTitle;         // from "ai-title" lines
  std::optional<std::string> firstUserMessage;  // first typed words, one line, at most 80 characters

  // Keeps the earliest turn with usage. A further line of the captured
  // request replaces its counts (a request's figure is its last line); a turn
  // earlier than the capture, as a file read later may hold, replaces it.
  void considerForSetupTax(InstantMs ts, const std::optional<std::string>& requestId, std::string_view model,
                           const TurnUsage& usage);

  friend bool operator==(const SessionLiveState&, const SessionLiveState&) = default;
};

// The name of a project directory for display: its last path component
// without leading "-" characters.
[[nodiscard]] std::string fallbackProject(std::string_view projectDirPath);

}  // namespace ostler
