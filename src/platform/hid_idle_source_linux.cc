#include "platform/hid_idle_source.h"

namespace ostler {

// A desktop-neutral idle reading needs a display server's extension (X11's
// screen saver, a Wayland compositor's idle protocol) that a background
// engine cannot count on; without one the user counts as present.
double SystemHIDIdleSource::idleSeconds() const { return 0.0; }

}  // namespace ostler
