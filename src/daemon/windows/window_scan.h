// A full read of the transcript tree for the limit windows: every priced
// request as a burn event, and every limit message. From the moments the user
// was really cut off it learns each window's wall and its latest reset.
// Independent of any live state, so it can run on a background thread while
// the engine keeps polling.
#pragma once

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "daemon/engine/burn_event.h"
#include "daemon/windows/cutoff_observation.h"
#include "daemon/windows/window_shape.h"
#include "platform/file_system.h"
#include "transcript/pricing.h"

namespace ostler {
class GatheredLines;
}

namespace ostler::WindowScan {

// One limit message: an assistant line marked as an API error whose text
// names the session limit, the weekly limit, or both.
struct LimitEvent {
  InstantMs timestamp = 0;
  bool isSessionShape = false;  // the text holds "session limit"
  bool isWeeklyShape = false;   // the text holds "weekly"
  std::optional<std::string> resetsPhrase;  // from "resets" to the end

  friend bool operator==(const LimitEvent&, const LimitEvent&) = default;
};

struct Result {
  std::vector<BurnEvent> events;        // one per request, in reading order
  std::vector<LimitEvent> limitEvents;  // in reading order
};

// What the scan learned of one window.
struct ShapeFacts {
  std::optional<CutoffObservation> wall;         // the lowest burn at a cut-off, from two cut-offs on
  std::optional<InstantMs> latestResetInstant;   // reset named by the newest limit message
  std::optional<std::string> latestResetPhrase;  // that message's reset phrase

  friend bool operator==(const ShapeFacts&, const ShapeFacts&) = default;
};

struct Walls {
  ShapeFacts session;
  ShapeFacts week;
  ShapeFacts weekTopModel;

  [[nodiscard]] const ShapeFacts& of(WindowShape shape) const;

  friend bool operator==(const Walls&, const Walls&) = default;
};

// Reads every transcript under `root` from its first byte, in discovery
// order, with one set of seen request ids across files: a request repeated
// in a later file is priced once, from its first copy. Lines of one request
// make one event at the request's last line. Never fails: bad lines and
// unreadable files add nothing. Files that `gathered` holds at their present
// size are taken from there. A stop request ends the scan between files.
[[nodiscard]] Result scan(FileSystem& fs, const std::string& root, const PricingTable& pricing,
                          const GatheredLines* gathered = nullptr, const std::stop_token& stop = {});

// The facts of each window: limit messages are clustered (a burst within 120
// seconds is one cut-off), each cut-off measures the window's burn up to it,
// and the lowest of at least two such measures is the wall.
[[nodiscard]] Walls walls(const Result& result);

}  // namespace ostler::WindowScan
