// The one way into the engine from outside: a flag that turns from false to
// true once, when the process is asked to stop. The engine only looks at it
// between files, so a stop never leaves a file half folded.
#pragma once

#include <atomic>
#include <stop_token>

namespace ostler {

class ShutdownSignalSource {
 public:
  virtual ~ShutdownSignalSource() = default;
  // Whether a stop was requested. Safe to call from any thread.
  [[nodiscard]] virtual bool isRequested() const = 0;
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
