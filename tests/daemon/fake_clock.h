// A clock and a background queue that tests drive by hand.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "daemon/daemon_companions.h"
#include "platform/clock.h"

namespace ostler::testing {

// Wall time moves only when told; the monotonic clock moves by `step`
// seconds on every read, so code that times itself sees its own work take
// that long.
class FakeClock final : public Clock {
 public:
  explicit FakeClock(int64_t nowMs) : now_(nowMs) {}
  [[nodiscard]] int64_t nowMs() const override { return now_.load(); }
  [[nodiscard]] double monotonicSeconds() const override {
    std::lock_guard lock(mutex_);
    monotonic_ += step_;
    return monotonic_;
  }
  void set(int64_t nowMs) { now_ = nowMs; }
  void advance(double seconds) { now_ += static_cast<int64_t>(seconds * 1000); }
  void setMonotonicStep(double seconds) {
    std::lock_guard lock(mutex_);
    step_ = seconds;
  }

 private:
  std::atomic<int64_t> now_;
  mutable std::mutex mutex_;
  mutable double monotonic_ = 0;
  double step_ = 0;
};

// Keeps the jobs given to it until the test runs them.
class ManualQueue final : public BackgroundQueue {
 public:
  void async(std::function<void()> job) override { jobs_.push_back(std::move(job)); }
  [[nodiscard]] size_t pending() const { return jobs_.size(); }
  void runAll() {
    auto jobs = std::move(jobs_);
    jobs_.clear();
    for (auto& job : jobs) job();
  }

 private:
  std::vector<std::function<void()>> jobs_;
};

}  // namespace ostler::testing
