// A clock the test drives by hand: wall time stands still unless advanced,
// and so does the monotonic reading.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace ostler::testing {

class FakeClock final : public Clock {
 public:
  explicit FakeClock(int64_t nowMs = 0) : nowMs_(nowMs) {}

  [[nodiscard]] int64_t nowMs() const override { return nowMs_; }
  [[nodiscard]] double monotonicSeconds() const override { return monotonic_; }

  // Moves both clocks forward by `seconds`.
  void advance(double seconds) {
    monotonic_ += seconds;
    nowMs_ += static_cast<int64_t>(seconds * 1000.0);
  }

 private:
  int64_t nowMs_;
  double monotonic_ = 1000.0;
};

}  // namespace ostler::testing
