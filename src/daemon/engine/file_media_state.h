// The live record of one transcript file: its image run and the request that
// its last assistant line left open. Kept per file because the lines of one
// request stand next to each other in one file, while a chat's subagent
// files each carry a request of their own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "transcript/iso8601.h"

namespace ostler {

struct FileMediaState {
  std::string sessionId;            // owner session
  int64_t pendingImageTokens = 0;   // estimated tokens of images not yet answered
  int64_t pendingImageCount = 0;    // images not yet answered
  int64_t runImageCount = 0;        // images in the current run
  double runUsdSoFar = 0;           // input-rate cost of the run's images
  int64_t runTokensSoFar = 0;       // tokens of the run's images
  std::optional<InstantMs> runLastImageAt;  // timestamp of the newest image line
  int64_t nonImageStreak = 0;       // user lines without image since the last image line

  // The request of the previous assistant line, and how it was folded.
  std::optional<std::string> openRequestId;
  double openCostUSD = 0;           // cost of the previous line at its running total
  int64_t openContextTokens = 0;    // context tokens of the previous line
  int64_t openOutputTokens = 0;     // output tokens of the previous line
  std::optional<std::string> openFamily;  // model family of the previous line
  bool openCountsForToday = false;  // the previous line passed the today gate
  bool openIsStub = true;           // the previous line had no tokens at all
  bool openTurnCounted = false;     // this request has added to today's turns
  bool openIsDuplicate = false;     // this request was refused as already seen

  friend bool operator==(const FileMediaState&, const FileMediaState&) = default;
};

}  // namespace ostler
