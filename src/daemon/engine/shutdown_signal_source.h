// The one way into the engine from outside: a flag that turns from false to
// true once, when the process is asked to stop. The engine looks at it
// between files and the loop while it waits for its next tick.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stop_token>
#include <thread>

namespace ostler {

class ShutdownSignalSource {
 public:
  virtual ~ShutdownSignalSource() = default;
  // Whether a stop was requested. Safe to call from any thread.
  [[nodiscard]] virtual bool isRequested() const = 0;
  // Waits up to `seconds`, ending early once a stop is requested; true then.
  // The plain wait looks in short naps; a source that can be woken waits
  // to the moment.
  virtual bool waitUnlessRequested(double seconds) const {
    using Clock = std::chrono::steady_clock;
    const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (!isRequested() && Clock::now() < until)
      std::this_thread::sleep_for(std::min<Clock::duration>(until - Clock::now(), std::chrono::milliseconds(20)));
    return isRequested();
  }
};

// Never asks for a stop.
class NeverShutdownSignalSource final : public ShutdownSignalSource {
 public:
  [[nodiscard]] bool isRequested() const override { return false; }
};

// A stop requested by calling `request`, from any thread.
class FlagShutdownSignalSource final : public ShutdownSignalSource {
 public:
  void request() { requested_.store(true, std::memory_order_release); }
  [[nodiscard]] bool isRequested() const override { return requested_.load(std::memory_order_acquire); }

 private:
  std::atomic<bool> requested_{false};
};

// A stop asked for through a stop token, as the daemon's background work is.
class StopTokenSignalSource final : public ShutdownSignalSource {
 public:
  explicit StopTokenSignalSource(std::stop_token stop) : stop_(std::move(stop)) {}
  [[nodiscard]] bool isRequested() const override { return stop_.stop_requested(); }

 private:
  std::stop_token stop_;
};

}  // namespace ostler
