// A file system held in memory, for tests of logic that reads and writes
// through the FileSystem seam. Paths are absolute strings compared as they
// are written; folders come into being with the files put in them. Faults
// are set by hand: a file that cannot be opened, a read that fails part way,
// an entry that is neither file nor folder. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/file_system.h"

namespace ostler::testing {

class FakeFileSystem final : public FileSystem {
 public:
  // Puts a file at `path` with `bytes`, making the folders above it.
  void put(const std::string& path, std::string bytes);
  void append(const std::string& path, std::string_view bytes);
  void makeFolder(const std::string& path);
  // What is at `path`: the file's bytes, or nothing.
  [[nodiscard]] std::optional<std::string> bytes(const std::string& path) const;

  // Faults.
  void refuseOpening(const std::string& path, std::string reason = "permission denied");
  void failReadsFrom(const std::string& path, uint64_t offset);  // a read reaching `offset` fails
  void putSpecial(const std::string& path);                      // neither file nor folder, a FIFO say
  void giveToAnotherUser(const std::string& path);               // stat says another user owns it
  void failCommitsTo(const std::string& path);                   // a replacement of it fails at its rename
  // Called, outside the lock, before every read of every file.
  void onRead(std::function<void(const std::string& path)> hook);

  // The seam.
  Result<std::unique_ptr<ReadableFile>> openForReading(const std::string& path) override;
  Result<FileInfo> stat(const std::string& path) override;
  Result<std::vector<DirectoryEntry>> list(const std::string& dir) override;
  Result<std::unique_ptr<FileReplacement>> replace(const std::string& path, uint32_t mode) override;
  Status makeDirectories(const std::string& path, uint32_t mode) override;
  Status remove(const std::string& path) override;

 private:
  struct Node {
    FileKind kind = FileKind::kRegular;
    std::shared_ptr<std::string> bytes = std::make_shared<std::string>();
    int64_t modifiedNs = 0;
    uint64_t inode = 0;
    std::optional<std::string> refusal;
    std::optional<uint64_t> failReadsFrom;
    bool foreign = false;
  };
  class File;
  class Replacement;

  void makeParents(const std::string& path);  // under the lock
  Node& touch(const std::string& path, FileKind kind);

  mutable std::mutex mutex_;
  std::map<std::string, Node> nodes_;
  std::function<void(const std::string&)> onRead_;
  std::set<std::string> failingCommits_;
  uint64_t nextInode_ = 1;
  int64_t clockNs_ = 1'700'000'000'000'000'000;  // each change moves it on by a millisecond
};

}  // namespace ostler::testing
