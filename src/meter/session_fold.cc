#include "meter/session_fold.h"

#include <algorithm>

#include "meter/attribution.h"
#include "meter/turn_accounting.h"
#include "transcript/text.h"

namespace ostler {
namespace {

// About what a held session takes in memory: its turns, its timeline of
// user lines and the maps the attribution reads. A bound, not a census.
uint64_t heldBytes(const SessionState& s) {
  uint64_t bytes = sizeof(SessionState) + s.turns.capacity() * sizeof(TurnRecord) +
                   s.mediaSequence.capacity() * sizeof(MediaEvent) + s.strings.capacityBytes();
  for (const TurnRecord& t : s.turns)
    bytes += t.bashOccurrences.capacity() * sizeof(int64_t) + t.r2Templates.capacity() * sizeof(uint64_t) +
             (t.model.capacity() > 15 ? t.model.capacity() : 0);
  constexpr uint64_t kNode = 64;  // a tree or hash node with its key's buffer
  for (const auto& [path, turns] : s.readOccurrenceTurns) bytes += kNode + path.size() + turns.capacity() * 8;
  bytes += s.readResultMaxTokens.size() * (kNode + 48) + s.sessionIdsSeen.size() * (kNode + 40);
  return bytes;
}

}  // namespace

void SessionProgress::sessionDone(int64_t tokensMetered) {
  ++sessionsDone;
  if (onProgress && throttle.shouldReport(sessionsDone == totalSessions))
    onProgress({totalFiles, totalFiles, tokensMetered});
}

// One slice's lines digested for the fold: figures, counts and ids, owned
// and small.
class SessionFold::DigestSlice final : public TreeFold::Slice {
 public:
  void line(const ReadLine& read) override {
    if (read.text.empty()) return;
    if (read.decoded != nullptr && decodes(*read.decoded, kMeterReading))
      appendDigestLine(*read.decoded, read.number, digest);
    else
      appendSkippedLine(read.number, digest);
  }
  void finish() override { finishDigest(digest); }

