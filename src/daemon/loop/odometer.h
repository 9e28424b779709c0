// The daemon's heavy figures, recomputed in the background: the lifetime
// receipt of the whole tree, today's receipt from the local day's start to
// now, the limit windows' walls, and, when asked, today's tokens by family
// from a fresh read of the tree. The tick keeps publishing from the last
// bundle while the next one is computed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <stop_token>

#include "daemon/engine/gathered_lines.h"
#include "daemon/feed/feed.h"
#include "daemon/windows/window_scan.h"
#include "meter/meter_engine.h"
#include "meter/receipt.h"

namespace ostler::Odometer {

struct Bundle {
  FeedOdometer odometer;          // the lifetime receipt's figures as the feed shows them
  Receipt lifetimeReceipt;        // the whole tree
  Receipt todayWindowedReceipt;   // from the local day's start until now
  WindowScan::Walls windowWalls;  // from a scan of the whole tree
  std::optional<std::map<std::string, int64_t>> windowedTokensByFamily;  // present only when asked for
};

// Fills the feed's figures from `lifetime` (`stamp_usd` is waste and
// mac-first summed, then rounded once) and keeps the rest as given.
[[nodiscard]] Bundle bundle(Receipt lifetime, Receipt todayWindowed, WindowScan::Walls windowWalls,
                            std::optional<std::map<std::string, int64_t>> windowedTokensByFamily);

// The meter's options for today: since `boundary` (inclusive) until `now`
// (exclusive), both written with milliseconds.
[[nodiscard]] MeterOptions todayOptions(const std::string& root, const PricingTable& pricing, InstantMs boundary,
                                        InstantMs now);

struct MeterPair {
  Receipt lifetime;
  Receipt today;
};
// The lifetime receipt and today's, on the same reading of the tree: the
// two passes differ only in their bounds, so each file is read and decoded
// once for both. `onProgress` follows the lifetime pass. Nothing when
// `reading.stop` ended it.
[[nodiscard]] std::optional<MeterPair> lifetimeAndToday(FileSystem& fs, const std::string& root,
                                                        const PricingTable& pricing, InstantMs boundary,
                                                        InstantMs now, const ProgressCallback& onProgress = nullptr,
                                                        const MeterReading& reading = {});

// The heavy pass reads the tree once for everything: the lines the window
// scan and the live engine need are gathered on the meter's reading. The
// gathered lines are bounded: past this, the rest of a larger tree is read
// from disk again. On a 500 MB tree they take about 45 MB, for the length of
// the pass.
inline constexpr size_t kGatheredBytes = size_t{128} << 20;

// Runs the lifetime pass and today's pass on one reading that also gathers
// the lines of the window scan and, with `computeWindowedTokensByFamily`, of
// a throw-away engine's read of today's tokens (in the zone `timeZoneId`);
// then those two from the gathered lines. Blocks until all is done.
// `boundary` is the start of the local day of `now`. Nothing when `stop`
// ended it early.
[[nodiscard]] std::optional<Bundle> compute(FileSystem& fs, const std::string& root, const PricingTable& pricing,
                                            InstantMs boundary, InstantMs now, bool computeWindowedTokensByFamily,
                                            const std::string& timeZoneId, std::stop_token stop = {});

}  // namespace ostler::Odometer
