#include "meter/meter_engine.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>

#include "meter/attribution.h"
#include "meter/build_receipt.h"
#include "meter/byte_search.h"
#include "meter/line_reader.h"
#include "meter/ordered_work.h"
#include "meter/recycler.h"
#include "meter/repeat_pipelines.h"
#include "meter/text.h"
#include "meter/turn_accounting.h"

namespace ostler {
namespace {

// Slices decoded ahead of the fold, by count and by bytes of the files: the
// bytes bound the memory held in digests, whatever the size of the tree. A
// reading that folds both passes goes further ahead through runs of small
// files, so that the worker is not held up while the heavier fold works
// through a large slice; the two-reading run keeps the shallower window that
// holds its memory low.
constexpr size_t kWindow = 6;
constexpr size_t kReadOnceWindow = 16;
constexpr uint64_t kSliceBytes = 2 << 20;
constexpr uint64_t kAheadBytes = 6 * kSliceBytes;

TranscriptLineDecoder& threadDecoder() {
  thread_local TranscriptLineDecoder decoder;
  return decoder;
}

// The consumer decodes too whenever the next slice is not under way, so one
// core is left to it.
size_t workerThreads() {
  unsigned n = std::thread::hardware_concurrency();
  return n <= 1 ? 1 : n - 1;
}

// One file of the pass, in reading order, and where its slices start in the
// pass's list of slices.
struct FileTask {
  const SessionGroup* group;
  const std::string* path;
  bool isSubagent;
  size_t firstSlice;
  size_t sliceCount;
};

struct Plan {
  std::vector<FileTask> files;
  std::vector<std::pair<const std::string*, FileSlice>> slices;
  std::vector<uint64_t> sliceBytes;  // of the file, as its size was at the start
};

uint64_t fileSize(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || st.st_size < 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

Plan planFiles(const std::vector<SessionGroup>& groups) {
  Plan plan;
  auto add = [&](const SessionGroup& g, const std::string& path, bool isSubagent) {
    const uint64_t size = fileSize(path);
    std::vector<FileSlice> slices = sliceFile(size, kSliceBytes);
    plan.files.push_back({&g, &path, isSubagent, plan.slices.size(), slices.size()});
    for (const auto& s : slices) {
      plan.slices.emplace_back(&path, s);
      plan.sliceBytes.push_back(std::min(s.end, size) - std::min(s.begin, size));
    }
  };
  for (const auto& g : groups) {
    if (g.mainFile) add(g, *g.mainFile, false);
    for (const auto& f : g.subagentFiles) add(g, f, true);
  }
  return plan;
}

// A slice is read in chunks smaller than the reader's default: its reader
// reads on past the slice's end to finish its last line, so this bounds the
// bytes read twice, and a chunk is still in the core's cache when its lines
// are parsed. The tree is read from memory, not disk, so smaller reads cost
// little in calls.
constexpr size_t kSliceChunkBytes = 256 << 10;

// Opens `path` at the first line that starts within the slice.
std::optional<LineReader> openSlice(const std::string& path, const FileSlice& slice) {
  if (slice.begin == 0) return LineReader::open(path, kSliceChunkBytes);
  // Start one byte early: the line that holds that byte began in an earlier
  // slice (or ends right there), so it is dropped.
  auto reader = LineReader::openAt(path, slice.begin - 1, kSliceChunkBytes);
  if (reader) (void)reader->nextLine();
  return reader;
}

std::vector<SessionGroup> sortedGroups(const std::string& root) {
  auto groups = discoverSessionGroups(root);
  for (auto& g : groups) std::sort(g.subagentFiles.begin(), g.subagentFiles.end());
  return groups;
}

}  // namespace

std::vector<FileSlice> sliceFile(uint64_t size, uint64_t sliceBytes) {
  std::vector<FileSlice> slices;
  const uint64_t count = size == 0 ? 1 : (size + sliceBytes - 1) / sliceBytes;
  for (uint64_t i = 0; i < count; ++i)
    slices.push_back({i * sliceBytes, i + 1 == count ? UINT64_MAX : (i + 1) * sliceBytes, static_cast<uint32_t>(i)});
  return slices;
}

bool ProgressThrottle::shouldReport(bool force) {
  double now = clock_.monotonicSeconds();
  if (reported_ && !force && now - last_ < 0.1) return false;
  reported_ = true;
  last_ = now;
  return true;
}

namespace {

void appendBashScanLine(const RawTranscriptLine& raw, FileBashScan& scan);

struct SliceRead {
  uint64_t end = 0;        // where the reading stopped
  bool cutShort = false;   // it ran out before the slice's end
};

// Reads and parses each line of a slice once, for pass two's `digest` and,
// when given, pass one's `bash` scan and a tap. `digest` is emptied first;
// its `opened` tells whether the file opened.
SliceRead readSlice(const std::string& path, const FileSlice& slice, FileDigest& digest, FileBashScan* bash,
                    LineTap::Slice* tap) {
  digest.clear();
  SliceRead read;
  auto reader = openSlice(path, slice);
  if (!reader) return read;
  digest.opened = true;
  JsonLineParser& parser = threadDecoder().parser();
  RawTranscriptLine raw;
  int64_t lineNumber = int64_t{slice.index} << 32;
  while (reader->nextLineOffset() < slice.end) {
    const uint64_t begin = reader->nextLineOffset();
    auto line = reader->nextLine();
    if (!line) {
      read.cutShort = slice.end != UINT64_MAX;
      break;
    }
    ++lineNumber;
    const uint64_t end = reader->nextLineOffset();
    std::string_view trimmed = text::trimSpacesAndTabs(*line);
    std::optional<simdjson::dom::object> root;
    std::optional<LineTap::MeterReading> reading;
    if (!trimmed.empty()) {
      root = parser.parse(trimmed, true);
      if (root && decodeRawTranscriptLine(*root, &raw)) {
        appendDigestLine(raw, lineNumber, digest);
        if (bash != nullptr) appendBashScanLine(raw, *bash);
        if (tap != nullptr)
          reading.emplace(LineTap::MeterReading{raw, digest.lines.back().imageCount, digest.lines.back().imageTokens});
      } else {
        appendSkippedLine(lineNumber, digest);
      }
    }
    if (tap != nullptr)
      tap->line(begin, end, end > begin + line->size(), trimmed, root ? &*root : nullptr,
                reading ? &*reading : nullptr);
  }
  read.end = reader->nextLineOffset();
  return read;
}

}  // namespace

FileDigest digestFile(const std::string& path, const FileSlice& slice, FileDigest storage) {
  FileDigest digest = std::move(storage);
  (void)readSlice(path, slice, digest, nullptr, nullptr);
  finishDigest(digest);
  return digest;
}

namespace {

void appendBashScanLine(const RawTranscriptLine& raw, FileBashScan& scan) {
  if (raw.type != "assistant") return;
  BashScanLine& out = scan.lines.emplace_back();
  if (raw.requestId) out.requestId = scan.strings.store(*raw.requestId);
  if (raw.timestamp) {
    out.timestamp = scan.strings.store(*raw.timestamp);
    out.instant = ISO8601::parse(*raw.timestamp);
  }
  if (!raw.message || !raw.message->content) return;
  for (const auto& block : *raw.message->content) {
    if (block.type == "tool_use" && block.name == "Bash" && block.input && block.input->command)
      out.templateHashes.push_back(templateHash(*block.input->command));
  }
}

}  // namespace

FileBashScan scanFileForBash(const std::string& path, const FileSlice& slice) {
  FileBashScan scan;
  auto reader = openSlice(path, slice);
  if (!reader) return scan;
  scan.opened = true;
  TranscriptLineDecoder& decoder = threadDecoder();
  RawTranscriptLine raw;
  while (reader->nextLineOffset() < slice.end) {
    auto line = reader->nextLine();
    if (!line) break;
    std::string_view trimmed = text::trimSpacesAndTabs(*line);
    if (trimmed.empty() || !mayBeAssistantLine(trimmed)) continue;
    if (decoder.decode(trimmed, true, &raw)) appendBashScanLine(raw, scan);
  }
  return scan;
}

namespace {

// One slice read for both passes at once: pass one's scan and pass two's
// digest from a single parse of each line, and the tap's share.
struct SliceReading {
  FileBashScan bash;
  FileDigest digest;
  std::unique_ptr<LineTap::Slice> tap;
  uint64_t readEnd = 0;
};

SliceReading readSliceOnce(const std::string& path, const FileSlice& slice, const LineTap* tap, FileDigest storage) {
  SliceReading r;
  r.digest = std::move(storage);
  if (tap != nullptr) r.tap = tap->openSlice();
  const SliceRead read = readSlice(path, slice, r.digest, &r.bash, r.tap.get());
  r.readEnd = read.end;
  r.bash.opened = r.digest.opened;
  // Unopened, or short of its end (the file shrank, or a read failed), a
  // slice must not be taken for whole.
  if (!r.digest.opened || read.cutShort) r.tap.reset();
  finishDigest(r.digest);
  return r;
}

}  // namespace

namespace {

// Pass one for one pass of a reading: occurrences numbered over the lines in
// its range, with its own set of request ids.
class BashOccurrences {
 public:
  BashOccurrences(const RangeBounds& bounds, GlobalAggregator& agg) : bounds_(bounds), agg_(agg) {}

