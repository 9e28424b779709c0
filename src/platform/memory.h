// How the process uses memory it has freed.
#pragma once

namespace ostler {

// Keeps freed memory for reuse rather than handing it back to the system at
// once. A reading of a tree frees and takes again buffers of megabytes, slice
// after slice; handed back, each would be faulted in again, and on a virtual
// machine the kernel's share of a reading grows by half. Call once, early in
// main; a long-lived process returns what it holds after each burst of work
// with `releaseFreedMemory`.
void keepFreedMemoryForReuse();

// Hands the memory freed so far back to the system, once.
void releaseFreedMemory();

}  // namespace ostler
