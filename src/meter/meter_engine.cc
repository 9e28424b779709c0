#include "meter/meter_engine.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <unordered_map>

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

// Slices decoded ahead of the fold; with the slice size this bounds the
// memory held in digests, whatever the size of the tree.
constexpr size_t kWindow = 8;
constexpr uint64_t kSliceBytes = 1 << 20;

TranscriptLineDecoder& threadDecoder() {
  thread_local TranscriptLineDecoder decoder;
  return decoder;
}

size_t workerThreads() {
  unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : n;
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
};

uint64_t fileSize(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || st.st_size < 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

Plan planFiles(const std::vector<SessionGroup>& groups) {
  Plan plan;
  auto add = [&](const SessionGroup& g, const std::string& path, bool isSubagent) {
    std::vector<FileSlice> slices = sliceFile(fileSize(path), kSliceBytes);
    plan.files.push_back({&g, &path, isSubagent, plan.slices.size(), slices.size()});
    for (const auto& s : slices) plan.slices.emplace_back(&path, s);
  };
  for (const auto& g : groups) {
    if (g.mainFile) add(g, *g.mainFile, false);
    for (const auto& f : g.subagentFiles) add(g, f, true);
  }
  return plan;
}

// Opens `path` at the first line that starts within the slice.
std::optional<LineReader> openSlice(const std::string& path, const FileSlice& slice) {
  if (slice.begin == 0) return LineReader::open(path);
  // Start one byte early: the line that holds that byte began in an earlier
  // slice (or ends right there), so it is dropped.
  auto reader = LineReader::openAt(path, slice.begin - 1);
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

FileDigest digestFile(const std::string& path, const RangeBounds& bounds, const FileSlice& slice,
                      FileDigest storage) {
  FileDigest digest = std::move(storage);
  digest.clear();
  auto reader = openSlice(path, slice);
  if (!reader) return digest;
  digest.opened = true;
  TranscriptLineDecoder& decoder = threadDecoder();
  RawTranscriptLine raw;
  int64_t lineNumber = int64_t{slice.index} << 32;
  while (reader->nextLineOffset() < slice.end) {
    auto line = reader->nextLine();
    if (!line) break;
    ++lineNumber;
    std::string_view trimmed = text::trimSpacesAndTabs(*line);
    if (trimmed.empty()) continue;
    if (decoder.decode(trimmed, true, &raw))
      appendDigestLine(raw, lineNumber, bounds, digest);
    else
      appendSkippedLine(lineNumber, digest);
  }
  finishDigest(digest);
  return digest;
}

FileBashScan scanFileForBash(const std::string& path, const RangeBounds& bounds, const FileSlice& slice) {
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
    if (!decoder.decode(trimmed, true, &raw)) continue;
    if (raw.type != "assistant") continue;
    std::optional<InstantMs> instant;
    if (raw.timestamp) instant = ISO8601::parse(*raw.timestamp);
    if (!bounds.contains(raw.timestamp, instant)) continue;
    BashScanLine& out = scan.lines.emplace_back();
    if (raw.requestId) out.requestId = scan.strings.store(*raw.requestId);
    if (!raw.message || !raw.message->content) continue;
    for (const auto& block : *raw.message->content) {
      if (block.type == "tool_use" && block.name == "Bash" && block.input && block.input->command)
        out.templateHashes.push_back(templateHash(*block.input->command));
    }
  }
  return scan;
}

void scanBashOccurrences(const std::vector<SessionGroup>& groups, const MeterOptions& options,
                         GlobalAggregator& agg, int64_t totalFiles, const ProgressCallback& onProgress,
                         const Clock& clock) {
  const RangeBounds bounds = RangeBounds::from(options);
  const Plan plan = planFiles(groups);
  OrderedWork<FileBashScan> work(
      plan.slices.size(),
      [&](size_t i) { return scanFileForBash(*plan.slices[i].first, bounds, plan.slices[i].second); },
      workerThreads(), kWindow);

  std::unordered_map<uint64_t, std::vector<int64_t>> occurrences;
  IdSet seen;
  int64_t counter = 0, filesOpened = 0;
  ProgressThrottle throttle(clock);
  for (const FileTask& file : plan.files) {
    bool opened = false;
    std::optional<std::string> current;  // the file's open request
    bool currentIsRepeat = false;
    for (size_t s = 0; s < file.sliceCount; ++s) {
      FileBashScan scan = work.take(file.firstSlice + s);
      if (s == 0) opened = scan.opened;
      if (!opened) continue;
      for (const BashScanLine& line : scan.lines) {
        if (!line.requestId || line.requestId->empty()) {
          current.reset();
          currentIsRepeat = false;
        } else if (current && *current == *line.requestId) {
          if (currentIsRepeat) continue;
        } else {
          current = std::string(*line.requestId);
          currentIsRepeat = !seen.insert(*current);
          if (currentIsRepeat) continue;
        }
        for (uint64_t hash : line.templateHashes) {
          occurrences[hash].push_back(counter);
          agg.r2TemplateForIndex.push_back(hash);
          ++counter;
        }
      }
    }
    if (!opened) continue;
    ++filesOpened;
    if (onProgress && throttle.shouldReport(filesOpened == totalFiles)) onProgress({filesOpened, totalFiles, 0});
  }
  agg.r2QualifyingIndices.assign(static_cast<size_t>(counter), false);
  for (const auto& [hash, list] : occurrences) {
    if (list.size() < 3) continue;
    agg.r2TemplateOccCount[hash] = static_cast<int64_t>(list.size());
    for (size_t k = 1; k < list.size(); ++k) agg.r2QualifyingIndices[static_cast<size_t>(list[k])] = true;
  }
}

void processFile(const std::function<FileDigest()>& nextSlice, size_t sliceCount, const std::string& path,
                 SessionState& state, bool isSubagentFile, const MeterOptions& options, GlobalAggregator& agg,
                 const std::function<void(FileDigest&&)>& done) {
  auto release = [&](FileDigest&& d) {
    if (done) done(std::move(d));
  };
  std::string lastId;  // ids repeat line after line; note each run once
  for (size_t s = 0; s < sliceCount; ++s) {
    FileDigest digest = nextSlice();
    if (s == 0) {
      if (!digest.opened) {
        release(std::move(digest));
        for (++s; s < sliceCount; ++s) release(nextSlice());
        return;
      }
      state.resetForFile();
    }
    for (const MeterLine& line : digest.lines) {
      if (line.kind == MeterLine::Kind::kSkipped) {
        agg.skippedLines += 1;
        continue;
      }
      if (!line.sessionId.empty() && line.sessionId != lastId) {
        lastId = std::string(line.sessionId);
        state.sessionIdsSeen.emplace(lastId);
        agg.allSessionIds.insert(lastId);
      }
      if (state.project.empty() && !line.cwd.empty())
        state.project = std::string(text::lastPathComponent(line.cwd));
      switch (line.dispatch) {
        case MeterLine::Dispatch::kAssistant:
          dispatchAssistantLine(line, state, isSubagentFile, options, agg);
          break;
        case MeterLine::Dispatch::kUser:
          processUser(line, path, line.lineNumber, state);
          break;
        case MeterLine::Dispatch::kSystem:
          processSystem(line, state, options, agg);
          break;
        case MeterLine::Dispatch::kNone:
        case MeterLine::Dispatch::kOther:
          break;
      }
    }
    release(std::move(digest));
  }
  closeOpenGroup(state, options, agg);
  if (isSubagentFile) dispatchUnitCheck(state, options.pricing, agg);
}

namespace {

// Pass two over one group; `fold(path, isSubagent)` folds one file.
template <typename FoldFile>
void foldGroup(const SessionGroup& group, GlobalAggregator& agg, SessionState& state, FoldFile&& fold) {
  if (group.mainFile) fold(*group.mainFile, false);
  for (const auto& path : group.subagentFiles) {
    const int64_t before = state.turnCount;
    fold(path, true);
    agg.subagentFiles += 1;
    agg.subagentTurns += state.turnCount - before;
  }
  finalizeSession(state, std::string(text::lastPathComponent(group.projectDirPath)), agg);
}

MediaLoopDetailRecord loopRecord(const MediaLoopCandidate& c) {
  return {c.sessionId, c.project, c.images, roundUSD(c.rawUsd), roundUSD(c.usd), c.firstTimestamp, c.lastTimestamp,
          c.fileCount};
}

}  // namespace

void processSessionGroup(const SessionGroup& group, const MeterOptions& options, GlobalAggregator& agg) {
  const RangeBounds bounds = RangeBounds::from(options);
  SessionGroup sorted = group;
  std::sort(sorted.subagentFiles.begin(), sorted.subagentFiles.end());
  SessionState state;
  state.sessionId = sorted.sessionId;
  foldGroup(sorted, agg, state, [&](const std::string& path, bool isSubagent) {
    processFile([&] { return digestFile(path, bounds); }, 1, path, state, isSubagent, options, agg);
  });
}

namespace MeterEngine {

MeterRun runWithLoopDetail(const MeterOptions& options, const ProgressCallback& onProgress, const Clock& clock) {
  GlobalAggregator agg;
  const std::vector<SessionGroup> groups = sortedGroups(options.root);
  const int64_t totalFiles = countFiles(groups);

  scanBashOccurrences(groups, options, agg, totalFiles, onProgress, clock);

  const RangeBounds bounds = RangeBounds::from(options);
  const Plan plan = planFiles(groups);
  Recycler<FileDigest> spent;
  OrderedWork<FileDigest> work(
      plan.slices.size(),
      [&](size_t i) { return digestFile(*plan.slices[i].first, bounds, plan.slices[i].second, spent.take()); },
      workerThreads(), kWindow);
  auto giveBack = [&](FileDigest&& d) { spent.give(std::move(d)); };
  size_t nextFile = 0;
  ProgressThrottle throttle(clock);
  for (size_t g = 0; g < groups.size(); ++g) {
    SessionState state;
    state.sessionId = groups[g].sessionId;
    foldGroup(groups[g], agg, state, [&](const std::string& path, bool isSubagent) {
      const FileTask& file = plan.files[nextFile++];
      size_t slice = file.firstSlice;
      processFile([&] { return work.take(slice++); }, file.sliceCount, path, state, isSubagent, options, agg,
                  giveBack);
    });
    if (onProgress && throttle.shouldReport(g + 1 == groups.size()))
      onProgress({totalFiles, totalFiles, agg.tokensMetered()});
  }

  MeterRun out;
  out.receipt = buildReceipt(agg, options, ISO8601::whole(clock.nowMs()));
  std::vector<MediaLoopCandidate> loops = agg.mediaLoopCandidates;
  std::stable_sort(loops.begin(), loops.end(), [](const MediaLoopCandidate& a, const MediaLoopCandidate& b) {
    if (a.usd != b.usd) return a.usd > b.usd;
    return a.sessionId < b.sessionId;
  });
  for (const auto& c : loops) out.loopDetail.push_back(loopRecord(c));
  return out;
}

Receipt run(const MeterOptions& options, const ProgressCallback& onProgress, const Clock& clock) {
  return runWithLoopDetail(options, onProgress, clock).receipt;
}

}  // namespace MeterEngine
}  // namespace ostler
