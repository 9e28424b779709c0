#include "platform/hid_idle_source.h"

namespace ostler {

// No idle reading on this system yet: the user counts as present.
double SystemHIDIdleSource::idleSeconds() const { return 0.0; }

}  // namespace ostler
