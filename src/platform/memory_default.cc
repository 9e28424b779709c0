#include "platform/memory.h"

namespace ostler {

// Other allocators return freed memory on their own terms.
void keepFreedMemoryForReuse() {}
void releaseFreedMemory() {}

}  // namespace ostler
