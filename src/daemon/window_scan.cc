#include "daemon/window_scan.h"

#include <sys/stat.h>

#include <cmath>
#include <unordered_set>

#include "daemon/case_folding.h"
#include "daemon/daemon_raw_line.h"
#include "daemon/limit_event_clustering.h"
#include "daemon/live_line.h"
#include "daemon/pre_read_tree.h"
#include "daemon/reset_phrase_parser.h"
#include "daemon/resets_phrase.h"
#include "daemon/session_discovery.h"
#include "daemon/tail_reader.h"
#include "daemon/today_share.h"
#include "daemon/wall_learner.h"
#include "meter/byte_search.h"
#include "meter/text.h"

namespace ostler::WindowScan {
namespace {

constexpr double kClusterGapSeconds = 120.0;

int64_t tokenSum(const TurnUsage& u) { return u.input + u.output + u.cacheRead + u.cache5m + u.cache1h; }

// The open request of one file.
struct Group {
  std::string requestId;
  InstantMs timestamp = 0;
  std::string model;
  TurnUsage usage;
  bool refused = false;
};

class FileFold {
 public:
  FileFold(const PricingTable& pricing, std::unordered_set<std::string>& seen, std::vector<BurnEvent>& out)
      : pricing_(pricing), seen_(seen), out_(out) {}

  void add(std::string_view requestId, InstantMs ts, std::string_view model, const TurnUsage& usage) {
    if (!requestId.empty() && hasOpen_ && open_.requestId == requestId) {
      if (open_.refused) return;
      open_.timestamp = ts;
      open_.model.assign(model);
      open_.usage = usage;
      return;
    }
    flush();
    if (requestId.empty()) {
      emit(ts, model, usage);
      return;
    }
    open_.requestId.assign(requestId);
    open_.timestamp = ts;
    open_.model.assign(model);
    open_.usage = usage;
    open_.refused = !seen_.insert(open_.requestId).second;
    hasOpen_ = true;
  }

  void flush() {
    if (hasOpen_ && !open_.refused) emit(open_.timestamp, open_.model, open_.usage);
    hasOpen_ = false;
  }

 private:
  void emit(InstantMs ts, std::string_view model, const TurnUsage& usage) {
    // A file keeps to one model for long runs: its rate is looked up once.
    if (!hasPriced_ || model != pricedModel_) {
      pricedModel_.assign(model);
      pricedRate_ = resolveRate(model, pricing_).rate;
      pricedIsFable_ = TodayShare::modelFamily(model) == "fable";
      hasPriced_ = true;
    }
    out_.push_back({ts, CostMath::totalCost(usage, pricedRate_), pricedIsFable_, tokenSum(usage)});
  }

  const PricingTable& pricing_;
  std::unordered_set<std::string>& seen_;
  std::vector<BurnEvent>& out_;
  Group open_;
  bool hasOpen_ = false;
  std::string pricedModel_;
  PricingRate pricedRate_;
  bool pricedIsFable_ = false;
  bool hasPriced_ = false;
};

ShapeFacts factsFor(const Result& result, WindowShape shape) {
  std::vector<const LimitEvent*> matching;
  for (const auto& e : result.limitEvents)
    if (shape == WindowShape::kSession ? e.isSessionShape : e.isWeeklyShape) matching.push_back(&e);
  ShapeFacts facts;
  if (matching.empty()) return facts;

  std::vector<InstantMs> dates;
  for (const auto* e : matching) dates.push_back(e->timestamp);
  const InstantMs durationMs = static_cast<InstantMs>(std::llround(windowDuration(shape) * 1000.0));
  const bool fableOnly = windowFableOnly(shape);
  std::vector<CutoffObservation> observations;
  for (InstantMs c : LimitEventClustering::cluster(dates, kClusterGapSeconds)) {
    double usd = 0;
    int64_t tokens = 0;
    for (const auto& b : result.events) {
      if (fableOnly && !b.isFableFamily) continue;
      if (b.timestamp > c - durationMs && b.timestamp <= c) {
        usd += b.costUSD;
        tokens += b.tokens;
      }
    }
    observations.push_back({roundUSD(usd), tokens});
  }

  const LimitEvent* newest = matching.front();
  for (const auto* e : matching)
    if (e->timestamp > newest->timestamp) newest = e;
  facts.latestResetPhrase = newest->resetsPhrase;
  if (newest->resetsPhrase) facts.latestResetInstant = ResetPhraseParser::parse(*newest->resetsPhrase, newest->timestamp);
  facts.wall = WallLearner::learn(observations);
  return facts;
}

}  // namespace

const ShapeFacts& Walls::of(WindowShape shape) const {
  switch (shape) {
    case WindowShape::kSession: return session;
    case WindowShape::kWeek: return week;
    case WindowShape::kWeekTopModel: return weekTopModel;
  }
  return session;
}

Result scan(const std::string& root, const PricingTable& pricing, const PreReadTree* preRead) {
  Result result;
  std::unordered_set<std::string> seen;
  if (preRead != nullptr) seen.reserve(preRead->assistantLines());
  DaemonLineDecoder decoder;
  DaemonRawLine raw;
  StringArena strings(4096);
  auto add = [&](const LiveLine& line, FileFold& fold) {
    if (line.type != LiveLine::Type::kAssistant || !line.instant) return;
    if (line.isApiErrorMessage) {
      bool session = CaseFolding::contains(line.errorText, "session limit");
      bool weekly = CaseFolding::contains(line.errorText, "weekly");
      if (session || weekly)
        result.limitEvents.push_back({*line.instant, session, weekly, extractResetsPhrase(line.errorText)});
    }
    fold.add(line.requestId, *line.instant, line.model, line.usage);
  };
  for (const DaemonFile& file : SessionDiscovery::discoverFiles(root)) {
    FileFold fold(pricing, seen, result.events);
    if (preRead != nullptr) {
      struct stat st;
      if (::stat(file.path.c_str(), &st) == 0) {
        if (auto served = preRead->serve(file.path, st.st_size)) {
          for (const PreReadTree::Line* line : served->lines)
            if (line->decoded) add(line->line, fold);
          fold.flush();
          continue;
        }
      }
    }
    auto reader = TailReader::open(file.path, 0);
    if (!reader) continue;
    while (auto text = reader->nextLine()) {
      std::string_view trimmed = text::trimSpacesAndTabs(*text);
      // Only assistant lines count; the others need no decoding.
      if (trimmed.empty() || !mayBeAssistantLine(trimmed) || !decoder.decode(trimmed, true, &raw)) continue;
      strings.clear();
      add(digestLiveLine(raw, strings), fold);
    }
    fold.flush();
  }
  return result;
}

Walls walls(const Result& result) {
  return {factsFor(result, WindowShape::kSession), factsFor(result, WindowShape::kWeek),
          factsFor(result, WindowShape::kWeekTopModel)};
}

}  // namespace ostler::WindowScan
