#include "daemon/windows/window_scan.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "daemon/engine/case_folding.h"
#include "daemon/engine/gathered_lines.h"
#include "daemon/engine/live_line.h"
#include "daemon/engine/today_share.h"
#include "daemon/windows/limit_event_clustering.h"
#include "daemon/windows/reset_phrase_parser.h"
#include "daemon/windows/resets_phrase.h"
#include "daemon/windows/wall_learner.h"
#include "transcript/byte_search.h"
#include "transcript/id_set.h"
#include "transcript/request_runs.h"
#include "transcript/session_discovery.h"
#include "transcript/tail_reader.h"
#include "transcript/text.h"

namespace ostler::WindowScan {
namespace {

constexpr double kClusterGapSeconds = 120.0;

int64_t tokenSum(const TurnUsage& u) { return u.input + u.output + u.cacheRead + u.cache5m + u.cache1h; }

// One file's requests, each one burn event at its last line.
class FileFold {
 public:
  FileFold(const PricingTable& pricing, IdSet& seen, std::vector<BurnEvent>& out)
      : pricing_(pricing), seen_(seen), out_(out) {}

  void add(std::string_view requestId, InstantMs ts, std::string_view model, const TurnUsage& usage) {
    if (!RequestRuns::continues(openId_, requestId)) {
      flush();
      if (RequestRuns::start(openId_, openIsRepeat_, requestId, seen_) == RequestRuns::Start::kAlone) {
        emit(ts, model, usage);
        return;
      }
      hasOpen_ = true;
    }
    if (openIsRepeat_) return;
    open_.timestamp = ts;
    open_.model.assign(model);
    open_.usage = usage;
  }

  // The open request is done: the file ended, or another began.
  void flush() {
    if (hasOpen_ && !openIsRepeat_) emit(open_.timestamp, open_.model, open_.usage);
    hasOpen_ = false;
  }

 private:
  // The last line of the open request so far.
  struct LastLine {
    InstantMs timestamp = 0;
    std::string model;
    TurnUsage usage;
  };

  void emit(InstantMs ts, std::string_view model, const TurnUsage& usage) {
    const PricingRate& rate = rates_.resolve(model, pricing_).rate;
    if (rates_.changed()) isFable_ = TodayShare::modelFamily(model) == "fable";
    out_.push_back({ts, CostMath::totalCost(usage, rate), isFable_, tokenSum(usage)});
  }

  const PricingTable& pricing_;
  ModelRateCache rates_;
  bool isFable_ = false;
  IdSet& seen_;
  std::vector<BurnEvent>& out_;
  std::optional<std::string> openId_;
  bool openIsRepeat_ = false;
  bool hasOpen_ = false;
  LastLine open_;
};

// The events in time order, as indices into `events`, so that each window
// is one run of them.
std::vector<size_t> byTime(const std::vector<BurnEvent>& events) {
  std::vector<size_t> order(events.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(),
            [&](size_t a, size_t b) { return events[a].timestamp < events[b].timestamp; });
  return order;
}

ShapeFacts factsFor(const Result& result, const std::vector<size_t>& order, WindowShape shape) {
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
  const auto& events = result.events;
  auto atOrBefore = [&](InstantMs t) {
    return std::upper_bound(order.begin(), order.end(), t,
                            [&](InstantMs x, size_t i) { return x < events[i].timestamp; });
  };
  std::vector<uint64_t> inWindow((events.size() + 63) / 64);
  for (InstantMs c : LimitEventClustering::cluster(dates, kClusterGapSeconds)) {
    // The window (c - duration, c] is one run of the events in time order;
    // its dollars are summed in reading order, as one pass over all events
    // would sum them, so that the rounding cannot depend on the shortcut.
    std::fill(inWindow.begin(), inWindow.end(), 0);
    for (auto it = atOrBefore(c - durationMs), end = atOrBefore(c); it != end; ++it)
      inWindow[*it / 64] |= uint64_t{1} << (*it % 64);
    double usd = 0;
    int64_t tokens = 0;
    for (size_t w = 0; w < inWindow.size(); ++w) {
      for (uint64_t bits = inWindow[w]; bits != 0; bits &= bits - 1) {
        const BurnEvent& b = events[w * 64 + static_cast<size_t>(std::countr_zero(bits))];
        if (fableOnly && !b.isFableFamily) continue;
        usd += b.costUSD;
        tokens = addTokens(tokens, b.tokens);
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

Result scan(FileSystem& fs, const std::string& root, const PricingTable& pricing, const GatheredLines* gathered,
            const std::stop_token& stop) {
  Result result;
  IdSet seen;
  TranscriptLineDecoder decoder;
  RawTranscriptLine raw;
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
  for (const TranscriptFile& file : SessionDiscovery::discoverFiles(fs, root)) {
    if (stop.stop_requested()) break;
    FileFold fold(pricing, seen, result.events);
    if (gathered != nullptr) {
      if (auto info = fs.stat(file.path)) {
        if (auto served = gathered->serve(file.path, static_cast<int64_t>(info.value().size))) {
          served->forEachAssistantLine([&](const GatheredLines::Line& line) { add(line.line, fold); });
          fold.flush();
          continue;
        }
      }
    }
    auto opened = TailReader::open(fs, file.path, 0);
    if (!opened) continue;
    TailReader& reader = opened.value();
    reader.stopWhen(stop);
    while (auto text = reader.nextLine()) {
      std::string_view trimmed = text::trimSpacesAndTabs(*text);
      // Only assistant lines count; the others need no decoding.
      if (trimmed.empty() || !mayBeAssistantLine(trimmed) || !decoder.decode(trimmed, true, &raw) ||
          !decodes(raw, kEngineReading))
        continue;
      strings.clear();
      add(digestLiveLine(raw, strings), fold);
    }
    fold.flush();
  }
  return result;
}

Walls walls(const Result& result) {
  // Without a limit event there is no window to sum.
  const std::vector<size_t> order = result.limitEvents.empty() ? std::vector<size_t>{} : byTime(result.events);
  return {factsFor(result, order, WindowShape::kSession), factsFor(result, order, WindowShape::kWeek),
          factsFor(result, order, WindowShape::kWeekTopModel)};
}

}  // namespace ostler::WindowScan
