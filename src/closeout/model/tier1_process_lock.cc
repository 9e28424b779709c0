#include "closeout/model/tier1_process_lock.h"

#include <chrono>
#include <thread>

#include "platform/file_lock.h"
#include "platform/file_system.h"

namespace ostler::Tier1ProcessLock {
namespace {

std::string parentOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The lock file opened in a folder of this user's own; negative when the
// folder is refused or the file cannot be opened.
int32_t openInPrivateFolder(const std::string& path) {
  const std::string folder = parentOf(path);
  // The folders above are made if missing; a failure there shows in the
  // next step.
  (void)systemFileSystem().makeDirectories(parentOf(folder));
  if (!makePrivateDirectory(folder).ok()) return -1;
  return openLockFile(path, 0644);
}

}  // namespace

int32_t acquireBlocking(const std::string& path) {
  const int32_t fd = openInPrivateFolder(path);
  if (fd < 0) return fd;
  if (!lockFileExclusive(fd)) {
    unlockAndCloseFile(fd);
    return -1;
  }
  return fd;
}

int32_t acquireAsync(const std::string& path, uint64_t pollIntervalNs) {
  const int32_t fd = openInPrivateFolder(path);
  if (fd < 0) return fd;
  for (;;) {
    switch (tryLockFileExclusive(fd)) {
      case LockAttempt::kTaken: return fd;
      case LockAttempt::kHeldElsewhere: break;
      case LockAttempt::kFailed: unlockAndCloseFile(fd); return -1;
    }
    std::this_thread::sleep_for(std::chrono::nanoseconds(pollIntervalNs));
  }
}

void release(int32_t fd) {
  if (fd >= 0) unlockAndCloseFile(fd);
}

}  // namespace ostler::Tier1ProcessLock
