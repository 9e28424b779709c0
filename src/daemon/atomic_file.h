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
#include <string>
#include <string_view>

#include "meter/status.h"

namespace ostler::AtomicFile {

// Replaces `path` with `bytes`. Returns the number of bytes written. On
// failure the temporary file is removed and `path` is left as it was. The
// parent directory must exist.
[[nodiscard]] Result<int64_t> write(const std::string& path, std::string_view bytes);

}  // namespace ostler::AtomicFile
