// The summary tree: how leaves pack into levels, how appended leaves grow
// the right edge without touching closed nodes, and how degraded combines
// are marked and recorded.
#include "closeout/closeout_tree.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ostler {
namespace {

using CloseoutTree::BuildOutcome;
using CloseoutTree::Combined;
using CloseoutTree::Tree;

// A text measures its length; with a ceiling of 10, two four-letter leaves
// share a batch and a third does not fit beside them.
constexpr int64_t kCeiling = 10;
int64_t length(std::string_view text) { return static_cast<int64_t>(text.size()); }

// A combine in the manner of the pipeline's: one summary passes through
// without the model, several are joined as "(a+b)". A summary holding "bad"
// makes the model fail, and the joined text stands in as a refusal.
struct FakeModel {
  std::vector<std::vector<std::string>> calls;  // every request that reached the model

  Combined operator()(const std::vector<std::string>& summaries) {
    if (summaries.size() < 2) return {summaries.empty() ? "" : summaries.front(), std::nullopt};
    calls.push_back(summaries);
    std::string joined;
    bool bad = false;
    for (const std::string& s : summaries) {
      joined += (joined.empty() ? "(" : "+") + s;
      bad = bad || s.find("bad") != std::string::npos;
    }
    joined += ")";
    if (bad) return {joined, CloseoutFailureKind::kRefusal};
    return {joined, std::nullopt};
  }
};

std::vector<std::string> hashes(const std::vector<std::string>& summaries) {
  std::vector<std::string> out;
  for (const std::string& s : summaries) out.push_back("leaf:" + s);
  return out;
}

BuildOutcome grow(const Tree& tree, const std::vector<std::string>& existing, const std::vector<std::string>& added,
                  FakeModel& model) {
  return CloseoutTree::appendLeavesTrackingDegradation(
      tree, hashes(existing), existing, hashes(added), added, length, kCeiling,
      [&model](const std::vector<std::string>& s) { return model(s); });
}

const std::vector<std::string> kThree = {"aaaa", "bbbb", "cccc"};

TEST(CloseoutTreeTest, ThirdLeafThatDoesNotFitGetsItsOwnNodeAndARootAbove) {
  FakeModel model;
  BuildOutcome built = CloseoutTree::build(hashes(kThree), kThree, length, kCeiling,
                                           [&model](const std::vector<std::string>& s) { return model(s).summary; });
  ASSERT_EQ(built.tree.levels.size(), 2u);
  const auto& bottom = built.tree.levels[0].nodes;
  ASSERT_EQ(bottom.size(), 2u);
  EXPECT_EQ(bottom[0].childHashes, (std::vector<std::string>{"leaf:aaaa", "leaf:bbbb"}));
  EXPECT_EQ(bottom[0].summary, "(aaaa+bbbb)");
  EXPECT_EQ(bottom[1].childHashes, (std::vector<std::string>{"leaf:cccc"}));
  EXPECT_EQ(bottom[1].summary, "cccc");
  // 11 and 4 tokens cannot share a batch: the level is combined whole.
  const CloseoutTree::Node* root = built.tree.rootNode();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->summary, "((aaaa+bbbb)+cccc)");
  EXPECT_EQ(root->childHashes, (std::vector<std::string>{bottom[0].contentHash, bottom[1].contentHash}));
  EXPECT_EQ(root->contentHash, CloseoutTree::hash(root->summary));
  EXPECT_EQ(built.reduceCalls, 3);    // the single leaf's batch is combined too...
  EXPECT_EQ(model.calls.size(), 2u);  // ...without reaching the model
  EXPECT_EQ(built.levelShapes, (std::vector<TreeReduce::LevelInfo>{{3, {2, 1}}, {2, {1, 1}}}));
  EXPECT_TRUE(built.reduceFailures.empty());

  // One leaf is its own root: no levels and no calls.
  BuildOutcome one = CloseoutTree::build({"leaf:a"}, {"a"}, length, kCeiling,
                                         [&model](const std::vector<std::string>& s) { return model(s).summary; });
  EXPECT_TRUE(one.tree.levels.empty());
  EXPECT_EQ(one.tree.rootNode(), nullptr);
  EXPECT_EQ(one.reduceCalls, 0);
}

TEST(CloseoutTreeTest, AppendingNothingOrToAnEmptyTree) {
  FakeModel model;
  const Tree tree = grow({}, {}, kThree, model).tree;
  model.calls.clear();

  int64_t measured = 0;
  BuildOutcome same = CloseoutTree::appendLeaves(
      tree, hashes(kThree), kThree, {}, {},
      [&measured](std::string_view t) {
        ++measured;
        return length(t);
      },
      kCeiling, [&model](const std::vector<std::string>& s) { return model(s).summary; });
  EXPECT_EQ(same.tree, tree);
  EXPECT_EQ(same.reduceCalls, 0);
  EXPECT_EQ(measured, 0);
  EXPECT_TRUE(model.calls.empty());

  // An empty tree grown by leaves is the tree built from them.
  FakeModel other;
  EXPECT_EQ(tree, CloseoutTree::build(hashes(kThree), kThree, length, kCeiling, [&other](const auto& s) {
                    return other(s).summary;
                  }).tree);
}

