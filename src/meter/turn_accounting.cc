#include "meter/turn_accounting.h"

#include <algorithm>

#include "transcript/request_runs.h"
#include "transcript/text.h"

namespace ostler {
namespace {

double seconds(InstantMs later, InstantMs earlier) { return static_cast<double>(later - earlier) / 1000.0; }

void updateSessionSpan(SessionState& state, const std::optional<std::string_view>& timestamp) {
  if (!timestamp || timestamp->empty()) return;
  if (!state.minTimestamp || *timestamp < *state.minTimestamp) state.minTimestamp = std::string(*timestamp);
  if (!state.maxTimestamp || *timestamp > *state.maxTimestamp) state.maxTimestamp = std::string(*timestamp);
}

ResolvedRate resolveNoting(const std::string& model, const MeterOptions& options, GlobalAggregator& agg) {
  const ResolvedRate& resolved = agg.rates.resolve(model, options.pricing);
  if (agg.rates.changed() && resolved.isUnknown) agg.unknownModels.insert(model);
  return resolved;
}

void addSwitchTax(const MeterLine& line, const std::string& model, const TurnUsage& u, const PricingRate& r,
                  SessionState& state, const MeterOptions& options, GlobalAggregator& agg) {
  const TurnUsage& p = *state.lastRealUsage;
  int64_t priorContext = CostMath::context(p);
  double priorShare = priorContext < 1 ? 0.0 : double(p.cacheRead) / double(priorContext);
  int64_t ctx = CostMath::context(u);
  double rebuilt = priorShare * double(ctx) - double(u.cacheRead);
  rebuilt = std::max(0.0, std::min(rebuilt, double(ctx - u.cacheRead)));
  double floor = (r.input - r.cacheRead) * rebuilt / 1e6;
  if (floor > 0) {
    agg.switchTaxUSD += floor;
    agg.switchTaxEvents += 1;
    if (!state.hadSwitchTaxThisSession) {
      state.hadSwitchTaxThisSession = true;
      agg.switchTaxSessions += 1;
    }
    agg.switchTaxCandidates.push_back(
        {projectLabel(state) + ": switched " + *state.lastRealModel + " to " + model, floor,
         sessionId8(state.sessionId)});
  }
  const PricingRate& q = resolveRate(*state.lastRealModel, options.pricing).rate;
  double premium = r.write5m * double(u.cache5m) / 1e6 + r.write1h * double(u.cache1h) / 1e6 -
                   q.cacheRead * double(u.cache5m + u.cache1h) / 1e6;
  if (premium > 0) agg.switchTaxCounterfactualUSD += premium;
  (void)line;
}

}  // namespace

std::string projectLabel(const SessionState& state) { return state.project.empty() ? "session" : state.project; }

std::string sessionId8(const std::string& sessionId) { return std::string(text::prefixCharacters(sessionId, 8)); }

void GlobalAggregator::observe(const std::optional<std::string_view>& timestamp) {
  if (!timestamp || timestamp->empty()) return;
  if (!minTimestamp || *timestamp < *minTimestamp) minTimestamp = std::string(*timestamp);
  if (!maxTimestamp || *timestamp > *maxTimestamp) maxTimestamp = std::string(*timestamp);
}

void SessionState::resetForFile() {
  sawCacheReadPositive = false;
  lastAssistantTimestamp.reset();
  openRequestId.reset();
  openTurnIndex.reset();
  lastRealModel.reset();
  lastRealUsage.reset();
  lastRealTimestamp.reset();
  unitRepresentativeInputRate.reset();
  openIsDuplicate = false;
  openGroupHasToolUse = false;
  openGroupTextLength = 0;
  unitTurnCount = 0;
  unitToolUseOnlyCount = 0;
  unitSpent = 0;
  unitSpentAtSonnet = 0;
  openGroupLastUsage = TurnUsage{};
}

void dispatchAssistantLine(const MeterLine& line, SessionState& state, bool isSubagentFile,
                           const MeterOptions& options, GlobalAggregator& agg) {
  const std::string_view id = line.requestId.value_or(std::string_view{});
  if (RequestRuns::continues(state.openRequestId, id)) {
    if (state.openIsDuplicate)
      recordRealFactsFromDuplicateLine(line, state);
    else if (state.openTurnIndex)
      continueGroup(line, *state.openTurnIndex, state, options, agg);
    return;
  }
  closeOpenGroup(state, options, agg);
  switch (RequestRuns::start(state.openRequestId, state.openIsDuplicate, id, agg.seenRequestIds)) {
    case RequestRuns::Start::kAlone:
      agg.linesWithoutRequestId += 1;
      beginGroup(line, std::nullopt, state, isSubagentFile, options, agg);
      closeOpenGroup(state, options, agg);
      return;
    case RequestRuns::Start::kRepeat:
      state.openTurnIndex.reset();
      agg.duplicateRequestGroupLines += 1;
      recordRealFactsFromDuplicateLine(line, state);
      return;
    case RequestRuns::Start::kNew:
      beginGroup(line, id, state, isSubagentFile, options, agg);
      return;
  }
}

void beginGroup(const MeterLine& line, const std::optional<std::string_view>& requestId, SessionState& state,
                bool isSubagentFile, const MeterOptions& options, GlobalAggregator& agg) {
  // 1. Model, usage and rate.
  const std::string model(line.model.value_or(std::string_view{}));
  const TurnUsage& u = line.usage;
  const ResolvedRate resolved = resolveNoting(model, options, agg);
  const PricingRate& r = resolved.rate;
  const PricingRate& sonnet = options.pricing.sonnetRate();

  // 2-3. Cost, W1, and the figures of this file as a dispatch unit.
  const double w1 = CostMath::w1(u, r);
  const CostMath::W1Composition w1Comp = CostMath::w1Composition(u, r);
  const double cost = CostMath::totalCost(u, r);
  const double sonnetCost = CostMath::totalCost(u, sonnet);
  agg.carriedContextReadUSD += CostMath::carriedContextReadUSD(u, r);
  state.spentAtSonnet += sonnetCost;
  state.unitTurnCount += 1;
  state.unitSpent += cost;
  state.unitSpentAtSonnet += sonnetCost;
  if (!state.unitRepresentativeInputRate) state.unitRepresentativeInputRate = r.input;

  // 4. W4: expiry needs a cache that was being read.
  const std::optional<InstantMs>& ts = line.instant;
  double gap = (ts && state.lastAssistantTimestamp) ? seconds(*ts, *state.lastAssistantTimestamp) : 0.0;
  double w4 = state.sawCacheReadPositive ? CostMath::w4(u, r, gap > 300, gap > 3600) : 0.0;

  // 5. Switch tax, on main files only.
  if (!isSubagentFile && !resolved.isFree && state.lastRealModel && *state.lastRealModel != model &&
      state.lastRealUsage)
    addSwitchTax(line, model, u, r, state, options, agg);

  // 6. The model and cache the session is really on.
  if (!resolved.isFree) {
    state.lastRealModel = model;
    state.lastRealUsage = u;
    state.lastRealTimestamp = ts;
  }

  // 7. R1: images waiting for this turn.
  double r1 = 0;
  if (state.pendingImageTokens >= 1) {
    r1 = r.input * double(state.pendingImageTokens) / 1e6;
    state.pendingImageTokens = 0;
  }

  // 8. Typed share: a user's words, priced once at this turn's input rate.
  for (const auto& event : state.pendingTypedShareEvents) {
    double usd = r.input * double(event.bytes / 4) / 1e6;
    if (event.isPaste) {
      agg.typedSharePasteCount += 1;
    } else {
      agg.typedShareFloorUSD += usd;
      agg.typedShareFloorTurns += 1;
      if (usd > 0 && !state.hadTypedShareFloorThisSession) {
        state.hadTypedShareFloorThisSession = true;
        agg.typedShareSessionsDistinct += 1;
      }
    }
    if (resolved.isFree) agg.typedShareSyntheticZeroedCount += 1;
    agg.typedShareCeilingUSD += usd;
    agg.typedShareCeilingTurns += 1;
  }
  state.pendingTypedShareEvents.clear();

  // 9-10. The turn itself.
  state.turnCount += 1;
  const int64_t t = state.turnCount;
  TurnRecord& turn = state.turns.emplace_back();
  turn.rate = r;
  turn.actualCost = cost;
  turn.costAtSonnet = sonnetCost;
  turn.usageLast = u;
  turn.w1Candidate = w1;
  turn.w1Composition = w1Comp;
  turn.w4Candidate = w4;
  turn.r1Candidate = r1;
  state.spent += cost;
  state.contextPeak = std::max(state.contextPeak, CostMath::context(u));

  // 11. Images take this turn's input rate.
  for (size_t index : state.pendingMediaIndices) {
    MediaEvent& e = state.mediaSequence[index];
    e.usd = r.input * double(e.imageTokens) / 1e6;
    e.entryTurn = t;
  }
  state.pendingMediaIndices.clear();

  // 12.
  if (u.cacheRead >= 1) state.sawCacheReadPositive = true;
  if (ts) state.lastAssistantTimestamp = ts;

  // 13-14. Totals.
  agg.totalTurns += 1;
  agg.totalSpent += cost;
  agg.tokensInput = addTokens(agg.tokensInput, u.input);
  agg.tokensOutput = addTokens(agg.tokensOutput, u.output);
  agg.tokensCacheRead = addTokens(agg.tokensCacheRead, u.cacheRead);
  agg.tokensCacheWrite = addTokens(agg.tokensCacheWrite, u.cache5m + u.cache1h);
  ModelTally& tally = agg.byModel[model];
  tally.turns += 1;
  tally.usd += cost;
  turn.model = model;

  // 15. Day and span.
  if (line.timestamp) {
    std::string_view day = text::prefixCharacters(*line.timestamp, 10);
    if (text::characterCount(day) >= 10) {
      auto it = agg.byDay.find(day);
      if (it == agg.byDay.end()) it = agg.byDay.emplace(std::string(day), 0.0).first;
      it->second += cost;
      turn.day = std::string(day);
    }
    agg.observe(line.timestamp);
    updateSessionSpan(state, line.timestamp);
  }

  // 16. Content, and the group stays open.
  ContentBlocksOutcome blocks = processContentBlocks(line, t, state, agg);
  state.openGroupHasToolUse = blocks.hasToolUse;
  state.openGroupTextLength = blocks.textLength;
  state.openGroupLastUsage = u;
  if (requestId)
    state.openRequestId = std::string(*requestId);
  else
    state.openRequestId.reset();
  state.openTurnIndex = t;
  state.openIsDuplicate = false;
}

void continueGroup(const MeterLine& line, int64_t t, SessionState& state, const MeterOptions& options,
                   GlobalAggregator& agg) {
  TurnRecord& turn = state.turn(t);
  // 1. An empty model is present (and free); only a missing one falls back.
  const std::string model = line.model ? std::string(*line.model) : turn.model;
  const TurnUsage& u = line.usage;
  const ResolvedRate resolved = resolveNoting(model, options, agg);
  const PricingRate& r = resolved.rate;
  const PricingRate& sonnet = options.pricing.sonnetRate();

  // 2-3. Old and new figures.
  const double oldCost = turn.actualCost;
  const double oldSonnet = turn.costAtSonnet;
  const TurnUsage oldUsage = turn.usageLast;
  PricingRate oldRate = r;
  oldRate.cacheRead = turn.rate.cacheRead;
  const double cost = CostMath::totalCost(u, r);
  const double sonnetCost = CostMath::totalCost(u, sonnet);
  const double newCarried = CostMath::carriedContextReadUSD(u, r);
  const double oldCarried = CostMath::carriedContextReadUSD(oldUsage, oldRate);

  // 4.
  turn.rate = r;
  turn.actualCost = cost;
  turn.costAtSonnet = sonnetCost;
  turn.usageLast = u;
  turn.w1Candidate = CostMath::w1(u, r);
  turn.w1Composition = CostMath::w1Composition(u, r);

  // 5. Every sum moves by the difference.
  state.contextPeak = std::max(state.contextPeak, CostMath::context(u));
  const double delta = cost - oldCost;
  const double sonnetDelta = sonnetCost - oldSonnet;
  state.spent += delta;
  state.unitSpent += delta;
  agg.totalSpent += delta;
  state.spentAtSonnet += sonnetDelta;
  state.unitSpentAtSonnet += sonnetDelta;
  agg.carriedContextReadUSD += newCarried - oldCarried;
  agg.tokensInput = addTokens(agg.tokensInput, u.input - oldUsage.input);
  agg.tokensOutput = addTokens(agg.tokensOutput, u.output - oldUsage.output);
  agg.tokensCacheRead = addTokens(agg.tokensCacheRead, u.cacheRead - oldUsage.cacheRead);
  agg.tokensCacheWrite =
      addTokens(agg.tokensCacheWrite, (u.cache5m + u.cache1h) - (oldUsage.cache5m + oldUsage.cache1h));

  // 6.
  agg.byModel[model].usd += delta;
  if (turn.day) agg.byDay[*turn.day] += delta;

  // 7-8.
  agg.observe(line.timestamp);
  updateSessionSpan(state, line.timestamp);
  if (u.cacheRead >= 1) state.sawCacheReadPositive = true;
  if (line.instant) {
    state.lastAssistantTimestamp = line.instant;
    if (!resolved.isFree) state.lastRealTimestamp = line.instant;
  }

  // 9.
  ContentBlocksOutcome blocks = processContentBlocks(line, t, state, agg);
  state.openGroupHasToolUse = state.openGroupHasToolUse || blocks.hasToolUse;
  state.openGroupTextLength += blocks.textLength;
  state.openGroupLastUsage = u;
}

void closeOpenGroup(SessionState& state, const MeterOptions& options, GlobalAggregator& /*agg*/) {
  if (state.openTurnIndex && !state.openIsDuplicate && state.openGroupHasToolUse &&
      state.openGroupTextLength < kTextLengthCap) {
    state.toolUseOnlyCount += 1;
    state.unitToolUseOnlyCount += 1;
    TurnRecord& turn = state.turn(*state.openTurnIndex);
    const PricingRate& sonnet = options.pricing.sonnetRate();
    if (sonnet.input < turn.rate.input) {
      // Only the uncached input and the output can be rerouted; cached legs
      // stay where they are.
      const TurnUsage& last = state.openGroupLastUsage;
      double r3 = (turn.rate.input - sonnet.input) * double(last.input) / 1e6 +
                  (turn.rate.output - sonnet.output) * double(last.output) / 1e6;
      turn.r3Candidate = std::max(0.0, r3);
    }
  }
  state.openRequestId.reset();
  state.openIsDuplicate = false;
  state.openTurnIndex.reset();
  state.openGroupHasToolUse = false;
  state.openGroupTextLength = 0;
  state.openGroupLastUsage = TurnUsage{};
}

void recordRealFactsFromDuplicateLine(const MeterLine& line, SessionState& state) {
  if (!line.model || line.model->empty() || *line.model == "<synthetic>") return;
  state.lastRealModel = std::string(*line.model);
  state.lastRealUsage = line.usage;
  state.lastRealTimestamp = line.instant;
}

ContentBlocksOutcome processContentBlocks(const MeterLine& line, int64_t t, SessionState& state,
                                          GlobalAggregator& agg) {
  for (const MeterToolUse& use : line.toolUses) {
    if (use.name == "Read" && use.filePath) {
      auto it = state.readOccurrenceTurns.find(*use.filePath);
      if (it == state.readOccurrenceTurns.end())
        it = state.readOccurrenceTurns.emplace(std::string(*use.filePath), std::vector<int64_t>{}).first;
      it->second.push_back(t);
    }
    if (!use.id.empty()) {
      std::optional<std::string> filePath;
      if (use.filePath) filePath = std::string(*use.filePath);
      state.pendingToolUsesById.insert_or_assign(std::string(use.id),
                                                 PendingToolUse{std::string(use.name), std::move(filePath), t});
    }
    if (use.name == "Bash" && use.hasCommand) {
      const int64_t k = agg.bashCounter++;
      TurnRecord& turn = state.turn(t);
      turn.bashOccurrences.push_back(k);
      if (static_cast<size_t>(k) < agg.r2TemplateForIndex.size()) {
        uint64_t hash = agg.r2TemplateForIndex[static_cast<size_t>(k)];
        if (std::find(turn.r2Templates.begin(), turn.r2Templates.end(), hash) == turn.r2Templates.end())
          turn.r2Templates.push_back(hash);
      }
    }
  }
  return {line.hasToolUse, line.textLength};
}

void processUser(const MeterLine& line, const std::string& path, int64_t lineNumber, SessionState& state) {
  if (line.typedBytes >= 1) state.pendingTypedShareEvents.push_back({line.typedBytes, line.typedBytes > 2000});
  for (const MeterToolResult& result : line.toolResults) {
    auto it = state.pendingToolUsesById.find(result.toolUseId);
    if (it == state.pendingToolUsesById.end()) continue;
    PendingToolUse pending = std::move(it->second);
    state.pendingToolUsesById.erase(it);
    const int64_t tokens = result.bytes / 4;
    if (pending.name == "Read" && pending.filePath) {
      auto [entry, inserted] = state.readResultMaxTokens.try_emplace(*pending.filePath, tokens);
      if (!inserted) entry->second = std::max(entry->second, tokens);
    }
    if (result.bytes >= 40'004) state.pendingLargeResults.push_back({pending.name, tokens, pending.turnIndex});
  }
  state.pendingImageTokens = addTokens(state.pendingImageTokens, line.imageTokens);
  MediaEvent event;
  event.hasImage = line.imageCount >= 1;
  if (event.hasImage) {
    event.imageCount = line.imageCount;
    event.imageTokens = line.imageTokens;
  }
  if (line.timestamp) event.timestamp = state.strings.store(*line.timestamp);
  if (state.mediaFilePath != path) state.mediaFilePath = state.strings.store(path);
  event.filePath = state.mediaFilePath;
  event.lineNumber = lineNumber;
  state.mediaSequence.push_back(std::move(event));
  if (line.imageCount >= 1) state.pendingMediaIndices.push_back(state.mediaSequence.size() - 1);
}

void processSystem(const MeterLine& line, SessionState& state, const MeterOptions& options, GlobalAggregator& agg) {
  if (!line.isCompactBoundary) return;
  if (line.uuid && !line.uuid->empty()) {
    if (!agg.seenCompactionUuids.insert(*line.uuid)) return;
  }
  const int64_t pre = line.preTokens, post = line.postTokens;
  const std::string_view trigger = line.trigger.value_or("auto");
  agg.compactionCount += 1;
  if (trigger == "auto")
    agg.compactionInvoluntaryCount += 1;
  else
    agg.compactionVoluntaryCount += 1;
  const std::string label = projectLabel(state);
  const std::string id8 = sessionId8(state.sessionId);
  const std::string prefix = label + " session " + id8 + ": pre " + std::to_string(pre) + " post " + std::to_string(post);
  if (!state.lastRealModel) {
    agg.compactionCandidates.push_back({prefix + " (unpriced)", 0.0, id8});
    return;
  }
  const PricingRate rate = resolveRate(*state.lastRealModel, options.pricing).rate;
  // Within five minutes of the last real turn the context was still cached,
  // so the summarising request read it at the cache rate.
  const bool warm = state.lastRealTimestamp && line.instant &&
                    seconds(*line.instant, *state.lastRealTimestamp) <= 300.0;
  const double primaryRate = warm ? rate.cacheRead : rate.input;
  const double boundRate = warm ? rate.input : rate.cacheRead;
  const double outputLeg = rate.output * double(post) / 1e6;
  const double primaryPreLeg = primaryRate * double(pre) / 1e6;
  const double boundPreLeg = boundRate * double(pre) / 1e6;
  const double primary = outputLeg + primaryPreLeg;
  const double bound = outputLeg + boundPreLeg;
  agg.compactionPrimaryUSD += primary;
  agg.compactionBoundUSD += bound;
  agg.compactionPrimaryPreLegUSD += primaryPreLeg;
  agg.compactionBoundPreLegUSD += boundPreLeg;
  agg.compactionOutputLegUSD += outputLeg;
  agg.compactionCandidates.push_back({prefix, primary, id8});
  if (primary > 0 && !state.hadCompactionSpendThisSession) {
    state.hadCompactionSpendThisSession = true;
    agg.compactionSessionsDistinct += 1;
  }
  if (primary > agg.compactionExamplePrimaryUSD) {
    agg.compactionExamplePrimaryUSD = primary;
    agg.compactionExamplePreTokens = pre;
    agg.compactionExamplePostTokens = post;
  }
}

}  // namespace ostler
