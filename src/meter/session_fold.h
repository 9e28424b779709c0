// Pass two of a metering run: every line of every file folded into its
// session, and each session, once finished, attributed and folded into the
// pass (Part of the receipt's figures come from the fold, the rest from the
// attribution; the two add to disjoint sums, so a session may wait between
// them without changing any figure, not even in the last bit).
//
// A session's attribution needs pass one's count of the whole tree. When
// both passes share one reading, each finished session is held until the
// reading ends; a budget bounds what is held, and the sessions past it are
// folded again on a reading of their own, once pass one has counted.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "meter/meter_line.h"
#include "meter/meter_options.h"
#include "meter/meter_state.h"
#include "transcript/recycler.h"
#include "transcript/tree_reading.h"

namespace ostler {

// One pass of a run: its options and bounds, its aggregator, and the session
// being folded.
struct MeterPass {
  const MeterOptions* options = nullptr;
  RangeBounds bounds;
  GlobalAggregator* agg = nullptr;
  SessionState state;
};

// Pass two's progress: one report after each session is attributed, the last
// always, carrying the tokens metered so far.
struct SessionProgress {
  ProgressCallback onProgress;
  int64_t totalFiles = 0;
  size_t totalSessions = 0;
  size_t sessionsDone = 0;
  ProgressThrottle throttle;

  void sessionDone(int64_t tokensMetered);
};

class SessionFold final : public TreeFold {
 public:
  // What becomes of each finished session.
  enum class Mode {
    kFinalize,  // attributed at once: pass one has counted the whole tree
    kHold,      // held until `finalizeHeld`, within `holdBudgetBytes`
  };

  SessionFold(std::vector<MeterPass>& passes, Mode mode, uint64_t holdBudgetBytes, SessionProgress& progress);

  [[nodiscard]] std::unique_ptr<Slice> startSlice(const TranscriptFile& file, const FileSlice& slice) override;
  void beginFile(const TranscriptFile& file) override;
  void foldSlice(const TranscriptFile& file, const FileSlice& slice, std::unique_ptr<Slice> share,
                 const SliceEnd& end) override;
  void endFile(const TranscriptFile& file) override;
  void endReading(bool completed) override;

  // Attributes every held session, in order. Pass one must have counted the
  // whole tree.
  void finalizeHeld();

  // The number of files folded before the budget ran out, once it has: the
  // files from there on are for a reading of their own.
  [[nodiscard]] std::optional<size_t> stoppedAtFile() const { return stoppedAtFile_; }

 private:
  class DigestSlice;

  void startSession(const TranscriptFile& file);
  void finishSession();

  std::vector<MeterPass>& passes_;
  const Mode mode_;
  const uint64_t holdBudgetBytes_;
  SessionProgress& progress_;
  Recycler<std::unique_ptr<Slice>> spent_;

  bool inSession_ = false;
  std::string sessionId_, projectDirPath_;  // the open session
  std::vector<std::vector<SessionState>> held_;  // per pass, in order
  std::vector<std::string> heldFolders_;         // each held session's project folder
  std::vector<int64_t> heldTokens_;              // the tokens metered when it was folded, for progress
  uint64_t heldBytes_ = 0;
  // Written on the reading's thread, read by workers: once the budget runs
  // out, later slices are not digested.
  std::atomic<bool> folding_{true};
  std::optional<size_t> stoppedAtFile_;
  size_t filesBegun_ = 0;

  // The file being folded.
  bool opened_ = false;
  bool isSubagent_ = false;
  std::string path_;
  std::vector<int64_t> turnsBefore_;
  // The session id of the run of lines being read: ids repeat line after
  // line, and each run is noted once. Lines of one slice share the id's
  // text, so a run is mostly told by where that text lies.
  std::string lastSessionId_;
  const char* lastSessionIdAt_ = nullptr;
};

// Reads and folds every file of a group, then attributes the session.
void processSessionGroup(FileSystem& fs, const SessionGroup& group, const MeterOptions& options,
                         GlobalAggregator& agg);

}  // namespace ostler
