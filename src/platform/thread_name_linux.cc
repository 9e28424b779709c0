#include <pthread.h>

#include "platform/threads.h"

namespace ostler {

// Linux keeps 15 bytes of a thread's name.
void setCurrentThreadName(const std::string& name) { pthread_setname_np(pthread_self(), name.substr(0, 15).c_str()); }

}  // namespace ostler
