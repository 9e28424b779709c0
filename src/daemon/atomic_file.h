// Writing a file that another reader may open at any moment: the bytes go
// to a temporary file in the same directory, are flushed to disk, and the
// temporary file is renamed over the target, so a reader sees the old file
// or the new one, never a torn one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "meter/status.h"

namespace ostler::AtomicFile {

// Replaces `path` with `bytes`. Returns the number of bytes written. On
// failure the temporary file is removed and `path` is left as it was. The
// parent directory must exist.
[[nodiscard]] Result<int64_t> write(const std::string& path, std::string_view bytes);

}  // namespace ostler::AtomicFile
