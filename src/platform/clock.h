// Time as a seam: logic reads the clock only through this interface, so tests
// drive it explicitly. Implementations are safe to use from any thread.
#pragma once

#include <cstdint>

namespace ostler {

class Clock {
 public:
  virtual ~Clock() = default;
  // Wall-clock milliseconds since the Unix epoch.
  [[nodiscard]] virtual int64_t nowMs() const = 0;
  // Seconds on a monotonic clock with an arbitrary origin.
  [[nodiscard]] virtual double monotonicSeconds() const = 0;
};

// The machine's clocks.
class SystemClock final : public Clock {
 public:
  [[nodiscard]] int64_t nowMs() const override;
  [[nodiscard]] double monotonicSeconds() const override;
};

// A process-wide SystemClock.
[[nodiscard]] const Clock& systemClock();

}  // namespace ostler
