// Sizes of files, asked for once per file on every poll of a transcript
// tree. The plain source asks the file system each time. The watching source
// asks it only about files whose folder reported a change since it last
// looked, and remembers the rest: an idle tree of a thousand chats then costs
// no call per file at all. Not thread-safe; one source per engine.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/file_system.h"

namespace ostler {

class FileSizeSource {
 public:
  virtual ~FileSizeSource() = default;
  // Starts a poll: takes in the changes reported since the last one.
  virtual void beginPoll() {}
  // The size of the regular file at `path`; nothing when it cannot be read
  // or is not a regular file.
  [[nodiscard]] virtual std::optional<int64_t> sizeOf(const std::string& path) = 0;
  // Ends a poll: releases what was held for it.
  virtual void endPoll() {}
};

// Asks `fs` for every file.
[[nodiscard]] std::unique_ptr<FileSizeSource> makeFileSizes(FileSystem& fs);

// Asks the machine's file system for every file, folder by folder.
[[nodiscard]] std::unique_ptr<FileSizeSource> makeStatFileSizes();

// Remembers sizes between polls and asks again only after a change was
// reported, with a full look every `refreshPolls` polls as a safety net.
// Where the system reports no changes, this is the plain source.
[[nodiscard]] std::unique_ptr<FileSizeSource> makeWatchingFileSizes(int refreshPolls = 60);

}  // namespace ostler
