// How the process hands freed memory back to the operating system.
#pragma once

namespace ostler {

// Asks the allocator to return freed memory promptly rather than keep it
// for reuse. A metering pass frees the state of each session as it goes, so
// without this its resident size would creep up with the length of the
// history instead of staying at the size of the largest session. Call once,
// early in main.
void returnFreedMemoryPromptly();

}  // namespace ostler
