// Listing folders of the transcript tree.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostler {

struct DirectoryEntry {
  std::string name;
  bool isDirectory = false;  // links are followed

  friend bool operator<(const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; }
};

// The entries of `dir` but "." and "..", sorted by the bytes of their names;
// nothing when it cannot be listed. The listing's own file types save a stat
// per entry; a link or an entry of unknown type is looked at.
[[nodiscard]] std::optional<std::vector<DirectoryEntry>> listDirectorySorted(const std::string& dir);

// Whether `path` is a folder (links followed); false when it cannot be read.
[[nodiscard]] bool isDirectory(const std::string& path);

// `dir` and `name` joined by one slash.
[[nodiscard]] std::string joinPath(const std::string& dir, std::string_view name);

}  // namespace ostler
