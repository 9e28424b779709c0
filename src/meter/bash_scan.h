// Pass one of a metering run: every Bash command of the tree's assistant
// lines, numbered in reading order, so that pass two can tell which turns ran
// a command template seen three times or more. Whether a command repeats
// depends on its runs later in the tree, so no turn is attributed before
// this pass has counted the whole tree.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "meter/meter_options.h"
#include "meter/meter_state.h"
#include "transcript/recycler.h"
#include "transcript/string_arena.h"
#include "transcript/tree_reading.h"

namespace ostler {

// What pass one takes from an assistant line.
struct BashScanLine {
  std::optional<std::string_view> requestId;  // views into its slice's strings
  std::optional<std::string_view> timestamp;
  std::optional<InstantMs> instant;      // the timestamp, parsed
  std::vector<uint64_t> templateHashes;  // one per Bash call with a command, in block order
};

// Pass one's count for one pass of a run: occurrences numbered over the
// lines within the pass's bounds, each request counted once, with a set of
// request ids of its own.
class BashOccurrences {
 public:
  BashOccurrences(const RangeBounds& bounds, GlobalAggregator& agg) : bounds_(bounds), agg_(agg) {}

  void beginFile();
  void count(const std::vector<BashScanLine>& lines);
  // A template run three times or more qualifies every run but its first.
  void finish();

 private:
  const RangeBounds& bounds_;
  GlobalAggregator& agg_;
  std::unordered_map<uint64_t, std::vector<int64_t>> occurrences_;
  IdSet seen_;
  int64_t counter_ = 0;
  std::optional<std::string> openRequest_;  // the file's
  bool openIsRepeat_ = false;
};

// Pass one as a fold of a tree reading: it reads assistant lines only, and
// counts every opened file for each pass of `counts`, reporting progress.
class BashScanFold final : public TreeFold {
 public:
  BashScanFold(std::vector<BashOccurrences>& counts, int64_t totalFiles, const ProgressCallback& onProgress,
               const Clock& clock)
      : counts_(counts), totalFiles_(totalFiles), onProgress_(onProgress), throttle_(clock) {}

  [[nodiscard]] Interest interest() const override { return Interest::kAssistantLines; }
  [[nodiscard]] std::unique_ptr<Slice> startSlice(const TranscriptFile& file, const FileSlice& slice) override;
  void beginFile(const TranscriptFile& file) override;
  void foldSlice(const TranscriptFile& file, const FileSlice& slice, std::unique_ptr<Slice> share,
                 const SliceEnd& end) override;
  void endFile(const TranscriptFile& file) override;
  void endReading(bool completed) override;

 private:
  class ScanSlice;

  std::vector<BashOccurrences>& counts_;
  const int64_t totalFiles_;
  ProgressCallback onProgress_;
  ProgressThrottle throttle_;
  Recycler<std::unique_ptr<Slice>> spent_;
  bool opened_ = false;  // the file being folded could be opened
  int64_t filesOpened_ = 0;
};

}  // namespace ostler
