// A clock the test drives by hand. Wall time moves only when told; the
// monotonic reading moves with it and, given a step, by that step on every
// read, so code that times itself sees its own work take that long.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "platform/clock.h"

namespace ostler::testing {

class FakeClock final : public Clock {
 public:
  explicit FakeClock(int64_t nowMs = 0) : now_(nowMs) {}

  [[nodiscard]] int64_t nowMs() const override { return now_.load(); }
  [[nodiscard]] double monotonicSeconds() const override {
    std::lock_guard lock(mutex_);
    monotonic_ += step_;
    return monotonic_;
  }
  void set(int64_t nowMs) { now_ = nowMs; }
  // Moves both clocks forward by `seconds`.
  void advance(double seconds) {
    now_ += static_cast<int64_t>(seconds * 1000.0);
    std::lock_guard lock(mutex_);
    monotonic_ += seconds;
  }
  void setMonotonicStep(double seconds) {
    std::lock_guard lock(mutex_);
    step_ = seconds;
  }

 private:
  std::atomic<int64_t> now_;
  mutable std::mutex mutex_;
  mutable double monotonic_ = 1000.0;
  double step_ = 0;
};

}  // namespace ostler::testing
