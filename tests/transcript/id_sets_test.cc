#include "transcript/id_set.h"
#include "transcript/request_id_set.h"
#include "transcript/request_runs.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <unordered_set>
#include <vector>

namespace ostler {
namespace {

// Against the standard set, through many growths of the table: ids of every
// length, the empty one, near-identical ones; then kept in order of arrival.
TEST(RequestIdSetTest, AgreesWithAStandardSetAndKeepsTheOrderOfArrival) {
  std::mt19937_64 random(7);
  RequestIdSet set;
  std::unordered_set<std::string> expected;
  std::vector<std::string> arrivals;
  for (int i = 0; i < 20'000; ++i) {
    // Few distinct stems, so that repeats are common.
    std::string id = "req_" + std::to_string(random() % 9'000);
    if (i % 7 == 0) id += std::string(random() % 40, 'x');
    if (i % 1'000 == 0) id.clear();
    const bool fresh = expected.insert(id).second;
    ASSERT_EQ(set.insert(id), fresh) << id;
    if (fresh) arrivals.push_back(id);
    ASSERT_TRUE(set.contains(id));
  }
  EXPECT_EQ(set.size(), expected.size());
  EXPECT_TRUE(std::equal(set.begin(), set.end(), arrivals.begin(), arrivals.end()));
  EXPECT_FALSE(set.contains("req_9000"));
  EXPECT_FALSE(set.contains("req_1x"));

  // Moved, the views still read the same text; cleared, nothing is left.
  RequestIdSet moved = std::move(set);
  EXPECT_TRUE(std::equal(moved.begin(), moved.end(), arrivals.begin(), arrivals.end()));
  moved.clear();
  EXPECT_TRUE(moved.empty());
  EXPECT_FALSE(moved.contains(arrivals.front()));
  moved.reserve(100);
  EXPECT_TRUE(moved.insert(arrivals.front()));
  EXPECT_FALSE(moved.insert(arrivals.front()));
}

TEST(IdSetTest, CountsDistinctIdsThroughGrowth) {
  IdSet set;
  for (int i = 0; i < 50000; ++i) EXPECT_TRUE(set.insert("req_" + std::to_string(i)));
  for (int i = 0; i < 50000; i += 7) EXPECT_FALSE(set.insert("req_" + std::to_string(i)));
  EXPECT_EQ(set.size(), 50000u);
  EXPECT_TRUE(set.contains("req_49999"));
  EXPECT_FALSE(set.contains("req_50000"));
  EXPECT_FALSE(set.contains(""));
  EXPECT_TRUE(set.insert(""));
  EXPECT_TRUE(set.contains(""));
}

// Lines of two files, by request id, and what each starts: runs of one id
// are one request, an id counted in any earlier run is a repeat, and a line
// without an id stands alone and ends the run before it.
TEST(RequestRunsTest, ARunOfOneIdIsOneRequestAndAnIdCountedBeforeIsARepeat) {
  IdSet seen;
  const auto steps = [&seen](std::vector<std::string_view> ids) {
    std::optional<std::string> open;
    bool isRepeat = false;
    std::string out;
    for (std::string_view id : ids) {
      if (RequestRuns::continues(open, id)) {
        out += isRepeat ? 'r' : '.';
        continue;
      }
      switch (RequestRuns::start(open, isRepeat, id, seen)) {
        case RequestRuns::Start::kAlone: out += '0'; break;
        case RequestRuns::Start::kNew: out += 'N'; break;
        case RequestRuns::Start::kRepeat: out += 'R'; break;
      }
    }
    return out;
  };
  EXPECT_EQ(steps({"a", "a", "b", "", "", "b", "c", "c"}), "N.N00RN.");
  EXPECT_EQ(steps({"c", "c", "d", "a"}), "Rr" "NR");  // a second file: its copies of earlier requests are repeats
}

}  // namespace
}  // namespace ostler
