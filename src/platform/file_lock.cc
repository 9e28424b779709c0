// Advisory locks with flock(2): the lock belongs to the open file
// description, so two descriptors of one process exclude each other too.
#include "platform/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace ostler {

int32_t openLockFile(const std::string& path, uint32_t mode) {
  int fd = -1;
  do {
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, static_cast<mode_t>(mode));
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool lockFileExclusive(int32_t fd) {
  for (;;) {
    if (::flock(fd, LOCK_EX) == 0) return true;
    if (errno != EINTR) return false;
  }
}

LockAttempt tryLockFileExclusive(int32_t fd) {
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return LockAttempt::kTaken;
    if (errno == EWOULDBLOCK) return LockAttempt::kHeldElsewhere;
    if (errno != EINTR) return LockAttempt::kFailed;
  }
}

void unlockAndCloseFile(int32_t fd) {
  ::flock(fd, LOCK_UN);
  ::close(fd);  // closing frees the lock in any case; nothing is written to lose
}

}  // namespace ostler