  void beginFile() {
    current_.reset();
    currentIsRepeat_ = false;
  }

  void fold(const FileBashScan& scan) {
    for (const BashScanLine& line : scan.lines) {
      if (!bounds_.contains(line.timestamp, line.instant)) continue;
      // Only lines that make or continue a turn count, as pass two decides.
      if (!line.requestId || line.requestId->empty()) {
        current_.reset();
        currentIsRepeat_ = false;
      } else if (current_ && *current_ == *line.requestId) {
        if (currentIsRepeat_) continue;
      } else {
        current_ = std::string(*line.requestId);
        currentIsRepeat_ = !seen_.insert(*current_);
        if (currentIsRepeat_) continue;
      }
      for (uint64_t hash : line.templateHashes) {
        occurrences_[hash].push_back(counter_);
        agg_.r2TemplateForIndex.push_back(hash);
        ++counter_;
      }
    }
  }

  // A template run three times or more qualifies every run but its first.
  void finish() {
    agg_.r2QualifyingIndices.assign(static_cast<size_t>(counter_), false);
    for (const auto& [hash, list] : occurrences_) {
      if (list.size() < 3) continue;
      agg_.r2TemplateOccCount[hash] = static_cast<int64_t>(list.size());
      for (size_t k = 1; k < list.size(); ++k) agg_.r2QualifyingIndices[static_cast<size_t>(list[k])] = true;
    }
  }

