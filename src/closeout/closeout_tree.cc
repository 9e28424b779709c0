#include "closeout/closeout_tree.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

#include "platform/sha256.h"

namespace ostler::CloseoutTree {
namespace {

// The items a level is made from, as parallel lists: identities and
// summaries.
struct Items {
  std::vector<std::string> hashes;
  std::vector<std::string> summaries;

  [[nodiscard]] size_t size() const { return summaries.size(); }
};

// What every step of one build shares: the functions handed in, and the
// outcome whose counts and failure records the steps add to.
struct Work {
  const Chunker::Measure& measure;
  int64_t ceiling;
  const Combine& combine;
  BuildOutcome& out;
};

Items itemsOf(const Level& level) {
  Items items;
  items.hashes.reserve(level.nodes.size());
  items.summaries.reserve(level.nodes.size());
  for (const Node& node : level.nodes) {
    items.hashes.push_back(node.contentHash);
    items.summaries.push_back(node.summary);
  }
  return items;
}

// Pairs two parallel lists onto the end of `items`; an unpaired tail of the
// longer list has nothing to pair with and is left out.
void appendPaired(Items& items, const std::vector<std::string>& hashes, const std::vector<std::string>& summaries) {
  const size_t n = std::min(hashes.size(), summaries.size());
  items.hashes.insert(items.hashes.end(), hashes.begin(), hashes.begin() + static_cast<std::ptrdiff_t>(n));
  items.summaries.insert(items.summaries.end(), summaries.begin(), summaries.begin() + static_cast<std::ptrdiff_t>(n));
}

// One node over the items [begin, end), the `position`th (from 1) of level
// `level` (from 1). A degraded combine is recorded, not fatal.
Node makeNode(Work& work, const Items& items, size_t begin, size_t end, int64_t level, size_t position) {
  const auto first = static_cast<std::ptrdiff_t>(begin), last = static_cast<std::ptrdiff_t>(end);
  Node node;
  node.childHashes.assign(items.hashes.begin() + first, items.hashes.begin() + last);
  const std::vector<std::string> summaries(items.summaries.begin() + first, items.summaries.begin() + last);
  ++work.out.reduceCalls;
  Combined combined = work.combine(summaries);
  node.summary = std::move(combined.summary);
  node.contentHash = hash(node.summary);
  node.degraded = combined.degradedKind.has_value();
  if (combined.degradedKind)
    work.out.reduceFailures.push_back(
        {level, static_cast<int64_t>(position), node.childHashes, *combined.degradedKind});
  return node;
}

// Nodes over the items [begin, items.size()), packed greedily, appended to
// `nodes` as level `level`.
void appendPacked(Work& work, const Items& items, size_t begin, int64_t level, std::vector<Node>& nodes) {
  const std::vector<std::string> rest(items.summaries.begin() + static_cast<std::ptrdiff_t>(begin),
                                      items.summaries.end());
  size_t at = begin;
  for (int64_t size : TreeReduce::packBatches(rest, work.measure, work.ceiling)) {
    nodes.push_back(makeNode(work, items, at, at + static_cast<size_t>(size), level, nodes.size() + 1));
    at += static_cast<size_t>(size);
  }
}

// The levels above `items` up to a single node, numbered from
// `levelOffset` + 1. Fewer than two items need none.
std::vector<Level> reduceUntilSingle(Work& work, Items items, int64_t levelOffset) {
  std::vector<Level> made;
  if (items.size() < 2) return made;
  for (;;) {
    std::vector<int64_t> sizes = TreeReduce::packBatches(items.summaries, work.measure, work.ceiling);
    work.out.levelShapes.push_back({static_cast<int64_t>(items.size()), sizes});
    const int64_t number = levelOffset + static_cast<int64_t>(made.size()) + 1;
    Level level;
    if (sizes.size() == items.size()) {
      // No batch holds two items, so packing cannot make progress: all of
      // them at once, whatever the ceiling.
      level.nodes.push_back(makeNode(work, items, 0, items.size(), number, 1));
      made.push_back(std::move(level));
      return made;
    }
    size_t at = 0;
    for (int64_t size : sizes) {
      level.nodes.push_back(makeNode(work, items, at, at + static_cast<size_t>(size), number, level.nodes.size() + 1));
      at += static_cast<size_t>(size);
    }
    items = itemsOf(level);
    made.push_back(std::move(level));
    if (made.back().nodes.size() == 1) return made;
  }
}

Combine neverDegrading(const CombineBatch& combineBatch) {
  return [&combineBatch](const std::vector<std::string>& summaries) {
    return Combined{combineBatch(summaries), std::nullopt};
  };
}

}  // namespace

const Node* Tree::rootNode() const {
  if (levels.empty() || levels.back().nodes.empty()) return nullptr;
  return &levels.back().nodes.front();
}

std::string hash(std::string_view text) { return sha256Hex(text); }

BuildOutcome build(const std::vector<std::string>& leafHashes, const std::vector<std::string>& leafSummaries,
                   const Chunker::Measure& measure, int64_t ceiling, const CombineBatch& combineBatch) {
  const Combine combine = neverDegrading(combineBatch);
  BuildOutcome out;
  Work work{measure, ceiling, combine, out};
  Items leaves;
  appendPaired(leaves, leafHashes, leafSummaries);
  out.tree.levels = reduceUntilSingle(work, std::move(leaves), 0);
  return out;
}

BuildOutcome appendLeaves(const Tree& to, const std::vector<std::string>& existingLeafHashes,
                          const std::vector<std::string>& existingLeafSummaries,
                          const std::vector<std::string>& newLeafHashes,
                          const std::vector<std::string>& newLeafSummaries, const Chunker::Measure& measure,
                          int64_t ceiling, const CombineBatch& combineBatch) {
  return appendLeavesTrackingDegradation(to, existingLeafHashes, existingLeafSummaries, newLeafHashes, newLeafSummaries,
                                         measure, ceiling, neverDegrading(combineBatch));
}

BuildOutcome appendLeavesTrackingDegradation(const Tree& to, const std::vector<std::string>& existingLeafHashes,
                                             const std::vector<std::string>& existingLeafSummaries,
                                             const std::vector<std::string>& newLeafHashes,
                                             const std::vector<std::string>& newLeafSummaries,
                                             const Chunker::Measure& measure, int64_t ceiling, const Combine& combine) {
  BuildOutcome out;
  out.tree = to;
  if (std::min(newLeafHashes.size(), newLeafSummaries.size()) == 0) return out;
  Work work{measure, ceiling, combine, out};
  Items items;
  appendPaired(items, existingLeafHashes, existingLeafSummaries);
  appendPaired(items, newLeafHashes, newLeafSummaries);
  std::vector<Level>& levels = out.tree.levels;
  if (levels.empty()) {
    levels = reduceUntilSingle(work, std::move(items), 0);
    return out;
  }

  // Up the right edge. `changed` says the open node below was rebuilt, so
  // this level's open node holds a stale summary of it and is rebuilt too.
  bool changed = false;
  for (size_t index = 0; index < levels.size(); ++index) {
    std::vector<Node>& nodes = levels[index].nodes;
    if (nodes.empty()) break;
    const int64_t number = static_cast<int64_t>(index) + 1;
    size_t covered = 0;
    for (const Node& node : nodes) covered += node.childHashes.size();
    // A tree that claims more items than it is given has nothing to take in.
    covered = std::min(covered, items.size());

    Node open = std::move(nodes.back());
    nodes.pop_back();
    const size_t openBegin = covered - std::min(open.childHashes.size(), covered);
    size_t taken = 0;
    if (covered < items.size()) {
      int64_t total = 0;
      for (size_t i = openBegin; i < covered; ++i) total += measure(items.summaries[i]);
      for (; covered + taken < items.size(); ++taken) {
        const int64_t tokens = measure(items.summaries[covered + taken]);
        if (total + tokens > ceiling) break;
        total += tokens;
      }
    }
    const bool rebuilt = taken > 0 || changed;
    if (rebuilt) {
      nodes.push_back(makeNode(work, items, openBegin, covered + taken, number, nodes.size() + 1));
    } else {
      nodes.push_back(std::move(open));  // as it was, degraded mark and all, with no model call
    }
    const bool added = covered + taken < items.size();
    if (added) appendPacked(work, items, covered + taken, number, nodes);
    if (!added && !rebuilt) break;  // nothing above can differ
    changed = rebuilt;
    items = itemsOf(levels[index]);
  }

  if (levels.back().nodes.size() >= 2) {
    std::vector<Level> above = reduceUntilSingle(work, itemsOf(levels.back()), static_cast<int64_t>(levels.size()));
    levels.insert(levels.end(), std::make_move_iterator(above.begin()), std::make_move_iterator(above.end()));
  }
  return out;
}

}  // namespace ostler::CloseoutTree
