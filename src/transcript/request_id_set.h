// The request ids the live engine has folded. Every assistant line looks an
// id up, and the whole set is saved with the engine's state, so the ids
// themselves are kept: in one arena, in the order they came, found through
// an open-addressed table of their hashes. A lookup reads one slot and
// compares text only when the hash matches.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "transcript/string_arena.h"

namespace ostler {

class RequestIdSet {
 public:
  RequestIdSet() = default;
  RequestIdSet(RequestIdSet&&) noexcept = default;
  RequestIdSet& operator=(RequestIdSet&&) noexcept = default;
  RequestIdSet(const RequestIdSet&) = delete;
  RequestIdSet& operator=(const RequestIdSet&) = delete;

  // Adds `id`; false when it was there already.
  bool insert(std::string_view id);
  [[nodiscard]] bool contains(std::string_view id) const;
  [[nodiscard]] size_t size() const { return ids_.size(); }
  [[nodiscard]] bool empty() const { return ids_.empty(); }
  void clear();
  // Makes room for `n` ids in all without growing the table again.
  void reserve(size_t n);

  // The ids in the order they were added.
  [[nodiscard]] auto begin() const { return ids_.begin(); }
  [[nodiscard]] auto end() const { return ids_.end(); }

 private:
  // A slot holds the high half of an id's hash and its index plus one; 0 is
  // an empty slot.
  [[nodiscard]] size_t slotOf(std::string_view id, uint64_t hash) const;  // its slot, or the empty one to take
  void rehash(size_t slotCount);

  StringArena text_;
  std::vector<std::string_view> ids_;
  std::vector<uint64_t> slots_;
};

}  // namespace ostler
