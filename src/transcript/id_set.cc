#include "transcript/id_set.h"

namespace ostler {
namespace {

// 64-bit FNV-1a.
uint64_t fnv1a(std::string_view s) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (unsigned char c : s) {
    h ^= c;
    h *= 0x100000001b3ull;
  }
  return h;
}

// A multiply-rotate hash over 8-byte words, independent of FNV-1a.
uint64_t wordHash(std::string_view s) {
  uint64_t h = 0x9e3779b97f4a7c15ull ^ (s.size() * 0xff51afd7ed558ccdull);
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t w = 0;
    for (size_t k = 0; k < 8; ++k) w |= uint64_t(static_cast<unsigned char>(s[i + k])) << (8 * k);
    h = (h ^ (w * 0xc4ceb9fe1a85ec53ull)) * 0x9e3779b97f4a7c15ull;
    h = (h << 31) | (h >> 33);
  }
  uint64_t tail = 0;
  for (size_t k = 0; i + k < s.size(); ++k) tail |= uint64_t(static_cast<unsigned char>(s[i + k])) << (8 * k);
  h = (h ^ (tail * 0xc4ceb9fe1a85ec53ull)) * 0x9e3779b97f4a7c15ull;
  h ^= h >> 29;
  h *= 0xbf58476d1ce4e5b9ull;
  h ^= h >> 32;
  return h;
}

}  // namespace

IdSet::Slot IdSet::fingerprint(std::string_view id) {
  Slot f{fnv1a(id), wordHash(id)};
  if (f.b == 0) f.b = 1;
  return f;
}

size_t IdSet::find(const Slot& f) const {
  const size_t mask = slots_.size() - 1;
  size_t i = static_cast<size_t>(f.a) & mask;
  while (slots_[i].b != 0 && (slots_[i].a != f.a || slots_[i].b != f.b)) i = (i + 1) & mask;
  return i;
}

void IdSet::grow() {
  std::vector<Slot> old = std::move(slots_);
  slots_.assign(old.empty() ? 1024 : old.size() * 2, Slot{});
  for (const Slot& s : old)
    if (s.b != 0) slots_[find(s)] = s;
}

bool IdSet::insert(std::string_view id) {
  if ((size_ + 1) * 8 > slots_.size() * 7) grow();  // load factor at most 7/8
  const Slot f = fingerprint(id);
  size_t i = find(f);
  if (slots_[i].b != 0) return false;
  slots_[i] = f;
  ++size_;
  return true;
}

bool IdSet::contains(std::string_view id) const {
  if (slots_.empty()) return false;
  return slots_[find(fingerprint(id))].b != 0;
}

}  // namespace ostler
