#include "platform/memory.h"

namespace ostler {

// Other allocators return freed memory on their own terms.
void returnFreedMemoryPromptly() {}
void releaseFreedMemory() {}

}  // namespace ostler
