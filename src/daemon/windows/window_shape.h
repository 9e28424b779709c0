// The three limits a plan cuts a user off at: a rolling five-hour session,
// a week, and a week of the top model alone.
#pragma once

#include <array>
#include <cstdint>

namespace ostler {

enum class WindowShape { kSession, kWeek, kWeekTopModel };

inline constexpr std::array<WindowShape, 3> kAllWindowShapes = {WindowShape::kSession, WindowShape::kWeek,
                                                                 WindowShape::kWeekTopModel};

// Length of the window in seconds.
[[nodiscard]] constexpr double windowDuration(WindowShape s) {
  return s == WindowShape::kSession ? 18'000.0 : 604'800.0;
}

// Whether only burns of the "fable" family count.
[[nodiscard]] constexpr bool windowFableOnly(WindowShape s) { return s == WindowShape::kWeekTopModel; }

}  // namespace ostler
