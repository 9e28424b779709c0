#include "meter/bash_scan.h"

#include "meter/meter_line.h"
#include "meter/repeat_pipelines.h"
#include "transcript/request_runs.h"

namespace ostler {

void BashOccurrences::beginFile() {
  openRequest_.reset();
  openIsRepeat_ = false;
}

void BashOccurrences::count(const std::vector<BashScanLine>& lines) {
  for (const BashScanLine& line : lines) {
    if (!bounds_.contains(line.timestamp, line.instant)) continue;
    // Only lines that make or continue a turn count, as pass two decides.
    const std::string_view id = line.requestId.value_or(std::string_view{});
    if (!RequestRuns::continues(openRequest_, id)) (void)RequestRuns::start(openRequest_, openIsRepeat_, id, seen_);
    if (openIsRepeat_) continue;
    for (uint64_t hash : line.templateHashes) {
      occurrences_[hash].push_back(counter_);
      agg_.r2TemplateForIndex.push_back(hash);
      ++counter_;
    }
  }
}

void BashOccurrences::finish() {
  agg_.r2QualifyingIndices.assign(static_cast<size_t>(counter_), false);
  for (const auto& [hash, list] : occurrences_) {
    if (list.size() < 3) continue;
    agg_.r2TemplateOccCount[hash] = static_cast<int64_t>(list.size());
    for (size_t k = 1; k < list.size(); ++k) agg_.r2QualifyingIndices[static_cast<size_t>(list[k])] = true;
  }
}

// One slice's assistant lines, dated, with their Bash templates.
class BashScanFold::ScanSlice final : public TreeFold::Slice {
 public:
  void line(const ReadLine& read) override {
    if (read.decoded == nullptr || !decodes(*read.decoded, kMeterReading)) return;
    const RawTranscriptLine& raw = *read.decoded;
    if (raw.type != "assistant") return;
    BashScanLine& out = lines_.emplace_back();
    if (raw.requestId) out.requestId = strings_.store(*raw.requestId);
    if (raw.timestamp) {
      out.timestamp = strings_.store(*raw.timestamp);
      out.instant = raw.instant;
    }
    const auto* blocks = contentFor(raw, kMeterReading);
    if (blocks == nullptr) return;
    for (const auto& block : *blocks)
      if (block.type == "tool_use" && block.name == "Bash" && block.input && block.input->command)
        out.templateHashes.push_back(templateHash(*block.input->command));
  }

  [[nodiscard]] const std::vector<BashScanLine>& lines() const { return lines_; }
  void clear() {
    lines_.clear();
    strings_.clear();
  }

 private:
  std::vector<BashScanLine> lines_;
  StringArena strings_{16 * 1024};  // holds the request ids and stamps
};

std::unique_ptr<TreeFold::Slice> BashScanFold::startSlice(const TranscriptFile&, const FileSlice&) {
  std::unique_ptr<Slice> share = spent_.take();
  if (!share) return std::make_unique<ScanSlice>();
  static_cast<ScanSlice&>(*share).clear();
  return share;
}

void BashScanFold::beginFile(const TranscriptFile&) {
  opened_ = false;
  for (auto& c : counts_) c.beginFile();
}

void BashScanFold::foldSlice(const TranscriptFile&, const FileSlice& slice, std::unique_ptr<Slice> share,
                             const SliceEnd& end) {
  // A file that cannot be opened counts nothing, whatever later slices find.
  if (slice.index == 0) opened_ = end.opened;
  if (share && opened_)
    for (auto& c : counts_) c.count(static_cast<const ScanSlice&>(*share).lines());
  if (share) spent_.give(std::move(share));
}

void BashScanFold::endFile(const TranscriptFile&) {
  if (!opened_) return;
  ++filesOpened_;
  if (onProgress_ && throttle_.shouldReport(filesOpened_ == totalFiles_)) onProgress_({filesOpened_, totalFiles_, 0});
}

void BashScanFold::endReading(bool completed) {
  if (!completed) return;
  for (auto& c : counts_) c.finish();
}

}  // namespace ostler
