// The plain file size source: one stat per file, made relative to the open
// folder of the previous file, since a tree is walked folder by folder.
#pragma once

#include <string>

#include "platform/file_sizes.h"

namespace ostler {

class StatFileSizes final : public FileSizeSource {
 public:
  StatFileSizes() = default;
  StatFileSizes(const StatFileSizes&) = delete;
  StatFileSizes& operator=(const StatFileSizes&) = delete;
  ~StatFileSizes() override { closeFolder(); }

  [[nodiscard]] std::optional<int64_t> sizeOf(const std::string& path) override;
  void endPoll() override { closeFolder(); }

 private:
  void closeFolder();

  std::string folder_;
  int fd_ = -1;
};

}  // namespace ostler
