// Owns copies of many small strings in a few large blocks, so a file's worth
// of digested lines is made and released with a handful of allocations.
// Views it hands out stay valid for the arena's life; it is movable, not
// copyable.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace ostler {

class StringArena {
 public:
  StringArena() = default;
  // Arenas that live long and hold little (a small file's lines kept for
  // later) take smaller blocks.
  explicit StringArena(size_t blockSize) : blockSize_(blockSize) {}
  StringArena(StringArena&&) noexcept = default;
  StringArena& operator=(StringArena&&) noexcept = default;
  StringArena(const StringArena&) = delete;
  StringArena& operator=(const StringArena&) = delete;

  // A copy of `s` owned by the arena.
  std::string_view store(std::string_view s) {
    if (s.empty()) return {};
    if (s.size() > room_) nextBlock(s.size());
    char* at = cursor_;
    std::memcpy(at, s.data(), s.size());
    cursor_ += s.size();
    room_ -= s.size();
    return {at, s.size()};
  }

  static constexpr size_t kBlockSize = 64 * 1024;

  // Bytes held in blocks, used or not.
  [[nodiscard]] size_t capacityBytes() const {
    size_t total = 0;
    for (const auto& b : blocks_) total += b.size;
    return total;
  }

  // Forgets every string but keeps the blocks for reuse; earlier views
  // become invalid.
  void clear() {
    used_ = 0;
    cursor_ = nullptr;
    room_ = 0;
  }

 private:
  struct Block {
    std::unique_ptr<char[]> bytes;
    size_t size;
  };

  void nextBlock(size_t atLeast) {
    // Reuse a kept block when it is large enough, else make one.
    while (used_ < blocks_.size() && blocks_[used_].size < atLeast) ++used_;
    if (used_ == blocks_.size()) {
      size_t size = atLeast > blockSize_ ? atLeast : blockSize_;
      blocks_.push_back({std::make_unique_for_overwrite<char[]>(size), size});
    }
    cursor_ = blocks_[used_].bytes.get();
    room_ = blocks_[used_].size;
    ++used_;
  }

  size_t blockSize_ = kBlockSize;
  std::vector<Block> blocks_;
  size_t used_ = 0;  // blocks handed out since the last clear
  char* cursor_ = nullptr;
  size_t room_ = 0;
};

}  // namespace ostler
