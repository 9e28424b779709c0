// The working records of a metering pass: one SessionState per session and
// one GlobalAggregator per pass. Turns are numbered from 1 within a session;
// per-turn figures live in `turns`, indexed by turn number less one.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "transcript/id_set.h"
#include "transcript/iso8601.h"
#include "transcript/pricing.h"
#include "meter/receipt.h"
#include "transcript/string_arena.h"
#include "meter/top_k.h"

namespace ostler {

// Lets string-keyed hash containers be searched with a string_view.
struct TransparentHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};

// A receipt detail line to choose from.
struct DetailCandidate {
  std::string text;
  double usd = 0;
  std::optional<std::string> sessionId;  // first 8 characters of the session id
};

// Detail lines order by dollars, largest first, then by text.
struct DetailBefore {
  bool operator()(const DetailCandidate& a, const DetailCandidate& b) const {
    if (a.usd != b.usd) return a.usd > b.usd;
    return a.text < b.text;
  }
};
using DetailCandidates = TopK<DetailCandidate, DetailBefore>;

// Sessions order by spend, largest first, then by id.
struct TopSessionBefore {
  bool operator()(const ReceiptTopSession& a, const ReceiptTopSession& b) const {
    if (a.spent_usd != b.spent_usd) return a.spent_usd > b.spent_usd;
    return a.sessionId < b.sessionId;
  }
};

// One user line, in reading order; images are priced by the turn that
// takes them in.
struct MediaEvent {
  bool hasImage = false;
  int64_t imageCount = 0;
  int64_t imageTokens = 0;
  double usd = 0;                     // 0 until the next turn sets it
  std::optional<int64_t> entryTurn;   // the turn that took the images in
  std::string_view timestamp;         // empty when the line has none
  std::string_view filePath;
  int64_t lineNumber = 0;             // orders the lines of one file
};

// A tool call not yet answered.
struct PendingToolUse {
  std::string name;
  std::optional<std::string> filePath;
  int64_t turnIndex = 0;
};

struct PendingTypedShare {
  int64_t bytes = 0;
  bool isPaste = false;  // above 2,000 bytes
};

struct PendingLargeResult {
  std::string toolName;
  int64_t tokens = 0;
  int64_t toolUseTurn = 0;
};

struct MediaLoopCandidate {
  std::string sessionId;  // the full session id
  std::string project;
  int64_t images = 0;
  double usd = 0;     // kept
  double rawUsd = 0;  // raw
  std::string firstTimestamp;
  std::string lastTimestamp;
  int64_t fileCount = 0;  // distinct files the loop spans
};

// Everything the pass keeps about one turn.
struct TurnRecord {
  PricingRate rate;             // the rate the turn was priced at
  double actualCost = 0;        // the turn's cost
  double costAtSonnet = 0;      // the same usage at the sonnet row
  TurnUsage usageLast;          // the usage the turn was priced on
  double w1Candidate = 0;
  CostMath::W1Composition w1Composition;
  double w4Candidate = 0;
  double r1Candidate = 0;
  // The turn's Bash calls by occurrence number: whether one qualifies as a
  // repeat is known only once the whole tree has been counted.
  std::vector<int64_t> bashOccurrences;
  std::vector<uint64_t> r2Templates;       // their template hashes, distinct
  std::optional<double> r3Candidate;
  std::optional<std::string> day;          // first 10 characters of the timestamp
  std::string model;                       // the model of the turn's first line
};

struct SessionState {
  std::string sessionId;
  std::string project;
  int64_t turnCount = 0;
  double spent = 0;
  int64_t contextPeak = 0;
  bool sawCacheReadPositive = false;
  std::optional<InstantMs> lastAssistantTimestamp;
  std::set<std::string, std::less<>> sessionIdsSeen;
  std::vector<TurnRecord> turns;  // turn t at index t - 1

  std::optional<std::string> openRequestId;
  bool openIsDuplicate = false;
  std::optional<int64_t> openTurnIndex;
  bool openGroupHasToolUse = false;
  int64_t openGroupTextLength = 0;
  TurnUsage openGroupLastUsage;

  int64_t pendingImageTokens = 0;
  std::vector<PendingTypedShare> pendingTypedShareEvents;
  std::optional<std::string> lastRealModel;
  std::optional<TurnUsage> lastRealUsage;
  std::optional<InstantMs> lastRealTimestamp;
  bool hadSwitchTaxThisSession = false;
  bool hadCompactionSpendThisSession = false;
  bool hadTypedShareFloorThisSession = false;
  std::vector<MediaEvent> mediaSequence;
  std::vector<size_t> pendingMediaIndices;
  std::unordered_map<std::string, PendingToolUse, TransparentHash, std::equal_to<>> pendingToolUsesById;
  std::map<std::string, std::vector<int64_t>, std::less<>> readOccurrenceTurns;
  std::unordered_map<std::string, int64_t, TransparentHash, std::equal_to<>> readResultMaxTokens;
  std::vector<PendingLargeResult> pendingLargeResults;
  std::optional<std::string> minTimestamp;
  std::optional<std::string> maxTimestamp;
  int64_t toolUseOnlyCount = 0;
  double spentAtSonnet = 0;

  // Owns the text of the media events.
  StringArena strings;
  std::string_view mediaFilePath;  // the current file's path, in `strings`

