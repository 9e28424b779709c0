#include "meter/meter_engine.h"

#include <algorithm>
#include <cstring>
#include <thread>
#include <unordered_map>

#include "meter/attribution.h"
#include "meter/build_receipt.h"
#include "meter/line_reader.h"
#include "meter/ordered_work.h"
#include "meter/repeat_pipelines.h"
#include "meter/text.h"
#include "meter/turn_accounting.h"

namespace ostler {
namespace {

// Files decoded ahead of the fold; bounds the memory held in digests.
constexpr size_t kWindow = 8;

TranscriptLineDecoder& threadDecoder() {
  thread_local TranscriptLineDecoder decoder;
  return decoder;
}

size_t workerThreads() {
  unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : n;
}

// One file of the pass, in reading order.
struct FileTask {
  const SessionGroup* group;
  const std::string* path;
  bool isSubagent;
};

std::vector<FileTask> fileTasks(const std::vector<SessionGroup>& groups) {
  std::vector<FileTask> tasks;
  for (const auto& g : groups) {
    if (g.mainFile) tasks.push_back({&g, &*g.mainFile, false});
    for (const auto& f : g.subagentFiles) tasks.push_back({&g, &f, true});
  }
  return tasks;
}

// A line of pass one can only be an assistant line if it names the type
// literally or hides it behind an escape; others need no decoding.
bool mayBeAssistant(std::string_view line) {
  constexpr std::string_view kNeedle = "\"assistant\"";
  if (memmem(line.data(), line.size(), kNeedle.data(), kNeedle.size()) != nullptr) return true;
  return memmem(line.data(), line.size(), "\\u", 2) != nullptr;
}

MeterLine skippedLine(int64_t lineNumber) {
  MeterLine m;
  m.kind = MeterLine::Kind::kSkipped;
  m.lineNumber = lineNumber;
  return m;
}

std::vector<SessionGroup> sortedGroups(const std::string& root) {
  auto groups = discoverSessionGroups(root);
  for (auto& g : groups) std::sort(g.subagentFiles.begin(), g.subagentFiles.end());
  return groups;
}

}  // namespace

bool ProgressThrottle::shouldReport(bool force) {
  double now = clock_.monotonicSeconds();
  if (reported_ && !force && now - last_ < 0.1) return false;
  reported_ = true;
  last_ = now;
  return true;
}

FileDigest digestFile(const std::string& path, const RangeBounds& bounds) {
  FileDigest digest;
  auto reader = LineReader::open(path);
  if (!reader) return digest;
  digest.opened = true;
  TranscriptLineDecoder& decoder = threadDecoder();
  RawTranscriptLine raw;
  int64_t lineNumber = 0;
  while (auto line = reader->nextLine()) {
    ++lineNumber;
    std::string_view trimmed = text::trimSpacesAndTabs(*line);
    if (trimmed.empty()) continue;
    if (!decoder.decode(trimmed, true, &raw)) {
      digest.lines.push_back(skippedLine(lineNumber));
      continue;
    }
    digest.lines.push_back(digestLine(raw, lineNumber, bounds));
  }
  return digest;
}

FileBashScan scanFileForBash(const std::string& path, const RangeBounds& bounds) {
  FileBashScan scan;
  auto reader = LineReader::open(path);
  if (!reader) return scan;
  scan.opened = true;
  TranscriptLineDecoder& decoder = threadDecoder();
  RawTranscriptLine raw;
  while (auto line = reader->nextLine()) {
    std::string_view trimmed = text::trimSpacesAndTabs(*line);
    if (trimmed.empty() || !mayBeAssistant(trimmed)) continue;
    if (!decoder.decode(trimmed, true, &raw)) continue;
    if (raw.type != "assistant") continue;
    std::optional<std::string> timestamp;
    std::optional<InstantMs> instant;
    if (raw.timestamp) {
      timestamp = std::string(*raw.timestamp);
      instant = ISO8601::parse(*raw.timestamp);
    }
    if (!bounds.contains(timestamp, instant)) continue;
    BashScanLine& out = scan.lines.emplace_back();
    if (raw.requestId) out.requestId = std::string(*raw.requestId);
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
  const std::vector<FileTask> tasks = fileTasks(groups);
  OrderedWork<FileBashScan> work(
      tasks.size(), [&](size_t i) { return scanFileForBash(*tasks[i].path, bounds); }, workerThreads(), kWindow);

  std::unordered_map<uint64_t, std::vector<int64_t>> occurrences;
  std::unordered_set<std::string> seen;
  int64_t counter = 0, filesOpened = 0;
  ProgressThrottle throttle(clock);
  for (size_t i = 0; i < tasks.size(); ++i) {
    FileBashScan scan = work.take(i);
    if (!scan.opened) continue;
    std::optional<std::string> current;
    bool currentIsRepeat = false;
    for (const BashScanLine& line : scan.lines) {
      if (!line.requestId || line.requestId->empty()) {
        current.reset();
        currentIsRepeat = false;
      } else if (current && *current == *line.requestId) {
        if (currentIsRepeat) continue;
      } else {
        current = *line.requestId;
        currentIsRepeat = !seen.insert(*line.requestId).second;
        if (currentIsRepeat) continue;
      }
      for (uint64_t hash : line.templateHashes) {
        occurrences[hash].push_back(counter);
        agg.r2TemplateForIndex.push_back(hash);
        ++counter;
      }
    }
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

void processFile(const FileDigest& digest, const std::string& path, SessionState& state, bool isSubagentFile,
                 const MeterOptions& options, GlobalAggregator& agg) {
  if (!digest.opened) return;
  state.resetForFile();
  const std::string* lastId = nullptr;  // ids repeat line after line; note each run once
  for (const MeterLine& line : digest.lines) {
    if (line.kind == MeterLine::Kind::kSkipped) {
      agg.skippedLines += 1;
      continue;
    }
    if (!line.sessionId.empty() && (lastId == nullptr || *lastId != line.sessionId)) {
      state.sessionIdsSeen.insert(line.sessionId);
      agg.allSessionIds.insert(line.sessionId);
      lastId = &line.sessionId;
    }
    if (state.project.empty() && !line.cwd.empty()) state.project = std::string(text::lastPathComponent(line.cwd));
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
  closeOpenGroup(state, options, agg);
  if (isSubagentFile) dispatchUnitCheck(state, options.pricing, agg);
}

namespace {

// Pass two over the groups, taking each file's digest from `nextDigest` in
// reading order.
template <typename NextDigest>
void foldGroup(const SessionGroup& group, const MeterOptions& options, GlobalAggregator& agg,
               NextDigest&& nextDigest) {
  SessionState state;
  state.sessionId = group.sessionId;
  if (group.mainFile) processFile(nextDigest(), *group.mainFile, state, false, options, agg);
  for (const auto& path : group.subagentFiles) {
    const int64_t before = state.turnCount;
    processFile(nextDigest(), path, state, true, options, agg);
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
  std::vector<std::string> paths;
  if (sorted.mainFile) paths.push_back(*sorted.mainFile);
  paths.insert(paths.end(), sorted.subagentFiles.begin(), sorted.subagentFiles.end());
  size_t next = 0;
  foldGroup(sorted, options, agg, [&] { return digestFile(paths[next++], bounds); });
}

namespace MeterEngine {

MeterRun runWithLoopDetail(const MeterOptions& options, const ProgressCallback& onProgress, const Clock& clock) {
  GlobalAggregator agg;
  const std::vector<SessionGroup> groups = sortedGroups(options.root);
  const int64_t totalFiles = countFiles(groups);

  scanBashOccurrences(groups, options, agg, totalFiles, onProgress, clock);

  const RangeBounds bounds = RangeBounds::from(options);
  const std::vector<FileTask> tasks = fileTasks(groups);
  OrderedWork<FileDigest> work(
      tasks.size(), [&](size_t i) { return digestFile(*tasks[i].path, bounds); }, workerThreads(), kWindow);
  size_t taken = 0;
  ProgressThrottle throttle(clock);
  for (size_t g = 0; g < groups.size(); ++g) {
    foldGroup(groups[g], options, agg, [&] { return work.take(taken++); });
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
