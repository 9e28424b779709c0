// The tree that folds a chat's piece summaries into one root summary, kept
// level by level in the closeout store so that a growing transcript extends
// it with a few model calls instead of rebuilding it. The leaves are the
// store's chunks and are not in the tree; level 0 is the level directly
// above them, and the root is the single node of the last level.
//
// Levels are packed as `TreeReduce` packs them: items in order, a batch
// closed before an item that would take its measured total above the
// ceiling. Growing only ever changes the last node of a level (the open
// node) and adds nodes after it; every earlier node is closed for good and
// stays byte for byte, which is what lets the store keep the tree at all.
//
// The model appears only as the functions handed in, called synchronously
// and one at a time, in order.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/chunker.h"
#include "closeout/closeout_failure_kind.h"
#include "closeout/tree_reduce.h"

namespace ostler {

// A tree node made without a proper combine: its summary stands in for the
// real one.
struct CloseoutReduceFailure {
  int64_t level = 0;       // 1 for the level directly above the leaves
  int64_t batchIndex = 0;  // the node's place in its level, from 1
  std::vector<std::string> childHashes;
  CloseoutFailureKind kind = CloseoutFailureKind::kOther;

  friend bool operator==(const CloseoutReduceFailure&, const CloseoutReduceFailure&) = default;
};

namespace CloseoutTree {

struct Node {
  // The identity of each child, in order: leaf identity hashes at level 0,
  // the children's `contentHash` above.
  std::vector<std::string> childHashes;
  std::string summary;      // the combined summary
  std::string contentHash;  // hash(summary), set when the node is made
  bool degraded = false;    // the summary is a fallback, not a proper combine

  friend bool operator==(const Node&, const Node&) = default;
};

struct Level {
  std::vector<Node> nodes;

  friend bool operator==(const Level&, const Level&) = default;
};

struct Tree {
  std::vector<Level> levels;  // from the level above the leaves up to the root

  // The first node of the last level; none without levels or when the last
  // level is empty.
  [[nodiscard]] const Node* rootNode() const;

  friend bool operator==(const Tree&, const Tree&) = default;
};

struct BuildOutcome {
  Tree tree;
  int64_t reduceCalls = 0;                            // combines made, one per node made or rebuilt
  std::vector<TreeReduce::LevelInfo> levelShapes;     // the packing of each level reduced afresh
  std::vector<CloseoutReduceFailure> reduceFailures;  // one per degraded node made or rebuilt
};

// What a combine gives: the summary, and the kind of failure when the
// summary is a fallback rather than a proper combine.
struct Combined {
  std::string summary;
  std::optional<CloseoutFailureKind> degradedKind;
};

using Combine = std::function<Combined(const std::vector<std::string>& summaries)>;
using CombineBatch = TreeReduce::CombineBatch;

// SHA-256 of the UTF-8 bytes of `text`, as 64 lowercase hexadecimal digits:
// the identity of a node's summary and of a piece's source text alike.
[[nodiscard]] std::string hash(std::string_view text);

// The tree above `leafSummaries` (identified by `leafHashes`, of the same
// length). Fewer than two leaves give no levels: one leaf is its own root.
// Every batch is combined, a batch of one item too: the combine decides
// whether that needs the model. A level on which no batch holds two items is
// combined whole in one call, whatever the ceiling, and is the last.
[[nodiscard]] BuildOutcome build(const std::vector<std::string>& leafHashes,
                                 const std::vector<std::string>& leafSummaries, const Chunker::Measure& measure,
                                 int64_t ceiling, const CombineBatch& combineBatch);

// `to` grown by the new leaves, which follow the existing ones. With no new
// leaves `to` comes back as it is, at no cost. Each level's open node takes
// in new items while its children's measured total stays within `ceiling`,
// and is then rebuilt, as is every open node above one that was rebuilt; the
// items left over form new nodes after it. When the top level ends with two
// or more nodes, new levels reduce them to one root. `levelShapes` holds
// only the levels so reduced afresh.
[[nodiscard]] BuildOutcome appendLeaves(const Tree& to, const std::vector<std::string>& existingLeafHashes,
                                        const std::vector<std::string>& existingLeafSummaries,
                                        const std::vector<std::string>& newLeafHashes,
                                        const std::vector<std::string>& newLeafSummaries,
                                        const Chunker::Measure& measure, int64_t ceiling,
                                        const CombineBatch& combineBatch);

// As `appendLeaves`, with a combine that may degrade: a degraded node is
// marked and recorded in `reduceFailures` with its level, its place and its
// children, and the tree goes on with its fallback summary.
[[nodiscard]] BuildOutcome appendLeavesTrackingDegradation(const Tree& to,
                                                           const std::vector<std::string>& existingLeafHashes,
                                                           const std::vector<std::string>& existingLeafSummaries,
                                                           const std::vector<std::string>& newLeafHashes,
                                                           const std::vector<std::string>& newLeafSummaries,
                                                           const Chunker::Measure& measure, int64_t ceiling,
                                                           const Combine& combine);

}  // namespace CloseoutTree
}  // namespace ostler
