#include "platform/file_sizes.h"

#include "platform/stat_file_sizes.h"

namespace ostler {

namespace {

class FileSystemSizes final : public FileSizeSource {
 public:
  explicit FileSystemSizes(FileSystem& fs) : fs_(fs) {}
  std::optional<int64_t> sizeOf(const std::string& path) override {
    auto info = fs_.stat(path);
    if (!info || info.value().kind != FileKind::kRegular) return std::nullopt;
    return static_cast<int64_t>(info.value().size);
  }

 private:
  FileSystem& fs_;
};

}  // namespace

std::unique_ptr<FileSizeSource> makeFileSizes(FileSystem& fs) { return std::make_unique<FileSystemSizes>(fs); }

std::unique_ptr<FileSizeSource> makeStatFileSizes() { return std::make_unique<StatFileSizes>(); }

}  // namespace ostler
