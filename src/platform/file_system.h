// Files and folders as the logic reaches them: the one seam to the file
// system, in the manner of an `Env`. Logic takes a `FileSystem&`; the
// system's implementation lives beside this header, and tests hand in a fake
// that holds its files in memory. Every implementation is safe to use from
// several threads at once.
//
// Errors carry a message fit for a user: "cannot open PATH: reason".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"

namespace ostler {

enum class FileKind : uint8_t { kRegular, kDirectory, kOther };

struct FileInfo {
  FileKind kind = FileKind::kOther;
  uint64_t size = 0;
  int64_t modifiedNs = 0;  // last modification, nanoseconds since the Unix epoch
  // Which file it is: a file replaced under the same name has another.
  uint64_t device = 0;
  uint64_t inode = 0;
  bool ownedByUser = true;  // belongs to the user the process runs as
};

struct DirectoryEntry {
  std::string name;
  bool isDirectory = false;  // a symbolic link counts as what it points to
  bool isLink = false;       // the entry itself is a symbolic link

  friend bool operator<(const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; }
};

// An open regular file, read at offsets: reads share no position, so one
// file serves readers on several threads.
class ReadableFile {
 public:
  virtual ~ReadableFile() = default;
  // Reads up to `n` bytes at `offset` into `into`; 0 at the end of the file.
  [[nodiscard]] virtual Result<size_t> readAt(uint64_t offset, char* into, size_t n) = 0;
  // The file's size when it was opened. A reading that began then ends
  // there: what is appended meanwhile is for the next reading.
  [[nodiscard]] virtual uint64_t sizeWhenOpened() const = 0;
};

// A file written in place of another. Until `commit`, the target keeps its
// old bytes; readers see the old file or the new one, never a torn one. A
// replacement dropped without a commit leaves no trace.
class FileReplacement {
 public:
  virtual ~FileReplacement() = default;
  // Appends `bytes`. After a failure every later piece is refused too.
  [[nodiscard]] virtual Status append(std::string_view bytes) = 0;
  // Puts the new file in place of the target. Returns the bytes written.
  [[nodiscard]] virtual Result<uint64_t> commit() = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Opens a regular file for reading (symbolic links followed). Anything
  // else is refused, and opening never waits: a FIFO named like a
  // transcript does not stall the reader.
  [[nodiscard]] virtual Result<std::unique_ptr<ReadableFile>> openForReading(const std::string& path) = 0;

  // What is at `path`, symbolic links followed.
  [[nodiscard]] virtual Result<FileInfo> stat(const std::string& path) = 0;

  // The entries of a folder but "." and "..", in no particular order.
  [[nodiscard]] virtual Result<std::vector<DirectoryEntry>> list(const std::string& dir) = 0;

  // Starts a replacement of `path`, whose folder must exist; the new file
  // gets the permission bits `mode`.
  [[nodiscard]] virtual Result<std::unique_ptr<FileReplacement>> replace(const std::string& path,
                                                                        uint32_t mode = 0600) = 0;

  // Makes `path` and any missing folder above it, each with `mode`.
  [[nodiscard]] virtual Status makeDirectories(const std::string& path, uint32_t mode = 0700) = 0;

  // Removes a file, a symbolic link (not what it points to) or an empty
  // folder; one already gone is no error.
  [[nodiscard]] virtual Status remove(const std::string& path) = 0;
};

// The machine's file system, one per process.
[[nodiscard]] FileSystem& systemFileSystem();

// Makes the folder `path` (its parent must exist) with mode 0700, or
// accepts it when it exists already as a folder of this user that nobody
// else may write to. A folder in a place every user writes to, such as
// /tmp, may have been made first by someone else to read or plant what we
// put there: one that belongs to another user, is writable by others or is
// a symbolic link is refused, with the reason.
[[nodiscard]] Status makePrivateDirectory(const std::string& path);

// `dir` and `name` joined by one slash.
[[nodiscard]] std::string joinPath(std::string_view dir, std::string_view name);

// The entries of `dir` sorted by the bytes of their names; nothing when it
// cannot be listed.
[[nodiscard]] Result<std::vector<DirectoryEntry>> listSorted(FileSystem& fs, const std::string& dir);

// Removes `path` and, when it is a folder, everything in it. Symbolic links
// inside are removed as links, never followed. Whatever can be removed is,
// and the first failure is reported; something already gone is no error.
[[nodiscard]] Status removeTree(FileSystem& fs, const std::string& path);

// Whether `path` is a folder (links followed); false when it cannot be read.
[[nodiscard]] bool isDirectory(FileSystem& fs, const std::string& path);

// The whole file, when it is a regular file of at most `maxBytes`, followed
// by `padding` zero bytes (a parser that reads past the end of its text
// needs them).
[[nodiscard]] Result<std::string> readWholeFile(FileSystem& fs, const std::string& path,
                                                uint64_t maxBytes = uint64_t{1} << 30, size_t padding = 0);

// Replaces `path` with `bytes`. Returns the bytes written.
[[nodiscard]] Result<uint64_t> writeWholeFile(FileSystem& fs, const std::string& path, std::string_view bytes,
                                              uint32_t mode = 0600);

}  // namespace ostler