  // Figures of the file being read (a subagent file is one dispatch unit).
  int64_t unitTurnCount = 0;
  int64_t unitToolUseOnlyCount = 0;
  double unitSpent = 0;
  double unitSpentAtSonnet = 0;
  std::optional<double> unitRepresentativeInputRate;

  TurnRecord& turn(int64_t t) { return turns[static_cast<size_t>(t - 1)]; }
  const TurnRecord& turn(int64_t t) const { return turns[static_cast<size_t>(t - 1)]; }
  // Clears what belongs to one file, before the file is read.
  void resetForFile();
};

struct ModelTally {
  int64_t turns = 0;
  double usd = 0;
};

struct ProjectTally {
  int64_t sessions = 0;
  double usd = 0;
};

struct GlobalAggregator {
  int64_t totalTurns = 0;
  int64_t totalSessions = 0;
  double totalSpent = 0;
  int64_t tokensInput = 0;
  int64_t tokensOutput = 0;
  int64_t tokensCacheRead = 0;
  int64_t tokensCacheWrite = 0;
  std::map<std::string, ModelTally, std::less<>> byModel;
  std::map<std::string, ProjectTally, std::less<>> byProject;
  std::map<std::string, double, std::less<>> byDay;

  double wasteW1 = 0, wasteW2 = 0, wasteW3 = 0, wasteW4 = 0;
  double macFirstR1 = 0, macFirstR2 = 0, macFirstR3 = 0;
  double rawW1 = 0, rawW2 = 0, rawW3 = 0, rawW4 = 0;
  double rawR1 = 0, rawR2 = 0, rawR3 = 0;
  double rawW1InputUSD = 0, rawW1CacheWriteUSD = 0;
  double carriedContextReadUSD = 0, carriedDuplicatesReadUSD = 0, carriedDumpsReadUSD = 0;
  double wholeSessionDownshiftUSD = 0, dispatchDownshiftUSD = 0;
  int64_t dispatchDownshiftUnits = 0;
  double dispatchDownshiftSpendUSD = 0;
  DetailCandidates w1Candidates, w2Candidates, w3Candidates, w4Candidates, r3Candidates;
  int64_t w1SessionsDistinct = 0, w2SessionsDistinct = 0, w3SessionsDistinct = 0, w4SessionsDistinct = 0;
  int64_t r1SessionsDistinct = 0, r2SessionsDistinct = 0, r3SessionsDistinct = 0;
  int64_t sessionsContextOver100k = 0;

  // Repeat pipelines, by Bash occurrence number.
  std::vector<bool> r2QualifyingIndices;
  std::vector<uint64_t> r2TemplateForIndex;
  std::unordered_map<uint64_t, int64_t> r2TemplateOccCount;
  int64_t bashCounter = 0;
  std::unordered_map<uint64_t, double> r2TemplateAttributed;

  ModelRateCache rates;

  std::vector<MediaLoopCandidate> mediaLoopCandidates;
  TopK<ReceiptTopSession, TopSessionBefore> topSessions;
  std::set<std::string> unknownModels;
  int64_t skippedLines = 0;
  IdSet allSessionIds;
  int64_t multiSessionIdFiles = 0;
  std::vector<int64_t> turnsPerSessionCounts;
  int64_t subagentFiles = 0, subagentTurns = 0;
  IdSet seenRequestIds;
  int64_t linesWithoutRequestId = 0;
  int64_t duplicateRequestGroupLines = 0;
  std::optional<std::string> minTimestamp, maxTimestamp;

  double typedShareFloorUSD = 0, typedShareCeilingUSD = 0;
  int64_t typedShareFloorTurns = 0, typedShareCeilingTurns = 0, typedSharePasteCount = 0;
  int64_t typedShareSyntheticZeroedCount = 0, typedShareSessionsDistinct = 0;

  double switchTaxUSD = 0;
  int64_t switchTaxEvents = 0, switchTaxSessions = 0;
  DetailCandidates switchTaxCandidates;
  double switchTaxCounterfactualUSD = 0;

  double compactionPrimaryUSD = 0, compactionBoundUSD = 0;
  int64_t compactionCount = 0, compactionInvoluntaryCount = 0, compactionVoluntaryCount = 0;
  double compactionExamplePrimaryUSD = 0;
  int64_t compactionExamplePreTokens = 0, compactionExamplePostTokens = 0;
  double compactionPrimaryPreLegUSD = 0, compactionBoundPreLegUSD = 0, compactionOutputLegUSD = 0;
  DetailCandidates compactionCandidates;
  int64_t compactionSessionsDistinct = 0;
  IdSet seenCompactionUuids;

  // Lowers minTimestamp and raises maxTimestamp, as text; empty is ignored.
  void observe(const std::optional<std::string_view>& timestamp);
  // Whether Bash occurrence `k` qualifies as a repeat; known once the whole
  // tree has been counted.
  [[nodiscard]] bool qualifies(int64_t k) const {
    return k >= 0 && static_cast<size_t>(k) < r2QualifyingIndices.size() && r2QualifyingIndices[static_cast<size_t>(k)];
  }
  [[nodiscard]] int64_t tokensMetered() const {
    return addTokens(addTokens(tokensInput, tokensOutput), addTokens(tokensCacheRead, tokensCacheWrite));
  }
};

}  // namespace ostler