  FileDigest digest;
};

SessionFold::SessionFold(std::vector<MeterPass>& passes, Mode mode, uint64_t holdBudgetBytes,
                         SessionProgress& progress)
    : passes_(passes),
      mode_(mode),
      holdBudgetBytes_(holdBudgetBytes),
      progress_(progress),
      held_(passes.size()),
      turnsBefore_(passes.size()) {}

std::unique_ptr<TreeFold::Slice> SessionFold::startSlice(const TranscriptFile&, const FileSlice&) {
  if (!folding_.load(std::memory_order_acquire)) return nullptr;
  std::unique_ptr<Slice> share = spent_.take();
  if (!share) return std::make_unique<DigestSlice>();
  static_cast<DigestSlice&>(*share).digest.clear();
  return share;
}

void SessionFold::beginFile(const TranscriptFile& file) {
  const size_t index = filesBegun_++;
  if (!folding_.load(std::memory_order_relaxed)) return;
  if (!inSession_ || file.sessionId != sessionId_ || file.projectDirPath != projectDirPath_) {
    if (inSession_) finishSession();
    // Sessions are held whole: the budget is looked at between them.
    if (mode_ == Mode::kHold && heldBytes_ > holdBudgetBytes_) {
      folding_.store(false, std::memory_order_release);
      stoppedAtFile_ = index;
      return;
    }
    startSession(file);
  }
  opened_ = false;
  isSubagent_ = file.isSubagent;
  path_ = file.path;
  for (size_t i = 0; i < passes_.size(); ++i) turnsBefore_[i] = passes_[i].state.turnCount;
}

void SessionFold::foldSlice(const TranscriptFile&, const FileSlice& slice, std::unique_ptr<Slice> share,
                            const SliceEnd& end) {
  if (!folding_.load(std::memory_order_relaxed)) {
    if (share) spent_.give(std::move(share));
    return;
  }
  // A file that cannot be opened counts nothing, whatever later slices find.
  if (slice.index == 0) {
    opened_ = end.opened;
    if (opened_) {
      for (MeterPass& pass : passes_) pass.state.resetForFile();
      lastSessionId_.clear();
    }
  }
  lastSessionIdAt_ = nullptr;  // the texts of an earlier slice are gone
  if (!share) return;
  const FileDigest& digest = static_cast<const DigestSlice&>(*share).digest;
  if (opened_) {
    for (const MeterLine& line : digest.lines) {
      // Ids and the project are noted from every line, in range or not.
      if (line.kind == MeterLine::Kind::kSkipped || line.sessionId.empty()) continue;
      if (line.sessionId.data() == lastSessionIdAt_ || line.sessionId == lastSessionId_) {
        lastSessionIdAt_ = line.sessionId.data();
        continue;
      }
      lastSessionId_.assign(line.sessionId);
      lastSessionIdAt_ = line.sessionId.data();
      for (MeterPass& pass : passes_) {
        pass.state.sessionIdsSeen.emplace(lastSessionId_);
        pass.agg->allSessionIds.insert(lastSessionId_);
      }
    }
    for (size_t i = 0; i < passes_.size(); ++i) {
      MeterPass& pass = passes_[i];
      SessionState& state = pass.state;
      GlobalAggregator& agg = *pass.agg;
      for (const MeterLine& line : digest.lines) {
        if (line.kind == MeterLine::Kind::kSkipped) {
          agg.skippedLines += 1;
          continue;
        }
        if (state.project.empty() && !line.cwd.empty())
          state.project = std::string(text::lastPathComponent(line.cwd));
        if (line.dispatch == MeterLine::Dispatch::kNone || !pass.bounds.contains(line.timestamp, line.instant))
          continue;
        switch (line.dispatch) {
          case MeterLine::Dispatch::kAssistant:
            dispatchAssistantLine(line, state, isSubagent_, *pass.options, agg);
            break;
          case MeterLine::Dispatch::kUser:
            processUser(line, path_, line.lineNumber, state);
            break;
          case MeterLine::Dispatch::kSystem:
            processSystem(line, state, *pass.options, agg);
            break;
          case MeterLine::Dispatch::kNone:
          case MeterLine::Dispatch::kOther:
            break;
        }
      }
    }
  }
  spent_.give(std::move(share));
}

void SessionFold::endFile(const TranscriptFile&) {
  if (!folding_.load(std::memory_order_relaxed)) return;
  for (MeterPass& pass : passes_) {
    if (!opened_) continue;
    closeOpenGroup(pass.state, *pass.options, *pass.agg);
    if (isSubagent_) dispatchUnitCheck(pass.state, pass.options->pricing, *pass.agg);
  }
  // A subagent file counts as one even when it could not be opened.
  if (!isSubagent_) return;
  for (size_t i = 0; i < passes_.size(); ++i) {
    passes_[i].agg->subagentFiles += 1;
    passes_[i].agg->subagentTurns += passes_[i].state.turnCount - turnsBefore_[i];
  }
}

void SessionFold::endReading(bool completed) {
  if (completed && inSession_ && folding_.load(std::memory_order_relaxed)) finishSession();
}

void SessionFold::startSession(const TranscriptFile& file) {
  inSession_ = true;
  sessionId_ = file.sessionId;
  projectDirPath_ = file.projectDirPath;
  for (MeterPass& pass : passes_) {
    pass.state = SessionState{};
    pass.state.sessionId = file.sessionId;
  }
}

void SessionFold::finishSession() {
  inSession_ = false;
  const std::string folderName(text::lastPathComponent(projectDirPath_));
  if (mode_ == Mode::kFinalize) {
    for (MeterPass& pass : passes_) finalizeSession(pass.state, folderName, *pass.agg);
    progress_.sessionDone(passes_.front().agg->tokensMetered());
    return;
  }
  for (size_t i = 0; i < passes_.size(); ++i) {
    SessionState& state = passes_[i].state;
    // What only the fold needed goes now rather than wait with the rest; so
    // does the timeline of a session without images, which holds a record
    // of every user line.
    state.pendingToolUsesById = {};
    if (!hasAnyImage(state)) {
      state.mediaSequence = {};
      state.pendingMediaIndices = {};
      state.mediaFilePath = {};
      state.strings = StringArena();
    }
    heldBytes_ += heldBytes(state);
    held_[i].push_back(std::move(state));
  }
  heldFolders_.push_back(folderName);
  heldTokens_.push_back(passes_.front().agg->tokensMetered());
}

void SessionFold::finalizeHeld() {
  for (size_t s = 0; s < heldFolders_.size(); ++s) {
    for (size_t i = 0; i < passes_.size(); ++i) finalizeSession(held_[i][s], heldFolders_[s], *passes_[i].agg);
    progress_.sessionDone(heldTokens_[s]);
  }
  held_.clear();
  held_.resize(passes_.size());
  heldFolders_.clear();
  heldTokens_.clear();
  heldBytes_ = 0;
}

void processSessionGroup(FileSystem& fs, const SessionGroup& group, const MeterOptions& options,
                         GlobalAggregator& agg) {
  std::vector<MeterPass> passes(1);
  passes[0].options = &options;
  passes[0].bounds = RangeBounds::from(options);
  passes[0].agg = &agg;
  SessionProgress progress{nullptr, 0, 1, 0, ProgressThrottle(systemClock())};
  SessionFold fold(passes, SessionFold::Mode::kFinalize, 0, progress);
  SessionGroup sorted = group;
  std::sort(sorted.subagentFiles.begin(), sorted.subagentFiles.end());
  TreeReading reading(fs, SessionDiscovery::meteringOrder({sorted}));
  reading.add(fold);
  (void)reading.run();
}

}  // namespace ostler
