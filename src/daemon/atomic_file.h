// Writing a file that another reader may open at any moment: the bytes go
// to a temporary file in the same directory, which is renamed over the
// target, so a reader sees the old file or the new one, never a torn one.
//
// The bytes are not forced to disk first. What is written this way is
// rewritten every second (the feed) or is a cache that may be lost (the
// engine's state), and a flush of megabytes costs a tenth of a second on an
// ordinary disk; a machine that crashes at worst leaves a file that fails to
// decode, which every reader takes as absent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "meter/status.h"

namespace ostler::AtomicFile {

// A replacement of `path` written in pieces, so that a large file need not
// be held whole in memory first. Dropped without a commit, or after a piece
// failed, it removes its temporary file and leaves `path` as it was. The
// parent directory must exist.
class Replacement {
 public:
  explicit Replacement(std::string path);
  ~Replacement();
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  // Appends `bytes`; false once a write has failed, after which every piece
  // is dropped.
  bool append(std::string_view bytes);
  // Whether every piece so far was written (false too when the temporary
  // file could not be made), so that a writer can stop making pieces.
  [[nodiscard]] bool ok() const { return !failure_; }
  // Renames the file over `path`. Returns the number of bytes written; a
  // second commit is an error that changes nothing.
  [[nodiscard]] Result<int64_t> commit();

 private:
  void discard();

  std::string path_;
  std::string temp_;  // the temporary file while it exists
  int fd_ = -1;
  int64_t written_ = 0;
  std::optional<Error> failure_;
  bool committed_ = false;
};

// Replaces `path` with `bytes`. Returns the number of bytes written. On
// failure the temporary file is removed and `path` is left as it was. The
// parent directory must exist.
[[nodiscard]] Result<int64_t> write(const std::string& path, std::string_view bytes);

}  // namespace ostler::AtomicFile
