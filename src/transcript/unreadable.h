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

#include "platform/result.h"

namespace ostler {

struct Unreadable {
  std::set<std::string> paths;  // each once, however often it failed
  std::optional<Error> first;   // the first failure met

  void note(const Error& error) {
    if (!paths.insert(error.path).second) return;
    if (!first) first = error;
  }
  void add(const Unreadable& other) {
    for (const auto& p : other.paths) paths.insert(p);
    if (!first) first = other.first;
  }
  [[nodiscard]] int64_t count() const { return static_cast<int64_t>(paths.size()); }
};

}  // namespace ostler
