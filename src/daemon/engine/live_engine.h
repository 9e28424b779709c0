// The live engine follows a transcript tree as Claude Code writes it. It keeps
// one byte offset per file and at each poll reads only the whole lines
// appended since, folding each request once, at its last usage, into its
// chat's record, today's accumulator and the rolling burns behind the limit
// windows. Its state can be saved and restored, so a restart neither re-reads
// the tree nor counts a request twice.
//
// Not locked: one thread at a time polls, snapshots and restores. Bad input
// is counted, never fatal.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/engine/burn_event.h"
#include "daemon/engine/closeout_progress_source.h"
#include "daemon/engine/exclusion_reason.h"
#include "daemon/engine/file_media_state.h"
#include "daemon/engine/gathered_lines.h"
#include "daemon/engine/live_line.h"
#include "daemon/engine/session_live_state.h"
#include "daemon/engine/shutdown_signal_source.h"
#include "daemon/feed/feed.h"
#include "daemon/feed/feed_windows.h"
#include "daemon/state/persisted_state.h"
#include "daemon/windows/window_scan.h"
#include "platform/file_sizes.h"
#include "platform/file_system.h"
#include "platform/hid_idle_source.h"
#include "transcript/pricing.h"
#include "transcript/raw_transcript_line.h"
#include "transcript/session_discovery.h"
#include "transcript/unreadable.h"

namespace ostler {

class LiveEngine {
 public:
  // How long burns are kept: 32 days, the reach of the month gauge.
  static constexpr InstantMs kBurnRetentionMs = 2'764'800'000;
  // A silence this long (five hours) starts a new session window.
  static constexpr double kSessionGapSeconds = 18'000.0;
  // No local day is longer (a day that ends summer time).
  static constexpr InstantMs kLongestDayMs = 25 * 3'600'000;

  struct TodayAccumulatorSnapshot {
    double spentUSD = 0;  // rounded to six places
    int64_t turns = 0;
  };

  struct SessionAnchor {
    std::optional<InstantMs> anchor;  // start of the current session window
    std::optional<std::string> note;  // the reset phrase, when the anchor came from one
  };

  // Today's figures from the windowed receipt, published in place of the
  // accumulator while the two disagree.
  struct WindowedTodayOverride {
    double spentUSD = 0;
    int64_t turns = 0;
    std::map<std::string, int64_t> tokensByFamily;  // from a fresh read of the tree
    std::string computedAt;                         // when the accumulator was last checked
  };

  struct SessionsSnapshot {
    std::vector<FeedSession> sessions;  // the last day's chats with context: warm, then cold; at most 10
    int64_t zeroContextSessions = 0;    // the last day's chats without a priced turn
    std::vector<FeedSession> sessionsAll;  // every chat, newest first
    int64_t sessionsAllRebuiltCount = 0;   // rows of `sessionsAll` built afresh in this snapshot
  };

  struct BuiltFeedSession {
    FeedSession session;
    std::string temperature;  // "warm" or "cold"
    double rewarmUsd = 0;
  };

  // A row of `sessions_all` as last built, reused while it is recent.
  struct SessionsAllMemoEntry {
    FeedSession session;
    InstantMs builtAt = 0;
  };

  // How long a `sessions_all` row of an untouched chat is reused.
  static constexpr double kSessionsAllInventoryCadenceSeconds = 30.0;
  // The list of recent chats reaches back one day.
  static constexpr InstantMs kRecentSessionsMs = 86'400'000;
  static constexpr size_t kRecentSessionsLimit = 10;
  // A subagent file written within this many seconds is a running agent.
  static constexpr double kActiveDispatchWithinSeconds = 60.0;
  // The token rate is taken over the last five minutes.
  static constexpr InstantMs kTokenRateWindowMs = 300'000;

  // `timeZoneId` names the IANA zone whose local day "today" is. The engine
  // reads the tree through `fs`, which must outlive it.
  LiveEngine(FileSystem& fs, PricingTable pricing, std::string timeZoneId);
  LiveEngine(const LiveEngine&) = delete;
  LiveEngine& operator=(const LiveEngine&) = delete;

  // Where `poll` learns the sizes of the files; a plain look at each file
  // unless set. A long-lived engine watches its folders instead, so that an
  // idle poll asks the file system about no file.
  void setFileSizeSource(std::unique_ptr<FileSizeSource> source) { fileSizes_ = std::move(source); }

