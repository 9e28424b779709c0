// Publishes the feed as a file that readers may open at any moment: the
// whole JSON goes to a temporary file beside the target and is renamed over
// it, so a reader sees the previous feed or the new one, never a torn one.
// The file is private to the user (mode 0600).
//
// Used by one thread (the daemon's tick).
#pragma once

#include <optional>
#include <string>

#include "daemon/feed/feed.h"
#include "platform/clock.h"
#include "platform/file_system.h"
#include "platform/result.h"

namespace ostler {

class FeedWriter {
 public:
  // The writer writes through `fs` and reads the current time from `clock`,
  // both of which must outlive it.
  FeedWriter(FileSystem& fs, std::string path, double minIntervalSeconds, const Clock& clock = systemClock());

  // Writes `feed` unconditionally. On success, and only then, `lastWriteAt`
  // becomes the current time. On failure the previous file stays as it was
  // and `lastWriteAt` is unchanged. The parent directory is not created.
  Result<uint64_t> writeNow(const Feed& feed);

  // Encodes ahead what of `feed` a later write of it can reuse, for a caller
  // that has the feed before it may write it.
  void prepare(const Feed& feed) { encoder_.prepareRows(feed); }

  // Writes as `writeNow` unless the last write was less than `minInterval`
  // before `now`. Returns whether it wrote, or the write's error.
  Result<bool> writeDebounced(const Feed& feed, InstantMs now);

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] double minInterval() const { return minInterval_; }
  [[nodiscard]] std::optional<InstantMs> lastWriteAt() const { return lastWriteAt_; }

 private:
  FileSystem& fs_;
  std::string path_;
  double minInterval_;
  const Clock& clock_;
  std::optional<InstantMs> lastWriteAt_;
  FeedEncoder encoder_;
};

}  // namespace ostler
