#include "meter/build_receipt.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "meter/repeat_pipelines.h"
#include "transcript/text.h"

namespace ostler {
namespace {

constexpr size_t kDetailLimit = 10;

constexpr const char* kMediaReadsNote =
    "sessions_distinct counts every session with nonzero attributed dollars in this category; the detail lines "
    "below are media-loop rows, a different (narrower) population -- see media_loops.sessions_distinct for the "
    "loops' own distinct-session count.";
constexpr const char* kRepeatPipelinesNote =
    "detail lines group by Bash command template, which can span multiple sessions; no single session id applies "
    "per line. sessions_distinct below is still exact.";

double percentOf(double part, double whole) { return whole > 0 ? part / whole * 100.0 : 0.0; }

}  // namespace

std::vector<ReceiptDetailLine> topDetails(std::vector<DetailCandidate> candidates) {
  std::stable_sort(candidates.begin(), candidates.end(), [](const DetailCandidate& a, const DetailCandidate& b) {
    if (a.usd != b.usd) return a.usd > b.usd;
    return a.text < b.text;
  });
  std::vector<ReceiptDetailLine> out;
  for (size_t i = 0; i < candidates.size() && i < kDetailLimit; ++i)
    out.push_back({candidates[i].text, roundUSD(candidates[i].usd), candidates[i].sessionId});
  return out;
}

std::vector<ReceiptDetailLine> topDetails(const DetailCandidates& candidates) {
  return topDetails(candidates.sorted());
}

int64_t percentile(const std::vector<int64_t>& sorted, double p) {
  if (sorted.empty()) return 0;
  const double n = double(sorted.size());
  double index = std::round(p / 100.0 * (n - 1));
  index = std::clamp(index, 0.0, n - 1);
  return sorted[static_cast<size_t>(index)];
}

void sortMediaLoopCandidates(std::vector<MediaLoopCandidate>& candidates) {
  std::stable_sort(candidates.begin(), candidates.end(), [](const MediaLoopCandidate& a, const MediaLoopCandidate& b) {
    if (a.usd != b.usd) return a.usd > b.usd;
    if (a.sessionId != b.sessionId) return a.sessionId < b.sessionId;
    return a.project < b.project;
  });
}

Receipt buildReceipt(const GlobalAggregator& agg, const MeterOptions& options, const std::string& generatedAt) {
  Receipt r;
  r.generated_at = generatedAt;
  r.period.from = options.since ? *options.since : agg.minTimestamp.value_or("");
  r.period.to = options.until ? *options.until : agg.maxTimestamp.value_or("");

  r.totals.turns = agg.totalTurns;
  r.totals.sessions = agg.totalSessions;
  r.totals.projects = static_cast<int64_t>(agg.byProject.size());
  r.totals.spent_usd = roundUSD(agg.totalSpent);
  r.totals.tokens = {agg.tokensInput, agg.tokensOutput, agg.tokensCacheRead, agg.tokensCacheWrite};
  r.totals.sessions_context_over_100k = agg.sessionsContextOver100k;

  for (const auto& [model, tally] : agg.byModel) r.by_model.push_back({model, tally.turns, roundUSD(tally.usd)});
  std::stable_sort(r.by_model.begin(), r.by_model.end(), [](const ReceiptByModel& a, const ReceiptByModel& b) {
    if (a.spent_usd != b.spent_usd) return a.spent_usd > b.spent_usd;
    return a.model < b.model;
  });
  for (const auto& [project, tally] : agg.byProject)
    r.by_project.push_back({project, tally.sessions, roundUSD(tally.usd)});
  std::stable_sort(r.by_project.begin(), r.by_project.end(),
                   [](const ReceiptByProject& a, const ReceiptByProject& b) {
                     if (a.spent_usd != b.spent_usd) return a.spent_usd > b.spent_usd;
                     return a.project < b.project;
                   });
  for (const auto& [date, usd] : agg.byDay) r.by_day.push_back({date, roundUSD(usd)});  // map order is date order

  // Waste.
  const double wasteSum = agg.wasteW1 + agg.wasteW2 + agg.wasteW3 + agg.wasteW4;
  const double macFirstSum = agg.macFirstR1 + agg.macFirstR2 + agg.macFirstR3;
  r.waste.total_usd = roundUSD(wasteSum);
  r.waste.overlap_note = kOverlapNote;
  r.waste.categories = {
      {"overweight", "Context growth written past 100k", roundUSD(agg.wasteW1), topDetails(agg.w1Candidates),
       agg.w1SessionsDistinct, std::nullopt},
      {"duplicate_reads", "Duplicate file reads", roundUSD(agg.wasteW2), topDetails(agg.w2Candidates),
       agg.w2SessionsDistinct, std::nullopt},
      {"oversized_dumps", "Oversized tool dumps", roundUSD(agg.wasteW3), topDetails(agg.w3Candidates),
       agg.w3SessionsDistinct, std::nullopt},
      {"cache_expiry", "Cache expiry", roundUSD(agg.wasteW4), topDetails(agg.w4Candidates), agg.w4SessionsDistinct,
       std::nullopt},
  };
  auto& d = r.waste.diagnostics_raw_usd;
  d.overweight = roundUSD(agg.rawW1);
  d.duplicate_reads = roundUSD(agg.rawW2);
  d.oversized_dumps = roundUSD(agg.rawW3);
  d.cache_expiry = roundUSD(agg.rawW4);
  d.w1_composition = {roundUSD(agg.rawW1InputUSD), roundUSD(agg.rawW1CacheWriteUSD)};
  d.carried_context_read_usd = roundUSD(agg.carriedContextReadUSD);
  d.media_reads = roundUSD(agg.rawR1);
  d.repeat_pipelines = roundUSD(agg.rawR2);
  d.downshift = roundUSD(agg.rawR3);
  d.carried_duplicates_read_usd = roundUSD(agg.carriedDuplicatesReadUSD);
  d.carried_dumps_read_usd = roundUSD(agg.carriedDumpsReadUSD);
  d.whole_session_downshift_usd = roundUSD(agg.wholeSessionDownshiftUSD);
  d.dispatch_downshift_usd = roundUSD(agg.dispatchDownshiftUSD);
  d.dispatch_downshift_units = agg.dispatchDownshiftUnits;
  d.dispatch_downshift_spend_usd = roundUSD(agg.dispatchDownshiftSpendUSD);

  // Mac-first: media loops. Sums run in the order the loops were found.
  double loopsKept = 0, loopsRaw = 0;
  std::set<std::string> loopSessions;
  for (const auto& l : agg.mediaLoopCandidates) {
    loopsKept += l.usd;
    loopsRaw += l.rawUsd;
    loopSessions.insert(l.sessionId);
  }
  std::vector<MediaLoopCandidate> loops = agg.mediaLoopCandidates;
  sortMediaLoopCandidates(loops);
  std::vector<ReceiptDetailLine> loopLines;
  auto& media = r.mac_first.media_loops;
  for (size_t i = 0; i < loops.size() && i < kDetailLimit; ++i) {
    const auto& l = loops[i];
    loopLines.push_back({fmt::format("review loop: {}, {} images", l.project, l.images), roundUSD(l.usd),
                         std::string(text::prefixCharacters(l.sessionId, 8))});
    media.loops.push_back({l.sessionId, l.project, l.images, roundUSD(l.usd)});
  }
  media.total_usd = roundUSD(loopsKept);
  media.raw_uncapped_usd = roundUSD(loopsRaw);
  media.count = static_cast<int64_t>(loops.size());
  media.attribution_note = fmt::format("loops keep {:.1f}% of raw against the category's {:.1f}%",
                                       percentOf(loopsKept, loopsRaw), percentOf(agg.macFirstR1, agg.rawR1));
  media.sessions_distinct = static_cast<int64_t>(loopSessions.size());

  // Mac-first: repeat pipelines by template; ties order by the hash as text.
  struct TemplateRow {
    uint64_t hash;
    std::string hex;
    double usd;
  };
  std::vector<TemplateRow> templateRows;
  for (const auto& [hash, usd] : agg.r2TemplateAttributed) templateRows.push_back({hash, hashHex(hash), usd});
  std::stable_sort(templateRows.begin(), templateRows.end(), [](const TemplateRow& a, const TemplateRow& b) {
    if (a.usd != b.usd) return a.usd > b.usd;
    return a.hex < b.hex;
  });
  std::vector<ReceiptDetailLine> templateLines;
  for (size_t i = 0; i < templateRows.size() && i < kDetailLimit; ++i) {
    const TemplateRow& row = templateRows[i];
    auto count = agg.r2TemplateOccCount.find(row.hash);
    int64_t occurrences = count == agg.r2TemplateOccCount.end() ? 0 : count->second;
    templateLines.push_back(
        {fmt::format("template {} ({}x)", row.hex.substr(0, 8), occurrences), roundUSD(row.usd), std::nullopt});
  }

  r.mac_first.total_usd = roundUSD(macFirstSum);
  r.mac_first.categories = {
      {"media_reads", "Media reads", roundUSD(agg.macFirstR1), loopLines, agg.r1SessionsDistinct, kMediaReadsNote},
      {"repeat_pipelines", "Repeat pipelines", roundUSD(agg.macFirstR2), templateLines, agg.r2SessionsDistinct,
       kRepeatPipelinesNote},
      {"downshift", "Mechanical turns, reroutable legs only", roundUSD(agg.macFirstR3), topDetails(agg.r3Candidates),
       agg.r3SessionsDistinct, std::nullopt},
  };

  r.fair_usd = roundUSD(agg.totalSpent - wasteSum - macFirstSum);

  r.top_sessions = agg.topSessions.sorted();

  std::vector<int64_t> turnsPerSession = agg.turnsPerSessionCounts;
  std::sort(turnsPerSession.begin(), turnsPerSession.end());
  auto& f = r.flags;
  f.unknown_models.assign(agg.unknownModels.begin(), agg.unknownModels.end());
  f.skipped_lines = agg.skippedLines;
  f.pricing_note = options.pricing.note;
  f.distinct_session_ids = static_cast<int64_t>(agg.allSessionIds.size());
  f.distinct_files = agg.totalSessions;
  f.files_with_multiple_session_ids = agg.multiSessionIdFiles;
  f.turns_per_session_p50 = percentile(turnsPerSession, 50);
  f.turns_per_session_p95 = percentile(turnsPerSession, 95);
  f.turns_per_session_max = turnsPerSession.empty() ? 0 : turnsPerSession.back();
  f.subagent_files = agg.subagentFiles;
  f.subagent_turns = agg.subagentTurns;
  f.lines_without_request_id = agg.linesWithoutRequestId;
  f.duplicate_request_id_lines_skipped = agg.duplicateRequestGroupLines;
  f.distinct_request_ids = static_cast<int64_t>(agg.seenRequestIds.size());

  ReceiptTypedShare typed;
  typed.floor_usd = roundUSD(agg.typedShareFloorUSD);
  typed.floor_turns = agg.typedShareFloorTurns;
  typed.ceiling_usd = roundUSD(agg.typedShareCeilingUSD);
  typed.ceiling_turns = agg.typedShareCeilingTurns;
  typed.paste_count = agg.typedSharePasteCount;
  typed.base_usd = roundUSD(agg.totalSpent);
  typed.base_turns = agg.totalTurns;
  typed.faced_share_percent =
      agg.totalSpent > 0 ? std::round(agg.typedShareFloorUSD / agg.totalSpent * 100.0 * 100.0) / 100.0 : 0.0;
  typed.synthetic_zeroed_count = agg.typedShareSyntheticZeroedCount;
  typed.sessions_distinct = agg.typedShareSessionsDistinct;
  r.typed_share = typed;

  ReceiptSwitchTax sw;
  sw.floor_usd = roundUSD(agg.switchTaxUSD);
  sw.counterfactual_usd = roundUSD(agg.switchTaxCounterfactualUSD);
  sw.switch_count = agg.switchTaxEvents;
  sw.session_count = agg.switchTaxSessions;
  sw.top_switches = topDetails(agg.switchTaxCandidates);
  sw.sessions_distinct = agg.switchTaxSessions;
  r.switch_tax = sw;

  ReceiptAutoCompactions ac;
  ac.primary_usd = roundUSD(agg.compactionPrimaryUSD);
  ac.bound_usd = roundUSD(agg.compactionBoundUSD);
  ac.event_count = agg.compactionCount;
  ac.involuntary_count = agg.compactionInvoluntaryCount;
  ac.voluntary_count = agg.compactionVoluntaryCount;
  ac.example_primary_usd = roundUSD(agg.compactionExamplePrimaryUSD);
  ac.example_pre_tokens = agg.compactionExamplePreTokens;
  ac.example_post_tokens = agg.compactionExamplePostTokens;
  ac.primary_pre_leg_usd = roundUSD(agg.compactionPrimaryPreLegUSD);
  ac.output_leg_usd = roundUSD(agg.compactionOutputLegUSD);
  ac.bound_pre_leg_usd = roundUSD(agg.compactionBoundPreLegUSD);
  ac.top_events = topDetails(agg.compactionCandidates);
  ac.sessions_distinct = agg.compactionSessionsDistinct;
  r.auto_compactions = ac;
  return r;
}

}  // namespace ostler
