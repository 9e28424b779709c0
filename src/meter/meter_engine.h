// The metering pass: one call reads a whole transcript tree and prices every
// API request into a Receipt. It reads every file twice, in the same order:
// pass one numbers repeated shell commands over the whole tree, pass two
// folds every line into its session and the session into the pass.
// Stateless: everything a pass accumulates lives in its own aggregator, so
// passes may run at once. Reading and decoding run on worker threads; the
// fold alone is sequential, in file order, so figures never depend on timing.
#pragma once

#include <string>
#include <vector>

#include "meter/meter_line.h"
#include "meter/meter_options.h"
#include "meter/meter_state.h"
#include "meter/receipt.h"
#include "meter/session_discovery.h"
#include "platform/clock.h"

namespace ostler {

// Drops progress reports that come less than 0.1 s after the previous one.
class ProgressThrottle {
 public:
  explicit ProgressThrottle(const Clock& clock) : clock_(clock) {}
  // Whether a report should go out now; `force` always reports.
  bool shouldReport(bool force);

 private:
  const Clock& clock_;
  bool reported_ = false;
  double last_ = 0;
};

// The lines of one file, digested for pass two; `opened` is false when the
// file could not be opened.
struct FileDigest {
  bool opened = false;
  std::vector<MeterLine> lines;  // decoded and skipped lines; blank ones are left out
};

// What pass one takes from one file.
struct FileBashScan {
  bool opened = false;
  std::vector<BashScanLine> lines;
};

[[nodiscard]] FileDigest digestFile(const std::string& path, const RangeBounds& bounds);
[[nodiscard]] FileBashScan scanFileForBash(const std::string& path, const RangeBounds& bounds);

struct MeterRun {
  Receipt receipt;
  std::vector<MediaLoopDetailRecord> loopDetail;
};

namespace MeterEngine {

// A full pass. Cannot fail: unreadable files and bad lines are passed over
// or counted.
[[nodiscard]] Receipt run(const MeterOptions& options, const ProgressCallback& onProgress = nullptr,
                          const Clock& clock = systemClock());

// The same pass, also returning every media loop, largest first.
[[nodiscard]] MeterRun runWithLoopDetail(const MeterOptions& options, const ProgressCallback& onProgress = nullptr,
                                         const Clock& clock = systemClock());

}  // namespace MeterEngine

// Pass one: numbers every Bash occurrence and marks the repeats.
void scanBashOccurrences(const std::vector<SessionGroup>& groups, const MeterOptions& options,
                         GlobalAggregator& agg, int64_t totalFiles, const ProgressCallback& onProgress,
                         const Clock& clock);

// Folds one file's lines into the session.
void processFile(const FileDigest& digest, const std::string& path, SessionState& state, bool isSubagentFile,
                 const MeterOptions& options, GlobalAggregator& agg);

// Reads and folds every file of a group, then finalizes the session.
void processSessionGroup(const SessionGroup& group, const MeterOptions& options, GlobalAggregator& agg);

}  // namespace ostler
