#include "platform/stat_file_sizes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

namespace ostler {

std::optional<int64_t> StatFileSizes::sizeOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  struct stat st;
  int rc;
  if (slash == std::string::npos || slash == 0) {
    rc = ::stat(path.c_str(), &st);
  } else {
    std::string_view folder(path.data(), slash);
    if (folder != folder_) {
      closeFolder();
      folder_.assign(folder);
      fd_ = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    rc = fd_ >= 0 ? ::fstatat(fd_, path.c_str() + slash + 1, &st, 0) : ::stat(path.c_str(), &st);
    // The open folder may have been removed and made again since.
    if (rc != 0 && fd_ >= 0) rc = ::stat(path.c_str(), &st);
  }
  if (rc != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  return static_cast<int64_t>(st.st_size);
}

void StatFileSizes::closeFolder() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  folder_.clear();
}

}  // namespace ostler
