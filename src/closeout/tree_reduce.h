// Reducing many summaries to one by levels: the items of a level are packed
// in order into batches that fit the model's window, each batch is combined
// into one text, and the results form the next level, until one text is
// left. A level on which no batch holds two items cannot make progress; it
// is combined whole in one call, whatever the window.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/chunker.h"

namespace ostler::TreeReduce {

// One level: the items entering it and the size of each batch, in order.
struct LevelInfo {
  int64_t itemCount = 0;
  std::vector<int64_t> batchSizes;

  friend bool operator==(const LevelInfo&, const LevelInfo&) = default;
};

struct Outcome {
  std::string result;
  std::vector<LevelInfo> levels;
};

using CombineBatch = std::function<std::string(const std::vector<std::string>&)>;

// The batch sizes of one level: items in order, a batch closed before an
// item that would take its measured total above `ceiling` (an item above
// the ceiling by itself still makes a batch of one). Each item is measured
// once.
[[nodiscard]] std::vector<int64_t> packBatches(const std::vector<std::string>& items, const Chunker::Measure& measure,
                                               int64_t ceiling);

// `items` reduced to one text. No items give the empty text and one item
// gives itself; neither measures nor combines, and records no level.
[[nodiscard]] Outcome reduce(std::vector<std::string> items, const Chunker::Measure& measure, int64_t ceiling,
                             const CombineBatch& combineBatch);

}  // namespace ostler::TreeReduce