  // Reads what was appended to every transcript under `root` since the last
  // poll. First rolls today's accumulator over when `now` lies in a new local
  // day; then reads the files in discovery order (a file that shrank is read
  // again from byte 0); then drops burns older than 32 days. A shutdown
  // request is honoured between files only. Returns the session ids of the
  // files that yielded at least one whole line. A file read from byte 0
  // whose lines `gathered` holds at its present size is folded from there
  // rather than read again.
  std::set<std::string> poll(const std::string& root, InstantMs now,
                             const ShutdownSignalSource* shutdownSignal = nullptr,
                             const GatheredLines* gathered = nullptr);

  // The session and file records of the file being read, found (or made)
  // at its first decoded line and kept for the rest: map entries do not
  // move.
  struct FileRecords {
    SessionLiveState* session = nullptr;
    FileMediaState* media = nullptr;
    std::string* subagentModel = nullptr;  // the file's entry, once it has one
  };

  // Routes one decoded line of `file` to the session and file records.
  void process(const LiveLine& line, const TranscriptFile& file, InstantMs now, FileRecords& records);

  // Folds an assistant line: timestamps and model of the chat, today's
  // accumulator, burns, setup capture, pending images and the quota event.
  void processAssistant(const LiveLine& line, SessionLiveState& session, FileMediaState& media, InstantMs now);

  // Counts the images of a user line into the file's image run.
  void processUser(const LiveLine& line, FileMediaState& media);

  // Drops the offsets, file records, sessions (with their `sessions_all`
  // rows) and subagent models of files that no longer exist. Request ids,
  // today's figures and burns stay.
  void gcDeadEntries(const std::vector<TranscriptFile>& currentFiles);

  // True once more than 5 percent of the non-blank lines ever read failed to
  // decode; never with no line read.
  [[nodiscard]] bool parserAlarmTripped() const;

  // All four tallies, dollars rounded, once any exclusion was recorded.
  [[nodiscard]] std::optional<FeedDiagnosticsExclusions> exclusionsSnapshot() const;

  [[nodiscard]] TodayAccumulatorSnapshot todayAccumulatorSnapshot() const;

  // The chat's newest assistant timestamp; nothing for an unknown chat.
  [[nodiscard]] std::optional<InstantMs> lastActivity(const std::string& sessionId) const;

  // Today's tokens by family from a fresh engine that reads the whole tree
  // once, with no saved state behind it; a stop ends its reading between
  // files.
  [[nodiscard]] static std::map<std::string, int64_t> freshWindowedTokensByFamily(
      FileSystem& fs, const std::string& root, const PricingTable& pricing, InstantMs now,
      const std::string& timeZoneId, const GatheredLines* gathered = nullptr,
      const ShutdownSignalSource* stop = nullptr);

  // Persistence. The snapshot copies every saved field; restore replaces
  // them all and leaves `isDirty` as it was.
  [[nodiscard]] PersistedState snapshotForPersistence(const std::string& root) const;
  // The same state borrowed, for a save without a copy; valid until the
  // engine next changes.
  [[nodiscard]] PersistedStateView persistenceView(const std::string& root) const;
  void restore(PersistedState state);

  // Limit windows. The session window starts at the later of the burn-
  // inferred anchor and a past reset named by the last quota message.
  [[nodiscard]] SessionAnchor sessionAnchor(InstantMs now) const;
  // The three gauges from the burns and the cached walls; `month` is left out.
  [[nodiscard]] FeedWindows snapshotWindows(InstantMs now) const;
  // All burns from `anchor` to `now`.
  [[nodiscard]] FeedMonthWindow snapshotMonthWindow(InstantMs anchor, InstantMs now) const;
  // Replaces the walls (from a finished scan) and marks the state dirty.
  void updateWalls(const WindowScan::Walls& walls);
  // The instant the last quota message's reset phrase names, if any.
  [[nodiscard]] std::optional<InstantMs> resolvedQuotaResetInstant() const { return resolvedQuotaReset_; }

  // Today as the feed publishes it. `windowedWasteUSD` and the three
  // mac-first figures come from today's windowed receipt; spend, turns and
  // tokens from the accumulator, or from `publishedSpendOverride` when given.
  [[nodiscard]] FeedToday snapshotToday(double windowedWasteUSD, double windowedMediaReadsUSD,
                                        double windowedRepeatPipelinesUSD, double windowedDownshiftUSD,
                                        const std::optional<WindowedTodayOverride>& publishedSpendOverride) const;

  // The last limit message; `extra_usage_disabled_reason` is left empty.
  [[nodiscard]] FeedQuota snapshotQuota() const;

