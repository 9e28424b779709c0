// A set of strings kept as 128-bit fingerprints in one open-addressed table.
// The meter remembers every request id of a pass; holding the strings
// themselves would make its memory grow with the tree several times faster.
// Two independent 64-bit hashes make a false match between two different ids
// about as likely as n^2 / 2^129 — never, for any real tree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ostler {

class IdSet {
 public:
  // Inserts `id`; returns false when it was already there.
  bool insert(std::string_view id);
  [[nodiscard]] bool contains(std::string_view id) const;
  [[nodiscard]] size_t size() const { return size_; }

 private:
  struct Slot {
    uint64_t a = 0;
    uint64_t b = 0;  // 0 marks an empty slot; fingerprints never have b == 0
  };
  static Slot fingerprint(std::string_view id);
  size_t find(const Slot& f) const;  // the slot holding f, or the empty slot where it would go
  void grow();

  std::vector<Slot> slots_;
  size_t size_ = 0;
};

}  // namespace ostler
