// A disk for the checks, held in memory: files and folders put by hand,
// each file making the folders above it. Every path asked about is noted.
#pragma once

#include <set>
#include <string>
#include <vector>

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

  bool exists(const std::string& path) override {
    asked_.push_back(path);
    return files_.contains(path) || folders_.contains(path);
  }
  bool isDirectory(const std::string& path) override {
    asked_.push_back(path);
    return folders_.contains(path);
  }
  [[nodiscard]] const std::vector<std::string>& asked() const { return asked_; }

 private:
  std::set<std::string> files_, folders_;
  std::vector<std::string> asked_;
};

}  // namespace ostler::testing