  // The chats as the feed lists them. The last day's chats with a priced
  // turn are built afresh: warm ones newest first, then cold ones dearest to
  // rewarm first, at most 10. Every chat also gets a row in `sessionsAll`,
  // reused from the memo unless it is missing, its chat is in
  // `touchedSessionIds`, or it is 30 seconds old. `idle` is read once.
  [[nodiscard]] SessionsSnapshot snapshotSessions(InstantMs now, const CloseoutProgressSource& stores,
                                                  const std::string& closeoutStoreBase, const HIDIdleSource& idle,
                                                  const std::set<std::string>& touchedSessionIds);

  // One chat's row, with `last` as its last activity. Reads the chat's
  // subagent folder and closeout store; a failed read leaves its figure out.
  [[nodiscard]] BuiltFeedSession buildFeedSession(const std::string& sessionId, const SessionLiveState& s,
                                                  InstantMs last, InstantMs now, const CloseoutProgressSource& stores,
                                                  const std::string& closeoutStoreBase, double idleSeconds) const;

  // Running agents and their models, and the token rate of the last five
  // minutes (per minute, truncated toward zero). `mac_ai_sessions` is left
  // empty. Agents are looked for in the chats that had subagent files at
  // the last poll, as are a row's dispatches.
  [[nodiscard]] FeedNow snapshotNow(InstantMs now) const;

  // Files whose image run has five images or more, the last less than
  // `activeWithinSeconds` ago; dearest first.
  [[nodiscard]] std::vector<FeedMediaLoopActive> snapshotActiveMediaLoops(InstantMs now,
                                                                          double activeWithinSeconds) const;

  // Whether state changed since it was last saved; the saver clears it.
  [[nodiscard]] bool isDirty() const { return isDirty_; }
  void markClean() { isDirty_ = false; }

  // Notes a save of `bytes` bytes: clears `isDirty` and counts it.
  void recordPersist(int64_t bytes);
  // The saves since this engine started; nothing before the first.
  [[nodiscard]] std::optional<FeedDiagnosticsPersist> persistDiagnostics() const;

  [[nodiscard]] const std::map<std::string, SessionsAllMemoEntry>& sessionsAllMemo() const {
    return sessionsAllMemo_;
  }

  [[nodiscard]] const std::map<std::string, int64_t>& fileOffsets() const { return fileOffsets_; }
  [[nodiscard]] const std::map<std::string, FileMediaState>& fileMediaState() const { return fileMediaState_; }
  [[nodiscard]] const std::map<std::string, SessionLiveState>& sessionState() const { return sessionState_; }
  [[nodiscard]] const std::map<std::string, std::string>& subagentLastModel() const { return subagentLastModel_; }
  [[nodiscard]] const RequestIdSet& seenRequestIds() const { return seenRequestIds_; }
  [[nodiscard]] int64_t newLinesSeen() const { return newLinesSeen_; }
  [[nodiscard]] int64_t newLinesSkipped() const { return newLinesSkipped_; }
  // The files and folders the last poll could not read (or found to be no
  // regular file): tried again at every poll, and counted in the feed.
  [[nodiscard]] const Unreadable& unreadable() const { return unreadable_; }
  [[nodiscard]] const ExclusionTally& exclusion(ExclusionReason r) const {
    return exclusions_[static_cast<size_t>(r)];
  }
  [[nodiscard]] std::optional<InstantMs> todayBoundary() const { return todayBoundary_; }
  [[nodiscard]] double todaySpentUSD() const { return todaySpentUSD_; }
  [[nodiscard]] int64_t todayTurns() const { return todayTurns_; }
  [[nodiscard]] const std::map<std::string, int64_t>& todayTokensByFamily() const { return todayTokensByFamily_; }
  [[nodiscard]] const std::vector<BurnEvent>& recentBurns() const { return recentBurns_; }
  [[nodiscard]] const std::optional<std::string>& quotaLastEventAt() const { return quotaLastEventAt_; }
  [[nodiscard]] const std::optional<std::string>& quotaResetsNote() const { return quotaResetsNote_; }
  [[nodiscard]] const std::optional<WindowScan::Walls>& cachedWalls() const { return cachedWalls_; }
  [[nodiscard]] const PricingTable& pricing() const { return pricing_; }
  [[nodiscard]] const std::string& timeZoneId() const { return timeZoneId_; }

