// The state shared by the daemon's tick and its background recompute.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "daemon/feed/feed.h"
#include "daemon/loop/failure_notice.h"
#include "daemon/loop/odometer.h"
#include "daemon/windows/window_scan.h"

namespace ostler::Daemon {

// How long a diverged today check has stayed put.
struct OutOfBandBackoffState {
  int64_t consecutiveSmallMoves = 0;      // recomputes in a row that moved the residual less than a cent
  std::optional<double> lastResidualUSD;  // the diff of the last recompute

  friend bool operator==(const OutOfBandBackoffState&, const OutOfBandBackoffState&) = default;
};

// `stateLock` guards every field but the last. It is held only to read or
// store these values: never across a meter run, a poll or a file write.
class TickState {
 public:
  std::mutex stateLock;
  std::shared_ptr<const Odometer::Bundle> odometerBundle;  // the latest heavy figures; shared, never changed
  InstantMs lastOdometerAt = kEarliestInstant;  // when that bundle was finished
  bool odometerInFlight = false;                // a recompute is running
  InstantMs lastPersistAt = kEarliestInstant;   // when state was last saved
  std::optional<FeedDiagnosticsEquality> lastEqualityDiagnostics;
  OutOfBandBackoffState outOfBandBackoff;
  // Walls of a finished recompute not yet handed to the engine. The engine
  // has no lock, so the recompute leaves them here and the tick, the one
  // thread that uses the engine, takes them over between polls: a snapshot
  // sees the old walls or the new ones, never a mix.
  std::optional<WindowScan::Walls> pendingWalls;

  // Tick thread only: the tick instant of the last feed written, and the
  // chats touched since the last feed was assembled (a tick that writes no
  // feed assembles none).
  std::optional<InstantMs> lastFeedAt;
  std::set<std::string> touchedSinceLastFeed;
  // The daemon's own failures, each said when it begins and when it ends.
  FailureNotice feedNotice;
  FailureNotice stateNotice;
  std::set<std::string> unreadableSaid;  // the unreadable transcripts last said
};

}  // namespace ostler::Daemon
