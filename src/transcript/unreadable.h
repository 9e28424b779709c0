// The files and folders of a tree that a reading could not read: a folder
// that cannot be listed, a file that cannot be opened (or is no regular
// file: a FIFO, a device), a read that failed part way. Such a file is passed
// over and counted, never fatal; the count and the first of them are for a
// message.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace ostler {

struct Unreadable {
  std::set<std::string> paths;  // each once, however often it failed
  // The failure of the first path in byte order: the same one every run,
  // whatever order the files were read in.
  std::optional<Error> first;

  void note(const Error& error) {
    if (!paths.insert(error.path).second) return;
    if (!first || error.path < first->path) first = error;
  }
  void add(const Unreadable& other) {
    for (const auto& p : other.paths) paths.insert(p);
    if (other.first && (!first || other.first->path < first->path)) first = other.first;
  }
  [[nodiscard]] int64_t count() const { return static_cast<int64_t>(paths.size()); }
};

// "N files could not be read (first: PATH: reason)", the same words from
// every program; empty when every file could be read.
[[nodiscard]] inline std::string describe(const Unreadable& unreadable) {
  if (!unreadable.first) return {};
  return std::to_string(unreadable.count()) + " files could not be read (first: " + unreadable.first->path + ": " +
         unreadable.first->reason + ")";
}

}  // namespace ostler
