#include "daemon/loop/odometer.h"

#include "daemon/engine/live_engine.h"
#include "platform/threads.h"

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

std::optional<MeterPair> lifetimeAndToday(FileSystem& fs, const std::string& root, const PricingTable& pricing,
                                          InstantMs boundary, InstantMs now, const ProgressCallback& onProgress,
                                          const MeterReading& reading) {
  MeterOptions lifetime;
  lifetime.root = root;
  lifetime.pricing = pricing;
  auto runs = MeterEngine::runAll(fs, {lifetime, todayOptions(root, pricing, boundary, now)}, onProgress,
                                  systemClock(), reading);
  if (!runs) return std::nullopt;
  return MeterPair{std::move((*runs)[0].receipt), std::move((*runs)[1].receipt)};
}

std::optional<Bundle> compute(FileSystem& fs, const std::string& root, const PricingTable& pricing,
                              InstantMs boundary, InstantMs now, bool computeWindowedTokensByFamily,
                              const std::string& timeZoneId, std::stop_token stop) {
  // The scan and the fresh count fold the lines gathered on the meter's
  // reading, once it is done, while the meter attributes its sessions.
  GatheredLines gathered(kGatheredBytes);
  std::optional<MeterPair> receipts;
  WindowScan::Walls walls;
  std::optional<std::map<std::string, int64_t>> tokens;
  std::vector<std::function<void()>> jobs = {
      [&] { receipts = lifetimeAndToday(fs, root, pricing, boundary, now, nullptr, {.alsoFold = {&gathered}, .stop = stop}); },
      [&] {
        gathered.waitUntilRead();
        walls = WindowScan::walls(WindowScan::scan(fs, root, pricing, &gathered, stop));
      },
  };
  if (computeWindowedTokensByFamily)
    jobs.push_back([&] {
      gathered.waitUntilRead();
      const StopTokenSignalSource stopping(stop);
      tokens = LiveEngine::freshWindowedTokensByFamily(fs, root, pricing, now, timeZoneId, &gathered, &stopping);
    });
  TaskGroup("ostler.odometer", std::move(jobs)).wait();
  if (!receipts || stop.stop_requested()) return std::nullopt;
  return bundle(std::move(receipts->lifetime), std::move(receipts->today), std::move(walls), std::move(tokens));
}

}  // namespace ostler::Odometer
