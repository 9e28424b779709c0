#include "platform/file_sizes.h"

#include "platform/stat_file_sizes.h"

namespace ostler {

std::unique_ptr<FileSizeSource> makeStatFileSizes() { return std::make_unique<StatFileSizes>(); }

}  // namespace ostler
