#include "meter/attribution.h"

#include <algorithm>
#include <set>

#include "transcript/text.h"
#include "meter/turn_accounting.h"

namespace ostler {
namespace {

struct Contribution {
  int64_t turn = 0;
  double amount = 0;
};

struct DuplicatePath {
  std::string path;
  int64_t occurrences = 0;
  std::vector<Contribution> contributions;
};

struct Dump {
  std::string text;
  Contribution contribution;
};

double ratio(double kept, double raw) { return raw > 0 ? kept / raw : 0.0; }

std::string projectName(const SessionState& state, const std::string& folderName) {
  if (!state.project.empty()) return state.project;
  size_t i = 0;
  while (i < folderName.size() && folderName[i] == '-') ++i;
  return folderName.substr(i);
}

}  // namespace

void flushMediaRun(const std::vector<const MediaEvent*>& run, const std::string& sessionId,
                   const std::string& project, const std::vector<double>& keepRatioR1,
                   GlobalAggregator& agg) {
  if (run.empty()) return;
  int64_t images = 0;
  for (const MediaEvent* e : run) images += e->imageCount;
  if (images < 5) return;
  MediaLoopCandidate loop;
  loop.sessionId = sessionId;
  loop.project = project;
  loop.images = images;
  std::set<std::string_view> files;
  for (const MediaEvent* e : run) {
    loop.rawUsd += e->usd;
    if (e->entryTurn) {
      const auto t = static_cast<size_t>(*e->entryTurn);
      loop.usd += e->usd * (t < keepRatioR1.size() ? keepRatioR1[t] : 0.0);
    }
    files.insert(e->filePath);
  }
  loop.firstTimestamp = std::string(run.front()->timestamp);
  loop.lastTimestamp = std::string(run.back()->timestamp);
  loop.fileCount = static_cast<int64_t>(files.size());
  agg.mediaLoopCandidates.push_back(std::move(loop));
}

void dispatchUnitCheck(const SessionState& state, const PricingTable& pricing, GlobalAggregator& agg) {
  if (state.unitTurnCount < 1 || !state.unitRepresentativeInputRate) return;
  if (double(state.unitToolUseOnlyCount) / double(state.unitTurnCount) < 0.7) return;
  if (!(pricing.sonnetRate().input < *state.unitRepresentativeInputRate)) return;
  agg.dispatchDownshiftUSD += std::max(0.0, state.unitSpent - state.unitSpentAtSonnet);
  agg.dispatchDownshiftUnits += 1;
  agg.dispatchDownshiftSpendUSD += state.unitSpent;
}

namespace {

// The session's media loops, found on one timeline of its files.
void flushMediaLoops(const SessionState& state, const std::string& project, const std::vector<double>& keepR1,
                     GlobalAggregator& agg) {
  std::vector<const MediaEvent*> timeline;
  timeline.reserve(state.mediaSequence.size());
  for (const auto& e : state.mediaSequence) timeline.push_back(&e);
  std::stable_sort(timeline.begin(), timeline.end(), [](const MediaEvent* a, const MediaEvent* b) {
    if (a->timestamp != b->timestamp) return a->timestamp < b->timestamp;
    if (a->filePath != b->filePath) return a->filePath < b->filePath;
    return a->lineNumber < b->lineNumber;
  });
  std::vector<const MediaEvent*> run;
  std::optional<size_t> previousImage;
  for (size_t i = 0; i < timeline.size(); ++i) {
    if (!timeline[i]->hasImage) continue;
    if (previousImage && i - *previousImage > 4) {
      flushMediaRun(run, state.sessionId, project, keepR1, agg);
      run.clear();
    }
    run.push_back(timeline[i]);
    previousImage = i;
  }
  flushMediaRun(run, state.sessionId, project, keepR1, agg);
}

}  // namespace

void finalizeSession(SessionState& state, const std::string& folderNameFallback, GlobalAggregator& agg) {
  // 1.
  if (state.turnCount < 1) return;
  const int64_t n = state.turnCount;
  auto hasTurn = [&](int64_t t) { return t >= 1 && t <= n; };

  // 2.
  const std::string project = projectName(state, folderNameFallback);
  const std::string id8 = sessionId8(state.sessionId);

  // 3. Raw W2: every read of a path after the first enters the next turn at
  // its input rate, then rides along as cached context.
  // Figures by turn, indexed by turn number (index 0 unused).
  const auto turnSlots = static_cast<size_t>(n) + 1;
  std::vector<double> rawW2(turnSlots, 0.0);
  std::vector<DuplicatePath> duplicates;
  for (const auto& [path, occurrences] : state.readOccurrenceTurns) {  // sorted by path
    if (occurrences.size() < 2) continue;
    auto maxIt = state.readResultMaxTokens.find(path);
    if (maxIt == state.readResultMaxTokens.end()) continue;
    const double tokens = double(maxIt->second);
    DuplicatePath dup{path, static_cast<int64_t>(occurrences.size()), {}};
    for (size_t i = 1; i < occurrences.size(); ++i) {
      const int64_t next = occurrences[i] + 1;
      if (!hasTurn(next)) continue;
      const double amount = state.turn(next).rate.input * tokens / 1e6;
      rawW2[static_cast<size_t>(next)] += amount;
      dup.contributions.push_back({next, amount});
      for (int64_t k = next + 1; k <= n; ++k) agg.carriedDuplicatesReadUSD += state.turn(k).rate.cacheRead * tokens / 1e6;
    }
    duplicates.push_back(std::move(dup));
  }

  // 4. Raw W3: all of a large result past its first 2,000 tokens.
  std::vector<double> rawW3(turnSlots, 0.0);
  std::vector<Dump> dumps;
  for (const auto& large : state.pendingLargeResults) {
    const int64_t next = large.toolUseTurn + 1;
    if (!hasTurn(next)) continue;
    const double excess = double(large.tokens - 2000);
    const double amount = state.turn(next).rate.input * excess / 1e6;
    rawW3[static_cast<size_t>(next)] += amount;
    dumps.push_back({project + ": " + large.toolName + " dump ~" + std::to_string(large.tokens) + " tok", {next, amount}});
    for (int64_t k = next + 1; k <= n; ++k) agg.carriedDumpsReadUSD += state.turn(k).rate.cacheRead * excess / 1e6;
  }

  // 5-8. The cap, turn by turn, in the fixed order W4, R2, R1, R3, W1, W2, W3.
  std::vector<double> keepW2(turnSlots, 0.0), keepW3(turnSlots, 0.0), keepR1(turnSlots, 0.0);
  double sumW1 = 0, sumW2 = 0, sumW3 = 0, sumW4 = 0, sumR1 = 0, sumR2 = 0, sumR3 = 0;
  for (int64_t t = 1; t <= n; ++t) {
    const TurnRecord& turn = state.turn(t);
    double remaining = turn.actualCost;
    auto take = [&](double raw) {
      double kept = std::min(raw, remaining);
      remaining -= kept;
      return kept;
    };
    const double rawW4 = turn.w4Candidate;
    const bool r2Qualifies = std::any_of(turn.bashOccurrences.begin(), turn.bashOccurrences.end(),
                                         [&](int64_t k) { return agg.qualifies(k); });
    const double rawR2 = r2Qualifies ? turn.actualCost : 0.0;
    const double rawR1 = turn.r1Candidate;
    const double rawR3 = turn.r3Candidate.value_or(0.0);
    const double rawW1 = turn.w1Candidate;
    const auto slot = static_cast<size_t>(t);
    const double rawW2t = rawW2[slot];
    const double rawW3t = rawW3[slot];
    const double w4 = take(rawW4);
    const double r2 = take(rawR2);
    const double r1 = take(rawR1);
    const double r3 = take(rawR3);
    const double w1 = take(rawW1);
    const double w2 = take(rawW2t);
    const double w3 = take(rawW3t);

    agg.wasteW1 += w1;
    agg.wasteW2 += w2;
    agg.wasteW3 += w3;
    agg.wasteW4 += w4;
    agg.macFirstR1 += r1;
    agg.macFirstR2 += r2;
    agg.macFirstR3 += r3;
    agg.rawW1 += rawW1;
    agg.rawW2 += rawW2t;
    agg.rawW3 += rawW3t;
    agg.rawW4 += rawW4;
    agg.rawR1 += rawR1;
    agg.rawR2 += rawR2;
    agg.rawR3 += rawR3;
    agg.rawW1InputUSD += turn.w1Composition.inputUSD;
    agg.rawW1CacheWriteUSD += turn.w1Composition.cacheWriteUSD;
    sumW1 += w1;
    sumW2 += w2;
    sumW3 += w3;
    sumW4 += w4;
    sumR1 += r1;
    sumR2 += r2;
    sumR3 += r3;

    if (w4 > 0) agg.w4Candidates.push_back({project + " turn " + std::to_string(t) + ": cache rebuilt", w4, id8});
    if (r3 > 0) agg.r3Candidates.push_back({project + " turn " + std::to_string(t) + ": downshift candidate", r3, id8});
    if (r2 > 0 && !turn.r2Templates.empty()) {
      const double part = r2 / double(turn.r2Templates.size());
      for (uint64_t hash : turn.r2Templates) agg.r2TemplateAttributed[hash] += part;
    }
    keepW2[slot] = ratio(w2, rawW2t);
    keepW3[slot] = ratio(w3, rawW3t);
    keepR1[slot] = ratio(r1, rawR1);
  }

  // 9.
  if (sumW1 > 0) agg.w1Candidates.push_back({project + " session " + id8, sumW1, id8});
  if (sumW1 > 0) agg.w1SessionsDistinct += 1;
  if (sumW2 > 0) agg.w2SessionsDistinct += 1;
  if (sumW3 > 0) agg.w3SessionsDistinct += 1;
  if (sumW4 > 0) agg.w4SessionsDistinct += 1;
  if (sumR1 > 0) agg.r1SessionsDistinct += 1;
  if (sumR2 > 0) agg.r2SessionsDistinct += 1;
  if (sumR3 > 0) agg.r3SessionsDistinct += 1;
  if (state.contextPeak > 100'000) agg.sessionsContextOver100k += 1;

  // 10-11. Detail lines keep the share their turn kept.
  for (const auto& dup : duplicates) {
    double kept = 0;
    for (const auto& c : dup.contributions) kept += c.amount * keepW2[static_cast<size_t>(c.turn)];
    if (kept > 0)
      agg.w2Candidates.push_back({project + ": " + std::string(text::lastPathComponent(dup.path)) + " read " +
                                      std::to_string(dup.occurrences) + "x",
                                  kept, id8});
  }
  for (const auto& dump : dumps) {
    double kept = dump.contribution.amount * keepW3[static_cast<size_t>(dump.contribution.turn)];
    if (kept > 0) agg.w3Candidates.push_back({dump.text, kept, id8});
  }

  // 12. Media loops, on one timeline of the session's files. A session
  // without images has none, and most have none: its timeline is not sorted.
  if (hasAnyImage(state)) flushMediaLoops(state, project, keepR1, agg);

  // 13.
  if (double(state.toolUseOnlyCount) / double(n) >= 0.7)
    agg.wholeSessionDownshiftUSD += std::max(0.0, state.spent - state.spentAtSonnet);

  // 14.
  agg.totalSessions += 1;
  agg.turnsPerSessionCounts.push_back(n);
  if (state.sessionIdsSeen.size() > 1) agg.multiSessionIdFiles += 1;
  ProjectTally& p = agg.byProject[project];
  p.sessions += 1;
  p.usd += state.spent;
  agg.topSessions.push_back({state.sessionId, project, state.spent, n, state.contextPeak});
}

bool hasAnyImage(const SessionState& state) {
  return std::any_of(state.mediaSequence.begin(), state.mediaSequence.end(),
                     [](const MediaEvent& e) { return e.hasImage; });
}

}  // namespace ostler
