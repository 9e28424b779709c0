// Keeps the first K of everything pushed, in the order of a stable sort by
// `Before`: the receipt shows only the ten largest of each kind of detail,
// so holding every candidate of a long history would only cost memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ostler {

template <typename T, typename Before, size_t K = 10>
class TopK {
 public:
  void push_back(T value) {
    Entry entry{std::move(value), seq_++};
    if (kept_.size() < K) {
      kept_.push_back(std::move(entry));
      return;
    }
    auto last = std::max_element(kept_.begin(), kept_.end(), earlier);
    if (earlier(entry, *last)) *last = std::move(entry);
  }

  // The kept values, sorted.
  [[nodiscard]] std::vector<T> sorted() const {
    std::vector<Entry> entries = kept_;
    std::sort(entries.begin(), entries.end(), earlier);
    std::vector<T> out;
    out.reserve(entries.size());
    for (auto& e : entries) out.push_back(std::move(e.value));
    return out;
  }

  [[nodiscard]] size_t size() const { return kept_.size(); }
  [[nodiscard]] bool empty() const { return kept_.empty(); }

 private:
  struct Entry {
    T value;
    uint64_t seq;  // ties keep the order of arrival, as a stable sort would
  };
  static bool earlier(const Entry& a, const Entry& b) {
    if (Before{}(a.value, b.value)) return true;
    if (Before{}(b.value, a.value)) return false;
    return a.seq < b.seq;
  }

  std::vector<Entry> kept_;
  uint64_t seq_ = 0;
};

}  // namespace ostler
