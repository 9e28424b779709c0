// The metering pass: one call reads a whole transcript tree and prices every
// API request into a Receipt. It reads every file twice, in the same order:
// pass one numbers repeated shell commands over the whole tree, pass two
// folds every line into its session and the session into the pass.
// Stateless: everything a pass accumulates lives in its own aggregator, so
// passes may run at once. Reading and decoding run on worker threads; the
// fold alone is sequential, in file order, so figures never depend on timing.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <simdjson.h>

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

// What pass one takes from one slice of a file.
struct FileBashScan {
  bool opened = false;
  std::vector<BashScanLine> lines;
  StringArena strings;  // holds the request ids
};

// A file is read in slices so that both cores share a large file and the
// lines decoded ahead of the fold stay few: a slice holds the lines that
// start within [begin, end). The last slice of a file reads to its end.
struct FileSlice {
  uint64_t begin = 0;
  uint64_t end = 0;
  uint32_t index = 0;  // within its file
};

// Slices of `fileSize` bytes at most `sliceBytes` long; one for an empty or
// unreadable file.
[[nodiscard]] std::vector<FileSlice> sliceFile(uint64_t fileSize, uint64_t sliceBytes);

// Pass two's digest of one slice. Line numbers keep the file's order across
// slices (the slice index in the high bits). `storage` is a spent digest
// whose buffers are reused.
[[nodiscard]] FileDigest digestFile(const std::string& path, const FileSlice& slice = {0, UINT64_MAX, 0},
                                    FileDigest storage = {});
// Pass one's reading of one slice: its assistant lines, dated.
[[nodiscard]] FileBashScan scanFileForBash(const std::string& path, const FileSlice& slice = {0, UINT64_MAX, 0});

struct MeterRun {
  Receipt receipt;
  std::vector<MediaLoopDetailRecord> loopDetail;
};

// Another reader's share of the meter's first reading of the tree: a caller
// that needs the same lines for its own purpose takes them from the parse
// the meter makes anyway, so that the tree is read and parsed once.
class LineTap {
 public:
  // The meter's own decoding of a line, so that a reader of the same keys
  // need not decode them again, nor measure the same images.
  struct MeterReading {
    const RawTranscriptLine& raw;
    int64_t imageCount = 0;   // of a user line, as the meter counted them
    int64_t imageTokens = 0;
  };

  // One slice's lines, gathered on a worker thread.
  class Slice {
   public:
    virtual ~Slice() = default;
    // Every line of the slice in order, blank ones too: its bytes are
    // [begin, end) of the file, `end` past the line feed when `terminated`.
    // `root` is the parsed line, null when it is blank or not JSON; `meter`
    // is null when the meter's decoding failed. All are valid during the
    // call only.
    virtual void line(uint64_t begin, uint64_t end, bool terminated, std::string_view trimmed,
                      const simdjson::dom::object* root, const MeterReading* meter) = 0;
  };

  virtual ~LineTap() = default;
  // Called on worker threads, at once.
  [[nodiscard]] virtual std::unique_ptr<Slice> openSlice() const = 0;
  // Called on the meter's calling thread: every slice of a file in order,
  // files in the meter's order; `lastOfFile` marks the file's last. `readEnd`
  // is where the slice's reading stopped (the file's end for its last
  // slice). `slice` is null when the slice could not be opened or was cut
  // off before its end.
  virtual void take(const std::string& path, uint64_t readEnd, std::unique_ptr<Slice> slice, bool lastOfFile) = 0;
  // Called on the meter's calling thread once every slice is taken, before
  // sessions are finalised.
  virtual void readingDone() {}
};

// How a run reads the tree. The default reads every file twice and holds
// memory that does not grow with the tree.
struct ReadingOptions {
  // Reads and parses every file once and folds both passes from it. Each
  // session is then held until the whole tree has been counted, since only
  // then is it known which commands repeat: memory grows with the tree's
  // turns.
  bool readOnce = false;
  // Fed from the reading, which then reads once.
  LineTap* tap = nullptr;
};

namespace MeterEngine {

// A full pass. Cannot fail: unreadable files and bad lines are passed over
// or counted.
[[nodiscard]] Receipt run(const MeterOptions& options, const ProgressCallback& onProgress = nullptr,
                          const Clock& clock = systemClock());

// The same pass, also returning every media loop, largest first.
[[nodiscard]] MeterRun runWithLoopDetail(const MeterOptions& options, const ProgressCallback& onProgress = nullptr,
                                         const Clock& clock = systemClock());

// Several passes over the same tree with their own bounds (and tables), on
// one reading of it: each file is read and decoded once and folded into
// every pass. All passes read the root of the first; the results come in the
// order of `passes`, each exactly as its own run would give it. Progress is
// that of the first pass.
[[nodiscard]] std::vector<MeterRun> runAll(const std::vector<MeterOptions>& passes,
                                           const ProgressCallback& onProgress = nullptr,
                                           const Clock& clock = systemClock(), const ReadingOptions& reading = {});

}  // namespace MeterEngine

// Pass one: numbers every Bash occurrence in range and marks the repeats.
void scanBashOccurrences(const std::vector<SessionGroup>& groups, const MeterOptions& options,
                         GlobalAggregator& agg, int64_t totalFiles, const ProgressCallback& onProgress,
                         const Clock& clock);

// Folds one file's lines into a session, as three steps so that one
// digest can serve several passes: `beginFile` before the first slice,
// `foldFileLines` for each slice in order, `endFile` after the last.
struct FileFold {
  SessionState* state;
  GlobalAggregator* agg;
  const MeterOptions* options;
  const RangeBounds* bounds;
  std::string path;
  bool isSubagentFile = false;
  std::string lastSessionId;  // ids repeat line after line; each run is noted once
};
void beginFile(FileFold& fold);
void foldFileLines(const FileDigest& digest, FileFold& fold);
void endFile(FileFold& fold);

// Reads and folds every file of a group, then finalizes the session.
void processSessionGroup(const SessionGroup& group, const MeterOptions& options, GlobalAggregator& agg);

}  // namespace ostler
