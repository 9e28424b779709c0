#include "platform/clock.h"

#include <chrono>

namespace ostler {

int64_t SystemClock::nowMs() const {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

double SystemClock::monotonicSeconds() const {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

const Clock& systemClock() {
  static const SystemClock clock;
  return clock;
}

}  // namespace ostler
