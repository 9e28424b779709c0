#include <malloc.h>

#include "platform/memory.h"

namespace ostler {

void returnFreedMemoryPromptly() {
  // glibc keeps up to M_TRIM_THRESHOLD of free memory at the top of each
  // heap; the default grows with the largest block ever freed.
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
}

void releaseFreedMemory() { malloc_trim(0); }

}  // namespace ostler
