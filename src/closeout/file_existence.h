// Whether something is on disk at a path: the one question the checks ask
// of the file system, behind a seam so that they run over a fixture disk.
#pragma once

#include <string>

#include "platform/file_system.h"

namespace ostler {

// Implementations are safe to use from several threads at once.
class FileExistence {
 public:
  virtual ~FileExistence() = default;

  // Whether any entry is at `path` (a file, a folder or anything else),
  // symbolic links followed. False when the path cannot be tested.
  [[nodiscard]] virtual bool exists(const std::string& path) = 0;

  // Whether a folder is at `path`, symbolic links followed.
  [[nodiscard]] virtual bool isDirectory(const std::string& path) = 0;
};

// Existence as a FileSystem states it. A path holding a NUL byte names no
// file and cannot be tested: it is missing.
class FileSystemExistence final : public FileExistence {
 public:
  explicit FileSystemExistence(FileSystem& fs) : fs_(fs) {}

  [[nodiscard]] bool exists(const std::string& path) override;
  [[nodiscard]] bool isDirectory(const std::string& path) override;

 private:
  FileSystem& fs_;
};

}  // namespace ostler
