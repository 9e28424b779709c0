#include "daemon/atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ostler::AtomicFile {
namespace {

Error systemError(const std::string& what, const std::string& path) {
  return Error{what + " " + path + ": " + std::strerror(errno)};
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

Replacement::Replacement(std::string path) : path_(std::move(path)) {
  std::string temp = path_ + ".tmp-XXXXXX";
  fd_ = ::mkstemp(temp.data());
  if (fd_ < 0)
    failure_ = systemError("cannot create a temporary file for", path_);
  else
    temp_ = std::move(temp);
}

Replacement::~Replacement() { discard(); }

bool Replacement::append(std::string_view bytes) {
  if (failure_) return false;
  if (!writeAll(fd_, bytes)) {
    failure_ = systemError("cannot write", temp_);
    return false;
  }
  written_ += static_cast<int64_t>(bytes.size());
  return true;
}

Result<int64_t> Replacement::commit() {
  if (committed_) return Error{"already renamed over " + path_};
  if (fd_ >= 0) {
    // The descriptor is released even when closing reports an error.
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    if (!closed && !failure_) failure_ = systemError("cannot close", temp_);
  }
  if (!failure_ && ::rename(temp_.c_str(), path_.c_str()) != 0) failure_ = systemError("cannot rename over", path_);
  if (failure_) {
    Error failure = *failure_;
    discard();
    return failure;
  }
  temp_.clear();  // renamed: nothing left to remove
  committed_ = true;
  return written_;
}

void Replacement::discard() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  if (!temp_.empty()) ::unlink(temp_.c_str());
  temp_.clear();
}

Result<int64_t> write(const std::string& path, std::string_view bytes) {
  Replacement file(path);
  file.append(bytes);
  return file.commit();
}

}  // namespace ostler::AtomicFile
