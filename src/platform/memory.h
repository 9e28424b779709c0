// How the process hands freed memory back to the operating system.
#pragma once

namespace ostler {

// Asks the allocator to return freed memory promptly rather than keep it
// for reuse. A metering pass frees the state of each session as it goes, so
// without this its resident size would creep up with the length of the
// history instead of staying at the size of the largest session. Call once,
// early in main.
void returnFreedMemoryPromptly();

// Hands the memory freed so far back to the system, once. For a long-lived
// process after a burst of work: unlike the standing policy above, it costs
// nothing on the allocations that follow.
void releaseFreedMemory();

}  // namespace ostler
