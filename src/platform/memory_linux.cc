#include <malloc.h>

#include "platform/memory.h"

namespace ostler {

void keepFreedMemoryForReuse() {
  // glibc serves blocks above M_MMAP_THRESHOLD with mmap and unmaps them on
  // free, and trims the top of a heap past M_TRIM_THRESHOLD; both are raised
  // past any buffer a reading makes. M_TOP_PAD grows the heap in steps of a
  // few megabytes rather than page by page.
  mallopt(M_MMAP_THRESHOLD, 64 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  mallopt(M_TOP_PAD, 16 << 20);
}

void releaseFreedMemory() { malloc_trim(0); }

}  // namespace ostler