TEST(CloseoutTreeTest, LeafThatFitsTheOpenNodeRebuildsEachOpenNodeAbove) {
  FakeModel model;
  const Tree before = grow({}, {}, kThree, model).tree;
  model.calls.clear();

  BuildOutcome after = grow(before, kThree, {"dd"}, model);
  ASSERT_EQ(after.tree.levels.size(), 2u);
  EXPECT_EQ(after.tree.levels[0].nodes.size(), 2u);
  EXPECT_EQ(after.tree.levels[0].nodes[0], before.levels[0].nodes[0]);  // closed, byte for byte
  EXPECT_EQ(after.tree.levels[0].nodes[1].summary, "(cccc+dd)");
  EXPECT_EQ(after.tree.levels[0].nodes[1].childHashes, (std::vector<std::string>{"leaf:cccc", "leaf:dd"}));
  EXPECT_EQ(after.tree.rootNode()->summary, "((aaaa+bbbb)+(cccc+dd))");
  // Two combines, one per level of the right edge; the closed pair was never
  // asked for again.
  EXPECT_EQ(after.reduceCalls, 2);
  EXPECT_EQ(model.calls, (std::vector<std::vector<std::string>>{{"cccc", "dd"}, {"(aaaa+bbbb)", "(cccc+dd)"}}));
  EXPECT_TRUE(after.levelShapes.empty());
}

TEST(CloseoutTreeTest, LeafThatDoesNotFitStartsANodeThatFlowsUp) {
  FakeModel model;
  const Tree before = grow({}, {}, kThree, model).tree;
  model.calls.clear();

  BuildOutcome after = grow(before, kThree, {"dddddddd"}, model);
  ASSERT_EQ(after.tree.levels.size(), 3u);
  // Level 0 keeps its nodes and gains one; the old root is closed and stays
  // as it was, beside the new leaf's node; a new root stands above both.
  ASSERT_EQ(after.tree.levels[0].nodes.size(), 3u);
  EXPECT_EQ(after.tree.levels[0].nodes[0], before.levels[0].nodes[0]);
  EXPECT_EQ(after.tree.levels[0].nodes[1], before.levels[0].nodes[1]);
  EXPECT_EQ(after.tree.levels[0].nodes[2].childHashes, (std::vector<std::string>{"leaf:dddddddd"}));
  ASSERT_EQ(after.tree.levels[1].nodes.size(), 2u);
  EXPECT_EQ(after.tree.levels[1].nodes[0], before.levels[1].nodes[0]);
  EXPECT_EQ(after.tree.levels[1].nodes[1].childHashes,
            (std::vector<std::string>{after.tree.levels[0].nodes[2].contentHash}));
  EXPECT_EQ(after.tree.rootNode()->summary, "(((aaaa+bbbb)+cccc)+dddddddd)");
  EXPECT_EQ(after.reduceCalls, 3);
  EXPECT_EQ(model.calls.size(), 1u);
  EXPECT_EQ(after.levelShapes, (std::vector<TreeReduce::LevelInfo>{{2, {1, 1}}}));
}

TEST(CloseoutTreeTest, DegradedNodesAreMarkedRecordedAndKeptUntilRebuilt) {
  FakeModel model;
  const std::vector<std::string> four = {"aaaa", "bbbb", "badx", "yyyy"};
  BuildOutcome built = grow({}, {}, four, model);
  ASSERT_EQ(built.tree.levels.size(), 2u);
  EXPECT_FALSE(built.tree.levels[0].nodes[0].degraded);
  EXPECT_TRUE(built.tree.levels[0].nodes[1].degraded);
  EXPECT_EQ(built.tree.levels[0].nodes[1].summary, "(badx+yyyy)");  // the fallback stands in
  EXPECT_TRUE(built.tree.rootNode()->degraded);
  ASSERT_EQ(built.reduceFailures.size(), 2u);
  EXPECT_EQ(built.reduceFailures[0],
            (CloseoutReduceFailure{1, 2, {"leaf:badx", "leaf:yyyy"}, CloseoutFailureKind::kRefusal}));
  EXPECT_EQ(built.reduceFailures[1].level, 2);
  EXPECT_EQ(built.reduceFailures[1].batchIndex, 1);

  // A leaf that fits rebuilds the degraded open node, which fails again and
  // is recorded again, at its level and place, with all its children.
  BuildOutcome rebuilt = grow(built.tree, four, {"bz"}, model);
  ASSERT_EQ(rebuilt.reduceFailures.size(), 2u);
  EXPECT_EQ(rebuilt.reduceFailures[0],
            (CloseoutReduceFailure{1, 2, {"leaf:badx", "leaf:yyyy", "leaf:bz"}, CloseoutFailureKind::kRefusal}));
  EXPECT_EQ(rebuilt.reduceFailures[1].level, 2);

  // One that does not fit leaves the degraded nodes as they were, mark and
  // all, and records nothing for them.
  BuildOutcome passed = grow(built.tree, four, {"zzzzzzzzz"}, model);
  EXPECT_EQ(passed.tree.levels[0].nodes[1], built.tree.levels[0].nodes[1]);
  EXPECT_EQ(passed.tree.levels[1].nodes[0], built.tree.levels[1].nodes[0]);
  ASSERT_EQ(passed.reduceFailures.size(), 1u);  // only the new root, above the degraded one
  EXPECT_EQ(passed.reduceFailures[0].level, 3);
}

}  // namespace
}  // namespace ostler
