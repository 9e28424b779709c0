// One priced API request as the limit windows see it. The engine keeps 32
// days of them; the window scan produces them from the whole tree.
#pragma once

#include <cstdint>

#include "transcript/iso8601.h"

namespace ostler {

struct BurnEvent {
  InstantMs timestamp = 0;     // when the request's line was written
  double costUSD = 0;          // list-price dollars, not rounded
  bool isFableFamily = false;  // the model is of the "fable" family
  int64_t tokens = 0;          // all five token counts together

  friend bool operator==(const BurnEvent&, const BurnEvent&) = default;
};

}  // namespace ostler
