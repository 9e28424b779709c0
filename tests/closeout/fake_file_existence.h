// A disk for the checks, held in memory: files and folders put by hand,
// each file making the folders above it.
#pragma once

#include <set>
#include <string>

#include "closeout/file_existence.h"

namespace ostler::testing {

class FakeFileExistence final : public FileExistence {
 public:
  FakeFileExistence& file(const std::string& path) {
    files_.insert(path);
    for (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0; slash = path.rfind('/', slash - 1))
      folders_.insert(path.substr(0, slash));
    return *this;
  }
  FakeFileExistence& folder(const std::string& path) {
    folders_.insert(path);
    return *this;
  }

  bool exists(const std::string& path) override { return files_.contains(path) || folders_.contains(path); }
  bool isDirectory(const std::string& path) override { return folders_.contains(path); }

 private:
  std::set<std::string> files_, folders_;
};

}  // namespace ostler::testing
