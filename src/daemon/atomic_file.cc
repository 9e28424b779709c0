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

Result<int64_t> write(const std::string& path, std::string_view bytes) {
  std::string temp = path + ".tmp-XXXXXX";
  int fd = ::mkstemp(temp.data());
  if (fd < 0) return systemError("cannot create a temporary file for", path);
  bool ok = writeAll(fd, bytes);
  Error failure = ok ? Error{} : systemError("cannot write", temp);
  if (::close(fd) != 0 && ok) {
    ok = false;
    failure = systemError("cannot close", temp);
  }
  if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
    ok = false;
    failure = systemError("cannot rename over", path);
  }
  if (!ok) {
    ::unlink(temp.c_str());
    return failure;
  }
  return static_cast<int64_t>(bytes.size());
}

}  // namespace ostler::AtomicFile
