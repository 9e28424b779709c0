// How long the user has not touched keyboard or mouse: the engine's one
// sign that someone is at the machine.
#pragma once

namespace ostler {

class HIDIdleSource {
 public:
  virtual ~HIDIdleSource() = default;
  // Seconds since the last keyboard or mouse event; 0.0 where the platform
  // gives no reading, so the user always counts as present. Thread-safe.
  [[nodiscard]] virtual double idleSeconds() const = 0;
};

// The platform's reading.
class SystemHIDIdleSource final : public HIDIdleSource {
 public:
  [[nodiscard]] double idleSeconds() const override;
};

}  // namespace ostler
