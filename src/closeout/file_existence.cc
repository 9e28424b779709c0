#include "closeout/file_existence.h"

namespace ostler {

bool FileSystemExistence::exists(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) return false;
  return fs_.stat(path).ok();
}

bool FileSystemExistence::isDirectory(const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) return false;
  auto info = fs_.stat(path);
  return info && info.value().kind == FileKind::kDirectory;
}

}  // namespace ostler
