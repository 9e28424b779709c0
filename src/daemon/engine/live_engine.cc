// Reading: discovery, tail reads, routing, garbage collection, tallies and
// persistence of the live engine. The fold of a line into the figures is in
// live_engine_accounting.cc, the window gauges in live_engine_windows.cc.
#include "daemon/engine/live_engine.h"

#include <algorithm>

#include "daemon/engine/collapse_whitespace.h"
#include "daemon/windows/local_day.h"
#include "transcript/tail_reader.h"
#include "transcript/text.h"

namespace ostler {

namespace {

// A chat is named by the first words typed into it: the first 4,000
// characters on one line, cut to 80.
constexpr int64_t kFirstMessageScanCharacters = kTypedTextScanCharacters;
constexpr int64_t kFirstMessageCharacters = 80;

}  // namespace

LiveEngine::LiveEngine(FileSystem& fs, PricingTable pricing, std::string timeZoneId)
    : fs_(fs), pricing_(std::move(pricing)), timeZoneId_(std::move(timeZoneId)) {}

std::set<std::string> LiveEngine::poll(const std::string& root, InstantMs now,
                                       const ShutdownSignalSource* shutdownSignal, const GatheredLines* gathered) {
  // The rollover comes first, so no line of a new day is ever folded into
  // the day before.
  rollOverDay(now);
  std::set<std::string> touched;
  Unreadable unreadable;
  std::vector<TranscriptFile> files = SessionDiscovery::discoverFiles(fs_, root, &unreadable);
  if (!hasDoneInitialScan_) {
    hasDoneInitialScan_ = true;
    gcDeadEntries(files);
  }
  sessionsWithSubagentFiles_.clear();
  dispatchMemoAt_.reset();
  for (const TranscriptFile& file : files)
    if (file.isSubagent) sessionsWithSubagentFiles_.insert(file.sessionId);
  fileSizes_->beginPoll();
  auto offsetHint = fileOffsets_.end();
  for (const TranscriptFile& file : files) {
    if (shutdownSignal != nullptr && shutdownSignal->isRequested()) break;
    std::optional<int64_t> size = fileSizes_->sizeOf(file.path);
    if (!size) {
      noteUnsized(file.path, unreadable);
      continue;
    }
    if (readFile(file, *size, now, offsetHint, gathered, unreadable, shutdownSignal)) touched.insert(file.sessionId);
  }
  fileSizes_->endPoll();
  unreadable_ = std::move(unreadable);
  pruneBurns(now);
  return touched;
}

void LiveEngine::rollOverDay(InstantMs now) {
  // Within the known day there is nothing to work out: calendars in named
  // zones are dear to build once a second.
  if (todayBoundary_ && nextDayStart_ && now >= *todayBoundary_ && now < *nextDayStart_) return;
  InstantMs start = LocalDay::localMidnightInstant(now, timeZoneId_);
  // A local day lasts 23 to 25 hours: 25 hours on lies in the next one.
  nextDayStart_ = LocalDay::localMidnightInstant(start + kLongestDayMs, timeZoneId_);
  if (todayBoundary_ == start) return;
  todayBoundary_ = start;
  todaySpentUSD_ = 0;
  todayTurns_ = 0;
  todayTokensByFamily_.clear();
  isDirty_ = true;
}

void LiveEngine::noteUnsized(const std::string& path, Unreadable& unreadable) {
  // Rare, so the reason is asked for only now. A file that turned regular
  // since (or vanished as a whole folder did) waits for the next poll.
  auto info = fs_.stat(path);
  if (!info)
    unreadable.note(info.error());
  else if (info.value().kind != FileKind::kRegular)
    unreadable.note(fileError("cannot read", path, "not a regular file"));
}

bool LiveEngine::readFile(const TranscriptFile& file, int64_t size, InstantMs now, OffsetIterator& hint,
                          const GatheredLines* gathered, Unreadable& unreadable,
                          const ShutdownSignalSource* shutdownSignal) {
  // Discovery lists files mostly in the order of the map, so the entry after
  // the last one found is tried before a search.
  auto stored = hint != fileOffsets_.end() ? std::next(hint) : fileOffsets_.begin();
  if (stored == fileOffsets_.end() || stored->first != file.path) stored = fileOffsets_.find(file.path);
  if (stored != fileOffsets_.end()) hint = stored;
  int64_t storedOffset = stored != fileOffsets_.end() ? stored->second : 0;
  // A file that shrank was replaced or rewritten: read it again from its
  // first byte; the request dedupe keeps its old requests from counting twice.
  int64_t start = size < storedOffset ? 0 : storedOffset;
  if (start >= size) return false;
  auto lastSize = sizeAtLastRead_.find(file.path);
  if (start == storedOffset && lastSize != sizeAtLastRead_.end() && lastSize->second == size) return false;
  bool yielded = false;
  bool cutShort = false;  // by a stop or a failed read: the rest is read next poll
  int64_t offset = start;
  FileRecords records;
  auto served = start == 0 && gathered != nullptr ? gathered->serve(file.path, size) : std::nullopt;
  if (served) {
    yielded = served->wholeLinesEnd > 0;
    served->forEachLine([&](const GatheredLines::Line& line) {
      ++newLinesSeen_;
      if (line.decoded) {
        process(line.line, file, now, records);
      } else {
        ++newLinesSkipped_;
        recordExclusion(ExclusionReason::kParseSkip, 0);
      }
    });
    offset = static_cast<int64_t>(served->wholeLinesEnd);
  } else {
    // A gathering cut short by a stop serves nothing: the file is not read
    // again in its place.
    const auto stopping = [shutdownSignal] { return shutdownSignal != nullptr && shutdownSignal->isRequested(); };
    if (stopping()) return false;
    // A small rest (often a torn last line read again) needs no whole
    // chunk.
    const auto chunk =
        static_cast<size_t>(std::clamp<int64_t>(size - start, 64 * 1024, TailReader::kDefaultChunkSize));
    auto opened = TailReader::open(fs_, file.path, start, chunk);
    if (!opened) {
      unreadable.note(opened.error());
      return false;
    }
    TailReader& reader = opened.value();
    // A stop is heard between lines, so the offset stays behind a line
    // that was folded.
    while (!stopping()) {
      auto raw = reader.nextLine();
      if (!raw) break;
      yielded = true;
      // The parser repairs invalid UTF-8 itself, so raw bytes are trimmed
      // here; Zs and tab are whole scalars either way.
      std::string_view trimmed = text::trimSpacesAndTabs(*raw);
      if (trimmed.empty()) continue;
      ++newLinesSeen_;
      if (decoder_.decode(trimmed, true, &rawLine_) && decodes(rawLine_, kEngineReading)) {
        lineStrings_.clear();
        process(digestLiveLine(rawLine_, lineStrings_), file, now, records);
      } else {
        ++newLinesSkipped_;
        recordExclusion(ExclusionReason::kParseSkip, 0);
      }
    }
    offset = reader.offset();
    cutShort = stopping() || reader.failure().has_value();
    if (reader.failure()) unreadable.note(*reader.failure());
    reader.close();
  }
  fileOffsets_[file.path] = offset;
  if (cutShort) {
    if (lastSize != sizeAtLastRead_.end()) sizeAtLastRead_.erase(lastSize);
  } else if (lastSize != sizeAtLastRead_.end()) {
    lastSize->second = size;
  } else {
    sizeAtLastRead_.emplace(file.path, size);
  }
  if (offset != start) isDirty_ = true;
  return yielded;
}

void LiveEngine::process(const LiveLine& line, const TranscriptFile& file, InstantMs now, FileRecords& records) {
  if (records.session == nullptr) {
    auto [sit, newSession] = sessionState_.try_emplace(file.sessionId);
    if (newSession) sit->second.projectDirPath = file.projectDirPath;
    auto [mit, newFile] = fileMediaState_.try_emplace(file.path);
    if (newFile) mit->second.sessionId = file.sessionId;
    records = {&sit->second, &mit->second};
  }
  SessionLiveState& session = *records.session;
  FileMediaState& media = *records.media;
  // The first cwd seen in any file of the chat names its project for good.
  if (session.project.empty() && !line.cwd.empty()) session.project = std::string(text::lastPathComponent(line.cwd));

  switch (line.type) {
    case LiveLine::Type::kAssistant:
      processAssistant(line, session, media, now);
      if (file.isSubagent && !line.model.empty()) {
        // Looked up once per file: paths are long and share their start.
        if (records.subagentModel == nullptr) records.subagentModel = &subagentLastModel_[file.path];
        records.subagentModel->assign(line.model);
      }
      break;
    case LiveLine::Type::kUser:
      processUser(line, media);
      // Only typed text names a chat; a list of blocks leaves the name open.
      if (!session.firstUserMessage && line.typedText) {
        std::string collapsed = collapseWhitespace(text::prefixCharacters(*line.typedText, kFirstMessageScanCharacters));
        if (!collapsed.empty())
          session.firstUserMessage = std::string(text::prefixCharacters(collapsed, kFirstMessageCharacters));
      }
      break;
    case LiveLine::Type::kAiTitle:
      if (!line.title.empty()) session.aiTitle = std::string(line.title);
      break;
    case LiveLine::Type::kCustomTitle:
      if (!line.title.empty()) session.customTitle = std::string(line.title);
      break;
    case LiveLine::Type::kAbsent:
    case LiveLine::Type::kOther:
      break;
  }
}

void LiveEngine::gcDeadEntries(const std::vector<TranscriptFile>& currentFiles) {
  std::set<std::string> paths, sessionIds, subagentPaths;
  for (const auto& f : currentFiles) {
    paths.insert(f.path);
    sessionIds.insert(f.sessionId);
    if (f.isSubagent) subagentPaths.insert(f.path);
  }
  auto prune = [&](auto& map, const std::set<std::string>& keep) {
    size_t removed = std::erase_if(map, [&](const auto& entry) { return !keep.contains(entry.first); });
    if (removed > 0) isDirty_ = true;
  };
  prune(fileOffsets_, paths);
  std::erase_if(sizeAtLastRead_, [&](const auto& entry) { return paths.count(entry.first) == 0; });
  prune(fileMediaState_, paths);
  prune(sessionState_, sessionIds);
  prune(subagentLastModel_, subagentPaths);
  // The memo is not saved, so dropping its rows leaves nothing to save.
  std::erase_if(sessionsAllMemo_, [&](const auto& entry) { return !sessionIds.contains(entry.first); });
}

void LiveEngine::pruneBurns(InstantMs now) {
  const InstantMs cutoff = now - kBurnRetentionMs;
  size_t removed = std::erase_if(recentBurns_, [&](const BurnEvent& e) { return e.timestamp <= cutoff; });
  if (removed > 0) isDirty_ = true;
}

void LiveEngine::recordExclusion(ExclusionReason reason, double dollars) {
  ExclusionTally& t = exclusions_[static_cast<size_t>(reason)];
  t.count += 1;
  t.dollarsUSD += dollars;
}

bool LiveEngine::parserAlarmTripped() const {
  if (newLinesSeen_ < 1) return false;
  return static_cast<double>(newLinesSkipped_) / static_cast<double>(newLinesSeen_) > 0.05;
}

std::optional<FeedDiagnosticsExclusions> LiveEngine::exclusionsSnapshot() const {
  int64_t total = 0;
  for (const auto& t : exclusions_) total += t.count;
  if (total < 1) return std::nullopt;
  auto wire = [&](ExclusionReason r) {
    const ExclusionTally& t = exclusion(r);
    return FeedDiagnosticsExclusionTally{t.count, roundUSD(t.dollarsUSD)};
  };
  return FeedDiagnosticsExclusions{wire(ExclusionReason::kTimestampGate), wire(ExclusionReason::kDedupRefusal),
                                   wire(ExclusionReason::kParseSkip), wire(ExclusionReason::kOther)};
}

LiveEngine::TodayAccumulatorSnapshot LiveEngine::todayAccumulatorSnapshot() const {
  return {roundUSD(todaySpentUSD_), todayTurns_};
}

std::optional<InstantMs> LiveEngine::lastActivity(const std::string& sessionId) const {
  auto it = sessionState_.find(sessionId);
  if (it == sessionState_.end()) return std::nullopt;
  return it->second.lastActivity;
}

std::map<std::string, int64_t> LiveEngine::freshWindowedTokensByFamily(FileSystem& fs, const std::string& root,
                                                                       const PricingTable& pricing, InstantMs now,
                                                                       const std::string& timeZoneId,
                                                                       const GatheredLines* gathered,
                                                                       const ShutdownSignalSource* stop) {
  LiveEngine engine(fs, pricing, timeZoneId);
  (void)engine.poll(root, now, stop, gathered);
  return engine.todayTokensByFamily_;
}

PersistedState LiveEngine::snapshotForPersistence(const std::string& root) const {
  PersistedState s;
  s.stateVersion = PersistedState::kVersion;
  s.root = root;
  s.fileOffsets = fileOffsets_;
  s.fileMediaState = fileMediaState_;
  s.sessionState = sessionState_;
  s.quotaLastEventAt = quotaLastEventAt_;
  s.quotaResetsNote = quotaResetsNote_;
  s.newLinesSeen = newLinesSeen_;
  s.newLinesSkipped = newLinesSkipped_;
  s.todayBoundary = todayBoundary_;
  s.todaySpentUSD = todaySpentUSD_;
  s.todayTurns = todayTurns_;
  s.todayTokensByFamily = todayTokensByFamily_;
  s.recentBurns = recentBurns_;
  s.cachedWalls = cachedWalls_;
  s.subagentLastModel = subagentLastModel_;
  s.seenRequestIds.assign(seenRequestIds_.begin(), seenRequestIds_.end());
  return s;
}

PersistedStateView LiveEngine::persistenceView(const std::string& root) const {
  return {.stateVersion = PersistedState::kVersion,
          .root = root,
          .fileOffsets = fileOffsets_,
          .fileMediaState = fileMediaState_,
          .sessionState = sessionState_,
          .quotaLastEventAt = quotaLastEventAt_,
          .quotaResetsNote = quotaResetsNote_,
          .newLinesSeen = newLinesSeen_,
          .newLinesSkipped = newLinesSkipped_,
          .todayBoundary = todayBoundary_,
          .todaySpentUSD = todaySpentUSD_,
          .todayTurns = todayTurns_,
          .todayTokensByFamily = todayTokensByFamily_,
          .recentBurns = recentBurns_,
          .cachedWalls = cachedWalls_,
          .subagentLastModel = subagentLastModel_,
          .seenRequestIds = seenRequestIds_};
}

void LiveEngine::restore(PersistedState s) {
  dispatchMemoAt_.reset();
  fileOffsets_ = std::move(s.fileOffsets);
  // The sizes seen were read against the offsets just replaced: a file must
  // be opened again wherever its restored offset lies below its size.
  sizeAtLastRead_.clear();
  fileMediaState_ = std::move(s.fileMediaState);
  sessionState_ = std::move(s.sessionState);
  quotaLastEventAt_ = std::move(s.quotaLastEventAt);
  quotaResetsNote_ = std::move(s.quotaResetsNote);
  resolveQuotaReset();
  newLinesSeen_ = s.newLinesSeen;
  newLinesSkipped_ = s.newLinesSkipped;
  todayBoundary_ = s.todayBoundary;
  nextDayStart_.reset();
  todaySpentUSD_ = s.todaySpentUSD;
  todayTurns_ = s.todayTurns;
  todayTokensByFamily_ = std::move(s.todayTokensByFamily);
  recentBurns_ = std::move(s.recentBurns);
  cachedWalls_ = std::move(s.cachedWalls);
  subagentLastModel_ = std::move(s.subagentLastModel);
  seenRequestIds_.clear();
  seenRequestIds_.reserve(s.seenRequestIds.size());
  for (const std::string& id : s.seenRequestIds) seenRequestIds_.insert(id);
}

}  // namespace ostler