 private:
  const RangeBounds& bounds_;
  GlobalAggregator& agg_;
  std::unordered_map<uint64_t, std::vector<int64_t>> occurrences_;
  IdSet seen_;
  int64_t counter_ = 0;
  std::optional<std::string> current_;  // the file's open request
  bool currentIsRepeat_ = false;
};

// Pass one on a reading of its own, which parses only the assistant lines:
// files in reading order, each slice's scan counted for every pass in
// `counts`.
void scanPassOne(const Plan& plan, std::vector<BashOccurrences>& counts, int64_t totalFiles,
                 const ProgressCallback& onProgress, const Clock& clock) {
  OrderedWork<FileBashScan> work(
      plan.slices.size(), [&](size_t i) { return scanFileForBash(*plan.slices[i].first, plan.slices[i].second); },
      workerThreads(), kWindow, plan.sliceBytes, kAheadBytes);
  int64_t filesOpened = 0;
  ProgressThrottle throttle(clock);
  for (const FileTask& file : plan.files) {
    bool opened = false;
    for (auto& c : counts) c.beginFile();
    for (size_t s = 0; s < file.sliceCount; ++s) {
      FileBashScan scan = work.take(file.firstSlice + s);
      if (s == 0) opened = scan.opened;
      if (!opened) continue;
      for (auto& c : counts) c.fold(scan);
    }
    if (!opened) continue;
    ++filesOpened;
    if (onProgress && throttle.shouldReport(filesOpened == totalFiles)) onProgress({filesOpened, totalFiles, 0});
  }
  for (auto& c : counts) c.finish();
}

}  // namespace

void scanBashOccurrences(const std::vector<SessionGroup>& groups, const MeterOptions& options,
                         GlobalAggregator& agg, int64_t totalFiles, const ProgressCallback& onProgress,
                         const Clock& clock) {
  const RangeBounds bounds = RangeBounds::from(options);
  std::vector<BashOccurrences> counts;
  counts.emplace_back(bounds, agg);
  scanPassOne(planFiles(groups), counts, totalFiles, onProgress, clock);
}

void beginFile(FileFold& fold) {
  fold.state->resetForFile();
  fold.lastSessionId.clear();
}

void foldFileLines(const FileDigest& digest, FileFold& fold) {
  SessionState& state = *fold.state;
  GlobalAggregator& agg = *fold.agg;
  for (const MeterLine& line : digest.lines) {
    if (line.kind == MeterLine::Kind::kSkipped) {
      agg.skippedLines += 1;
      continue;
    }
    // Ids and the project are noted from every line, in range or not.
    if (!line.sessionId.empty() && line.sessionId != fold.lastSessionId) {
      fold.lastSessionId = std::string(line.sessionId);
      state.sessionIdsSeen.emplace(fold.lastSessionId);
      agg.allSessionIds.insert(fold.lastSessionId);
    }
    if (state.project.empty() && !line.cwd.empty()) state.project = std::string(text::lastPathComponent(line.cwd));
    if (line.dispatch == MeterLine::Dispatch::kNone || !fold.bounds->contains(line.timestamp, line.instant)) continue;
    switch (line.dispatch) {
      case MeterLine::Dispatch::kAssistant:
        dispatchAssistantLine(line, state, fold.isSubagentFile, *fold.options, agg);
        break;
      case MeterLine::Dispatch::kUser:
        processUser(line, fold.path, line.lineNumber, state);
        break;
      case MeterLine::Dispatch::kSystem:
        processSystem(line, state, *fold.options, agg);
        break;
      case MeterLine::Dispatch::kNone:
      case MeterLine::Dispatch::kOther:
        break;
    }
  }
}

void endFile(FileFold& fold) {
  closeOpenGroup(*fold.state, *fold.options, *fold.agg);
  if (fold.isSubagentFile) dispatchUnitCheck(*fold.state, fold.options->pricing, *fold.agg);
}

namespace {

// One pass's share of a reading: its options, bounds, aggregator, and the
// session being folded.
struct Pass {
  const MeterOptions* options = nullptr;
  RangeBounds bounds;
  GlobalAggregator* agg = nullptr;
  SessionState state;
};

// Folds one file into every pass. `nextSlice()` gives the digests of the
// file's `sliceCount` slices in order; each goes to `release` once every pass
// has folded it. A file that cannot be opened counts nothing, but as a
// subagent file of the group.
template <typename NextSlice, typename Release>
void foldFile(const std::string& path, bool isSubagent, size_t sliceCount, std::vector<Pass>& passes,
              NextSlice&& nextSlice, Release&& release) {
  std::vector<FileFold> folds;
  std::vector<int64_t> turnsBefore;
  for (auto& p : passes) {
    folds.push_back({&p.state, p.agg, p.options, &p.bounds, path, isSubagent, {}});
    turnsBefore.push_back(p.state.turnCount);
  }
  bool opened = true;
  for (size_t s = 0; s < sliceCount; ++s) {
    FileDigest digest = nextSlice();
    if (s == 0) {
      opened = digest.opened;
      if (opened)
        for (auto& f : folds) beginFile(f);
    }
    if (opened)
      for (auto& f : folds) foldFileLines(digest, f);
    release(std::move(digest));
  }
  if (opened)
    for (auto& f : folds) endFile(f);
  if (!isSubagent) return;
  for (size_t i = 0; i < passes.size(); ++i) {
    passes[i].agg->subagentFiles += 1;
    passes[i].agg->subagentTurns += passes[i].state.turnCount - turnsBefore[i];
  }
}

void startGroup(const SessionGroup& group, std::vector<Pass>& passes) {
  for (auto& p : passes) {
    p.state = SessionState{};
    p.state.sessionId = group.sessionId;
  }
}

void finishGroup(const SessionGroup& group, std::vector<Pass>& passes) {
  const std::string folderName(text::lastPathComponent(group.projectDirPath));
  for (auto& p : passes) finalizeSession(p.state, folderName, *p.agg);
}

MediaLoopDetailRecord loopRecord(const MediaLoopCandidate& c) {
  return {c.sessionId, c.project, c.images, roundUSD(c.rawUsd), roundUSD(c.usd), c.firstTimestamp, c.lastTimestamp,
          c.fileCount};
}

// Every media loop, largest kept dollars first, ties by session id.
std::vector<MediaLoopDetailRecord> loopDetail(const GlobalAggregator& agg) {
  std::vector<MediaLoopCandidate> loops = agg.mediaLoopCandidates;
  std::stable_sort(loops.begin(), loops.end(), [](const MediaLoopCandidate& a, const MediaLoopCandidate& b) {
    if (a.usd != b.usd) return a.usd > b.usd;
    return a.sessionId < b.sessionId;
  });
  std::vector<MediaLoopDetailRecord> out;
  for (const auto& c : loops) out.push_back(loopRecord(c));
  return out;
}

}  // namespace

void processSessionGroup(const SessionGroup& group, const MeterOptions& options, GlobalAggregator& agg) {
  SessionGroup sorted = group;
  std::sort(sorted.subagentFiles.begin(), sorted.subagentFiles.end());
  std::vector<Pass> passes(1);
  passes[0].options = &options;
  passes[0].bounds = RangeBounds::from(options);
  passes[0].agg = &agg;
  startGroup(sorted, passes);
  auto fold = [&](const std::string& path, bool isSubagent) {
    foldFile(path, isSubagent, 1, passes, [&] { return digestFile(path); }, [](FileDigest&&) {});
  };
  if (sorted.mainFile) fold(*sorted.mainFile, false);
  for (const auto& path : sorted.subagentFiles) fold(path, true);
  finishGroup(sorted, passes);
}

namespace {

// Folds every group into every pass in reading order: `foldFileOf(file,
// path, isSubagent)` folds one file into the passes' open sessions, and
// `endGroup(g)` takes the group's finished sessions.
template <typename FoldFile, typename EndGroup>
void foldGroups(const std::vector<SessionGroup>& groups, const Plan& plan, std::vector<Pass>& passes,
                FoldFile&& foldFileOf, EndGroup&& endGroup) {
  size_t nextFile = 0;
  for (size_t g = 0; g < groups.size(); ++g) {
    startGroup(groups[g], passes);
    if (groups[g].mainFile) foldFileOf(plan.files[nextFile++], *groups[g].mainFile, false);
    for (const auto& path : groups[g].subagentFiles) foldFileOf(plan.files[nextFile++], path, true);
    endGroup(g);
  }
}

// Pass two on a second reading of the tree, once pass one is counted:
// each session is finalised as soon as its files are folded.
void readPassTwo(const std::vector<SessionGroup>& groups, const Plan& plan, std::vector<Pass>& passes,
                 int64_t totalFiles, const ProgressCallback& onProgress, const Clock& clock) {
  Recycler<FileDigest> spent;
  OrderedWork<FileDigest> work(
      plan.slices.size(),
      [&](size_t i) { return digestFile(*plan.slices[i].first, plan.slices[i].second, spent.take()); },
      workerThreads(), kWindow, plan.sliceBytes, kAheadBytes);
  auto giveBack = [&](FileDigest&& d) { spent.give(std::move(d)); };
  ProgressThrottle throttle(clock);
  foldGroups(
      groups, plan, passes,
      [&](const FileTask& file, const std::string& path, bool isSubagent) {
        size_t slice = file.firstSlice;
        foldFile(path, isSubagent, file.sliceCount, passes, [&] { return work.take(slice++); }, giveBack);
      },
      [&](size_t g) {
        finishGroup(groups[g], passes);
        if (onProgress && throttle.shouldReport(g + 1 == groups.size()))
          onProgress({totalFiles, totalFiles, passes.front().agg->tokensMetered()});
      });
}

// Both passes on one reading: each slice is parsed once, counted for pass
// one, folded for pass two and handed to the tap. A session can only be
// finalised once pass one has counted the whole tree (a command's repeats
// may come later), so each waits until then, in order. Folding and
// finalising add to disjoint sums, so the wait changes no figure, not even
// in the last bit.
void readBothPassesOnce(const std::vector<SessionGroup>& groups, const Plan& plan, std::vector<Pass>& passes,
                        std::vector<BashOccurrences>& counts, int64_t totalFiles, const ProgressCallback& onProgress,
                        const Clock& clock, LineTap* tap) {
  Recycler<FileDigest> spent;
  OrderedWork<SliceReading> work(
      plan.slices.size(),
      [&](size_t i) { return readSliceOnce(*plan.slices[i].first, plan.slices[i].second, tap, spent.take()); },
      workerThreads(), kReadOnceWindow, plan.sliceBytes, kAheadBytes);
  auto giveBack = [&](FileDigest&& d) { spent.give(std::move(d)); };
  std::vector<std::vector<SessionState>> waiting(passes.size());
  int64_t filesOpened = 0;
  ProgressThrottle throttle(clock);
  foldGroups(
      groups, plan, passes,
      [&](const FileTask& file, const std::string& path, bool isSubagent) {
        for (auto& c : counts) c.beginFile();
        size_t slice = file.firstSlice;
        bool opened = false;
        foldFile(path, isSubagent, file.sliceCount, passes,
                 [&] {
                   SliceReading r = work.take(slice);
                   // The tap hears of every slice, so that it knows a file it
                   // holds whole: one that could not be read comes without lines.
                   if (tap != nullptr)
                     tap->take(path, r.readEnd, std::move(r.tap), slice + 1 == file.firstSlice + file.sliceCount);
                   if (slice++ == file.firstSlice) opened = r.bash.opened;
                   // Counted before it is folded: the fold looks up the
                   // templates of the occurrences this count numbers.
                   if (opened)
                     for (auto& c : counts) c.fold(r.bash);
                   return std::move(r.digest);
                 },
                 giveBack);
        if (!opened) return;
        ++filesOpened;
        if (onProgress && throttle.shouldReport(filesOpened == totalFiles))
          onProgress({filesOpened, totalFiles, passes.front().agg->tokensMetered()});
      },
      [&](size_t) {
        for (size_t i = 0; i < passes.size(); ++i) {
          SessionState& state = passes[i].state;
          // What only the fold needed goes now rather than wait with the rest;
          // so does the timeline of a session without images, which holds a
          // record of every user line.
          state.pendingToolUsesById = {};
          if (!hasAnyImage(state)) {
            state.mediaSequence = {};
            state.pendingMediaIndices = {};
            state.mediaFilePath = {};
            state.strings = StringArena();
          }
          waiting[i].push_back(std::move(state));
        }
      });
  if (tap != nullptr) tap->readingDone();
  for (auto& c : counts) c.finish();
  for (size_t g = 0; g < groups.size(); ++g) {
    const std::string folderName(text::lastPathComponent(groups[g].projectDirPath));
    for (size_t i = 0; i < passes.size(); ++i) finalizeSession(waiting[i][g], folderName, *passes[i].agg);
  }
}

}  // namespace

namespace MeterEngine {

std::vector<MeterRun> runAll(const std::vector<MeterOptions>& passList, const ProgressCallback& onProgress,
                             const Clock& clock, const ReadingOptions& reading) {
  if (passList.empty()) return {};
  const std::vector<SessionGroup> groups = sortedGroups(passList.front().root);
  const int64_t totalFiles = countFiles(groups);
  const Plan plan = planFiles(groups);
  std::vector<GlobalAggregator> aggs(passList.size());
  std::vector<Pass> passes(passList.size());
  for (size_t i = 0; i < passList.size(); ++i) {
    passes[i].options = &passList[i];
    passes[i].bounds = RangeBounds::from(passList[i]);
    passes[i].agg = &aggs[i];
  }

  std::vector<BashOccurrences> counts;
  for (auto& p : passes) counts.emplace_back(p.bounds, *p.agg);
  if (reading.readOnce || reading.tap != nullptr) {
    readBothPassesOnce(groups, plan, passes, counts, totalFiles, onProgress, clock, reading.tap);
  } else {
    // Pass one must end before pass two starts: whether a command qualifies
    // depends on its runs later in the tree.
    scanPassOne(plan, counts, totalFiles, onProgress, clock);
    readPassTwo(groups, plan, passes, totalFiles, onProgress, clock);
  }

  const std::string generatedAt = ISO8601::whole(clock.nowMs());
  std::vector<MeterRun> runs;
  for (size_t i = 0; i < passes.size(); ++i)
    runs.push_back({buildReceipt(aggs[i], passList[i], generatedAt), loopDetail(aggs[i])});
  return runs;
}

MeterRun runWithLoopDetail(const MeterOptions& options, const ProgressCallback& onProgress, const Clock& clock) {
  return std::move(runAll({options}, onProgress, clock).front());
}

Receipt run(const MeterOptions& options, const ProgressCallback& onProgress, const Clock& clock) {
  return runWithLoopDetail(options, onProgress, clock).receipt;
}

}  // namespace MeterEngine
}  // namespace ostler