 private:
  void rollOverDay(InstantMs now);
  // Reads and folds the new lines of `file`, now `size` bytes long; true
  // when it yielded a line. A stop ends the reading after a whole line.
  using OffsetIterator = std::map<std::string, int64_t>::iterator;
  bool readFile(const TranscriptFile& file, int64_t size, InstantMs now, OffsetIterator& hint,
                const GatheredLines* gathered, Unreadable& unreadable, const ShutdownSignalSource* shutdownSignal);
  // Notes why a listed file has no size: it is no regular file, or cannot
  // be looked at.
  void noteUnsized(const std::string& path, Unreadable& unreadable);
  void pruneBurns(InstantMs now);
  void recordExclusion(ExclusionReason reason, double dollars);
  void foldRequest(const std::optional<std::string>& requestId, double cost, const TurnUsage& usage,
                   InstantMs ts, bool countsForToday, const std::optional<std::string>& family,
                   FileMediaState& media);
  void addBurn(InstantMs ts, double cost, int64_t tokens, const std::optional<std::string>& family);
  void noteQuotaEvent(const LiveLine& line);
  // Works out the reset instant whenever the quota fields change, rather
  // than parsing the phrase in a named zone at every snapshot.
  void resolveQuotaReset();
  [[nodiscard]] const std::vector<std::string>& activeDispatchFiles(const std::string& sessionId,
                                                                    const SessionLiveState& s, InstantMs now) const;
  [[nodiscard]] FeedWindow gauge(WindowShape shape, std::optional<InstantMs> anchor,
                                 const std::optional<std::string>& note,
                                 const std::optional<CutoffObservation>& wall, InstantMs now) const;

  // Fixed at construction.
  FileSystem& fs_;
  PricingTable pricing_;
  std::string timeZoneId_;
  TranscriptLineDecoder decoder_;
  RawTranscriptLine rawLine_;
  StringArena lineStrings_{4096};  // the strings of the line being folded
  std::optional<std::string> requestIdScratch_;
  ModelRateCache rates_;
  std::optional<std::string> pricedFamily_;  // of the model last priced

  // Reading.
  std::unique_ptr<FileSizeSource> fileSizes_ = makeFileSizes(fs_);
  std::map<std::string, int64_t> fileOffsets_;             // read position of each file
  // The size each file had when it was last read, kept in memory only: a
  // file whose torn last line has not grown since holds no new whole line,
  // so it need not be opened again.
  std::unordered_map<std::string, int64_t> sizeAtLastRead_;
  std::map<std::string, std::string> subagentLastModel_;   // newest model of each subagent file
  RequestIdSet seenRequestIds_;                            // every request folded; never pruned
  int64_t newLinesSeen_ = 0;
  int64_t newLinesSkipped_ = 0;
  Unreadable unreadable_;
  std::array<ExclusionTally, kExclusionReasonCount> exclusions_{};  // in memory only
  bool isDirty_ = false;
  bool hasDoneInitialScan_ = false;  // not saved: the first poll after a restore collects dead entries

  // Accounting.
  std::map<std::string, FileMediaState> fileMediaState_;  // by file path
  std::map<std::string, SessionLiveState> sessionState_;  // by session id
  std::optional<std::string> quotaLastEventAt_;
  std::optional<std::string> quotaResetsNote_;
  std::optional<InstantMs> resolvedQuotaReset_;  // from the two above
  std::optional<InstantMs> todayBoundary_;
  std::optional<InstantMs> nextDayStart_;  // not saved: worked out again at the first poll
  double todaySpentUSD_ = 0;
  int64_t todayTurns_ = 0;
  std::map<std::string, int64_t> todayTokensByFamily_;
  std::vector<BurnEvent> recentBurns_;  // arrival order, 32 days

  // Windows.
  std::optional<WindowScan::Walls> cachedWalls_;

  // Sessions with subagent files at the last poll: only their folders can
  // hold a running agent, so the snapshots look in no other.
  std::set<std::string> sessionsWithSubagentFiles_;
  // Their running agents as of one instant. A feed asks for a chat's agents
  // for its rows and again for the live figures, all at one `now`, and each
  // asking walks a folder; a poll, a restore or another instant starts
  // afresh. Written by const snapshots: like the rest of the engine, it is
  // for one thread at a time.
  mutable std::optional<InstantMs> dispatchMemoAt_;
  mutable std::unordered_map<std::string, std::vector<std::string>> dispatchMemo_;

  // Snapshots; in memory only.
  std::map<std::string, SessionsAllMemoEntry> sessionsAllMemo_;  // by session id
  int64_t persistCountSinceStart_ = 0;
  int64_t persistBytesLast_ = 0;
  int64_t persistBytesSinceStart_ = 0;
};

}  // namespace ostler
