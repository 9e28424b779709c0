#include "transcript/request_id_set.h"

#include <functional>

namespace ostler {
namespace {

uint64_t hashOf(std::string_view id) { return std::hash<std::string_view>{}(id); }

uint64_t tagOf(uint64_t hash) { return hash >> 32; }

// At most half full: probes stay short.
size_t slotsFor(size_t ids) {
  size_t n = 64;
  while (n < 2 * ids) n *= 2;
  return n;
}

}  // namespace

size_t RequestIdSet::slotOf(std::string_view id, uint64_t hash) const {
  const size_t mask = slots_.size() - 1;
  for (size_t i = static_cast<size_t>(hash) & mask;; i = (i + 1) & mask) {
    const uint64_t slot = slots_[i];
    if (slot == 0) return i;
    if (slot >> 32 == tagOf(hash) && ids_[static_cast<uint32_t>(slot) - 1] == id) return i;
  }
}

void RequestIdSet::rehash(size_t slotCount) {
  slots_.assign(slotCount, 0);
  const size_t mask = slotCount - 1;
  for (size_t k = 0; k < ids_.size(); ++k) {
    const uint64_t hash = hashOf(ids_[k]);
    size_t i = static_cast<size_t>(hash) & mask;
    while (slots_[i] != 0) i = (i + 1) & mask;
    slots_[i] = tagOf(hash) << 32 | (k + 1);
  }
}

bool RequestIdSet::insert(std::string_view id) {
  if (2 * (ids_.size() + 1) > slots_.size()) rehash(slotsFor(ids_.size() + 1));
  const uint64_t hash = hashOf(id);
  const size_t i = slotOf(id, hash);
  if (slots_[i] != 0) return false;
  ids_.push_back(text_.store(id));
  slots_[i] = tagOf(hash) << 32 | ids_.size();
  return true;
}

bool RequestIdSet::contains(std::string_view id) const {
  return !slots_.empty() && slots_[slotOf(id, hashOf(id))] != 0;
}

void RequestIdSet::clear() {
  text_.clear();
  ids_.clear();
  slots_.clear();
}

void RequestIdSet::reserve(size_t n) {
  ids_.reserve(n);
  if (slots_.size() < slotsFor(n)) rehash(slotsFor(n));
}

}  // namespace ostler
