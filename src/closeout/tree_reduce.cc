#include "closeout/tree_reduce.h"

#include <cstddef>
#include <iterator>

namespace ostler::TreeReduce {

std::vector<int64_t> packBatches(const std::vector<std::string>& items, const Chunker::Measure& measure,
                                 int64_t ceiling) {
  std::vector<int64_t> sizes;
  int64_t inBatch = 0, total = 0;
  for (const std::string& item : items) {
    const int64_t tokens = measure(item);
    if (inBatch > 0 && total + tokens > ceiling) {
      sizes.push_back(inBatch);
      inBatch = 0;
      total = 0;
    }
    ++inBatch;
    total += tokens;
  }
  if (inBatch > 0) sizes.push_back(inBatch);
  return sizes;
}

Outcome reduce(std::vector<std::string> items, const Chunker::Measure& measure, int64_t ceiling,
               const CombineBatch& combineBatch) {
  Outcome out;
  if (items.empty()) return out;
  if (items.size() == 1) {
    out.result = std::move(items.front());
    return out;
  }
  for (;;) {
    std::vector<int64_t> sizes = packBatches(items, measure, ceiling);
    out.levels.push_back({static_cast<int64_t>(items.size()), sizes});
    if (sizes.size() == items.size()) {
      out.result = combineBatch(items);
      return out;
    }
    std::vector<std::string> results;
    results.reserve(sizes.size());
    size_t at = 0;
    for (int64_t size : sizes) {
      std::vector<std::string> batch(std::make_move_iterator(items.begin() + static_cast<std::ptrdiff_t>(at)),
                                     std::make_move_iterator(items.begin() + static_cast<std::ptrdiff_t>(at + size)));
      at += static_cast<size_t>(size);
      results.push_back(combineBatch(batch));
    }
    if (results.size() == 1) {
      out.result = std::move(results.front());
      return out;
    }
    items = std::move(results);
  }
}

}  // namespace ostler::TreeReduce
