// One unit of model work at a time between processes: the desktop
// application and a standalone engine may both run, and both reach for the
// same model. The lock is an advisory lock on a file, so a holder that
// crashes frees it at once, and the file itself is never deleted.
//
// The lock never stops the work: when the file cannot be opened, or its
// folder is not this user's own, the acquiring forms give a negative
// descriptor at once and the caller goes on unlocked. A folder under /tmp
// may have been made by someone else to watch or block us; it is refused,
// not used.
#pragma once

#include <cstdint>
#include <string>

namespace ostler::Tier1ProcessLock {

inline constexpr const char* kDefaultPath = "/tmp/ostler-closeout/tier1.lock";
// How long the polling form sleeps between tries.
inline constexpr uint64_t kPollIntervalNs = 50'000'000;

// Makes the lock file's folder (0700, refused when it belongs to another
// user or others may write to it), opens the file (0644), and waits as long
// as it takes for the exclusive lock. The descriptor to release, or a
// negative one when the lock had to be skipped.
[[nodiscard]] int32_t acquireBlocking(const std::string& path = kDefaultPath);

// The same, but trying without waiting and sleeping `pollIntervalNs`
// between tries, so that the caller never sits inside the kernel's lock
// and a waiting thread can be seen to wait.
[[nodiscard]] int32_t acquireAsync(const std::string& path = kDefaultPath, uint64_t pollIntervalNs = kPollIntervalNs);

// Unlocks and closes `fd`; nothing for a negative descriptor.
void release(int32_t fd);

}  // namespace ostler::Tier1ProcessLock
