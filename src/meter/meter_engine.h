// The metering pass: one call reads a whole transcript tree and prices every
// API request into a Receipt. It runs two passes over the tree's lines, in
// the same order: pass one numbers repeated shell commands over the whole
// tree, pass two folds every line into its session and the session into the
// receipt. Alone, it reads the tree twice and holds one session at a time,
// so its memory does not grow with the tree. Sharing its reading with the
// folds of other readers, it folds both passes from that one reading,
// holding each finished session until pass one has counted the whole tree,
// as far as a memory budget allows; the rest of a larger tree is read again.
//
// Stateless: everything a pass accumulates lives in its own aggregator, so
// passes may run at once. Reading and decoding run on worker threads; the
// folds alone are sequential, in file order, so figures never depend on
// timing.
#pragma once

#include <cstdint>
#include <optional>
#include <stop_token>
#include <vector>

#include "meter/loop_detail.h"
#include "meter/meter_options.h"
#include "meter/receipt.h"
#include "platform/clock.h"
#include "platform/file_system.h"
#include "transcript/unreadable.h"

namespace ostler {

class TreeFold;

struct MeterRun {
  Receipt receipt;
  std::vector<MediaLoopDetailRecord> loopDetail;  // every media loop, largest first
  // The tree's files and folders that could not be read: passed over, and
  // no part of the receipt.
  Unreadable unreadable;
};

// How a run reads the tree.
struct MeterReading {
  // Folds of other readers of the same tree, registered on the run's first
  // reading, which then folds both passes: they get every file once, in
  // metering order.
  std::vector<TreeFold*> alsoFold = {};
  // On a shared reading, what the sessions waiting for pass one may hold;
  // past it, the rest of the tree is folded on a second reading. About 64 MB
  // holds the sessions of a 1 GB tree.
  static constexpr uint64_t kDefaultHoldBytes = uint64_t{64} << 20;
  uint64_t holdBytes = kDefaultHoldBytes;
  // Ends the run early, between slices of the files.
  std::stop_token stop = {};
};

namespace MeterEngine {

// A full pass. Cannot fail: unreadable files and bad lines are passed over
// or counted.
[[nodiscard]] Receipt run(FileSystem& fs, const MeterOptions& options, const ProgressCallback& onProgress = nullptr,
                          const Clock& clock = systemClock());

// The same pass, also returning every media loop.
[[nodiscard]] MeterRun runWithLoopDetail(FileSystem& fs, const MeterOptions& options,
                                         const ProgressCallback& onProgress = nullptr,
                                         const Clock& clock = systemClock());

// Several passes over the same tree with their own bounds (and tables), on
// the same readings: each file is read and decoded once per reading and
// folded into every pass. All passes read the root of the first; the results
// come in the order of `passes`, each exactly as its own run would give it.
// Progress is that of the first pass. Nothing when `reading.stop` ended it.
[[nodiscard]] std::optional<std::vector<MeterRun>> runAll(FileSystem& fs, const std::vector<MeterOptions>& passes,
                                                          const ProgressCallback& onProgress = nullptr,
                                                          const Clock& clock = systemClock(),
                                                          const MeterReading& reading = {});

}  // namespace MeterEngine
}  // namespace ostler
