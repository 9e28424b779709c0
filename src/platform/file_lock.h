// Advisory locks on whole files, shared between processes: what keeps two
// programs of this user from using one scarce resource at once. A lock lives
// in an open descriptor, so a holder that dies frees it at once.
#pragma once

#include <cstdint>
#include <string>

namespace ostler {

// Opens `path` for reading and writing, creating it with `mode` (links are
// not followed). A negative descriptor when it cannot be opened.
[[nodiscard]] int32_t openLockFile(const std::string& path, uint32_t mode = 0644);

// Takes the exclusive lock of the open file `fd`, waiting as long as it
// takes; false when the system refuses (a bad descriptor, say).
bool lockFileExclusive(int32_t fd);

enum class LockAttempt { kTaken, kHeldElsewhere, kFailed };
// Takes the exclusive lock of `fd` when no one holds it, without waiting.
[[nodiscard]] LockAttempt tryLockFileExclusive(int32_t fd);

// Gives up the lock of `fd` and closes it.
void unlockAndCloseFile(int32_t fd);

}  // namespace ostler
