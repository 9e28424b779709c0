#include "daemon/odometer.h"

#include "daemon/live_engine.h"
#include "daemon/parallel_jobs.h"
#include "meter/meter_engine.h"
#include "meter/pricing.h"

namespace ostler::Odometer {

Bundle bundle(Receipt lifetime, Receipt todayWindowed, WindowScan::Walls windowWalls,
              std::optional<std::map<std::string, int64_t>> windowedTokensByFamily) {
  Bundle b;
  b.odometer.spent_usd = lifetime.totals.spent_usd;
  b.odometer.stamp_usd = roundUSD(lifetime.waste.total_usd + lifetime.mac_first.total_usd);
  b.odometer.mac_first_usd = lifetime.mac_first.total_usd;
  b.odometer.since = lifetime.period.from;
  b.lifetimeReceipt = std::move(lifetime);
  b.todayWindowedReceipt = std::move(todayWindowed);
  b.windowWalls = std::move(windowWalls);
  b.windowedTokensByFamily = std::move(windowedTokensByFamily);
  return b;
}

MeterOptions todayOptions(const std::string& root, const PricingTable& pricing, InstantMs boundary, InstantMs now) {
  MeterOptions options;
  options.root = root;
  options.pricing = pricing;
  options.sinceInstant = ISO8601::fractional(boundary);
  options.untilInstant = ISO8601::fractional(now);
  return options;
}

MeterPair lifetimeAndToday(const std::string& root, const PricingTable& pricing, InstantMs boundary, InstantMs now,
                           const ProgressCallback& onProgress, const ReadingOptions& reading) {
  MeterOptions lifetime;
  lifetime.root = root;
  lifetime.pricing = pricing;
  std::vector<MeterRun> runs = MeterEngine::runAll({lifetime, todayOptions(root, pricing, boundary, now)}, onProgress,
                                                   systemClock(), reading);
  return {std::move(runs[0].receipt), std::move(runs[1].receipt)};
}

ReadingOptions readOnce(PreReadTree& preRead) { return {true, &preRead}; }

Bundle compute(const std::string& root, const PricingTable& pricing, InstantMs boundary, InstantMs now,
               bool computeWindowedTokensByFamily, const std::string& timeZoneId) {
  // The scan and the fresh count fold the lines the meter gathers, while
  // the meter folds its second pass.
  PreReadTree preRead(kPreReadBytes);
  MeterPair receipts;
  WindowScan::Walls walls;
  std::optional<std::map<std::string, int64_t>> tokens;
  std::vector<std::function<void()>> jobs = {
      [&] {
        receipts = lifetimeAndToday(root, pricing, boundary, now, nullptr, readOnce(preRead));
        preRead.readingDone();
      },
      [&] {
        preRead.waitUntilRead();
        walls = WindowScan::walls(WindowScan::scan(root, pricing, &preRead));
      },
  };
  if (computeWindowedTokensByFamily)
    jobs.push_back([&] {
      preRead.waitUntilRead();
      tokens = LiveEngine::freshWindowedTokensByFamily(root, pricing, now, timeZoneId, &preRead);
    });
  {
    ParallelJobs running(std::move(jobs));
    running.wait();
  }
  return bundle(std::move(receipts.lifetime), std::move(receipts.today), std::move(walls), std::move(tokens));
}

}  // namespace ostler::Odometer
