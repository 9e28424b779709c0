// What the live engine saves so that a restart does not read every
// transcript again: per-file offsets and open requests, per-session state,
// today's accumulator, the rolling burns and the learned walls. A private
// cache: nothing else reads it, it may vanish at any time, and losing it,
// or finding it of another version or for another root, costs a cold start.
//
// One JSON object, compact (see persisted_state_codec.h). Instants are
// seconds since 2001-01-01 00:00:00 UTC as numbers.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "daemon/engine/burn_event.h"
#include "daemon/engine/file_media_state.h"
#include "transcript/request_id_set.h"
#include "daemon/engine/session_live_state.h"
#include "daemon/windows/window_scan.h"
#include "platform/file_system.h"
#include "platform/result.h"

namespace ostler {

struct PersistedState {
  static constexpr int64_t kVersion = 3;

  int64_t stateVersion = kVersion;
  std::string root;  // the transcript root this state belongs to
  std::map<std::string, int64_t> fileOffsets;
  std::map<std::string, FileMediaState> fileMediaState;
  std::map<std::string, SessionLiveState> sessionState;
  std::optional<std::string> quotaLastEventAt;  // raw timestamp text
  std::optional<std::string> quotaResetsNote;
  int64_t newLinesSeen = 0;
  int64_t newLinesSkipped = 0;
  std::optional<InstantMs> todayBoundary;
  double todaySpentUSD = 0;  // not rounded
  int64_t todayTurns = 0;
  std::map<std::string, int64_t> todayTokensByFamily;
  std::vector<BurnEvent> recentBurns;
  std::optional<WindowScan::Walls> cachedWalls;
  std::map<std::string, std::string> subagentLastModel;
  std::vector<std::string> seenRequestIds;  // a set, in no fixed order

  friend bool operator==(const PersistedState&, const PersistedState&) = default;
};

// The same fields borrowed from where they live, so that saving an engine's
// state does not copy it first. Valid while its owner is left unchanged.
struct PersistedStateView {
  int64_t stateVersion = PersistedState::kVersion;
  const std::string& root;
  const std::map<std::string, int64_t>& fileOffsets;
  const std::map<std::string, FileMediaState>& fileMediaState;
  const std::map<std::string, SessionLiveState>& sessionState;
  const std::optional<std::string>& quotaLastEventAt;
  const std::optional<std::string>& quotaResetsNote;
  int64_t newLinesSeen = 0;
  int64_t newLinesSkipped = 0;
  std::optional<InstantMs> todayBoundary;
  double todaySpentUSD = 0;
  int64_t todayTurns = 0;
  const std::map<std::string, int64_t>& todayTokensByFamily;
  const std::vector<BurnEvent>& recentBurns;
  const std::optional<WindowScan::Walls>& cachedWalls;
  const std::map<std::string, std::string>& subagentLastModel;
  const RequestIdSet& seenRequestIds;
};

namespace PersistedStateIO {

inline constexpr const char* kScratchDirectory = "/tmp/ladder-daemon-scratch";

// "/tmp/ladder-daemon-scratch/state-{sha256 of root, lowercase hex}.json":
// one file per root string, so "/a" and "/a/" have different files.
[[nodiscard]] std::string defaultPath(const std::string& root);

// Writes `state` atomically to `path`, creating its folder. Returns the
// bytes written; on failure any earlier file stays whole.
[[nodiscard]] Result<uint64_t> save(FileSystem& fs, const PersistedState& state, const std::string& path);
[[nodiscard]] Result<uint64_t> save(FileSystem& fs, const PersistedStateView& state, const std::string& path);

// The state at `path` when it reads, decodes, has version 3 and belongs to
// `expectedRoot`; nothing otherwise, never an error.
[[nodiscard]] std::optional<PersistedState> load(FileSystem& fs, const std::string& path,
                                                 const std::string& expectedRoot);

}  // namespace PersistedStateIO
}  // namespace ostler
