#include "platform/threads.h"

namespace ostler {

// Thread names are a debugging aid; a system without the call goes without.
void setCurrentThreadName(const std::string&) {}

}  // namespace ostler
