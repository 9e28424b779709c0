// The size of a window at one moment the user was cut off.
#pragma once

#include <cstdint>

namespace ostler {

struct CutoffObservation {
  double valueUSD = 0;  // dollars burned in the window, rounded to six places
  int64_t tokens = 0;   // tokens burned in the window

  friend bool operator==(const CutoffObservation&, const CutoffObservation&) = default;
};

}  // namespace ostler
