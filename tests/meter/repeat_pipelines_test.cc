#include "meter/repeat_pipelines.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/transcript_tree.h"

namespace ostler {
namespace {

TEST(RepeatPipelinesTest, NormalizeMasksStringsThenPathsThenNumbersAsTheExpressionsDo) {
  struct Case {
    std::string command, normalized;
  };
  const std::vector<Case> cases = {
      {R"(grep "foo bar" /src/a.txt)", "grep <STR> <PATH>"},
      {R"(grep 'x' /srv/other/b.md)", "grep <STR> <PATH>"},  // differs only in a word and a path
      {R"(cat "/etc/passwd")", "cat <STR>"},                   // a quoted path is a string, whole
      {R"(echo "it's" 'say "hi"')", "echo <STR> <STR>"},
      {R"(echo "open /a/b)", R"(echo "open <PATH>)"},          // no closing quote: no string
      {"head -n 20 file", "head -n <NUM> file"},
      {"head -n 20x file", "head -n 20x file"},                 // the digits do not end on a boundary
      {"a1 2b x_1 1_x 3", "a1 2b x_1 1_x <NUM>"},
      {"v1.2.3", "v1.<NUM>.<NUM>"},
      {"tail -f log 2>&1", "tail -f log <NUM>>&<NUM>"},
      {"sleep 5;echo 10", "sleep <NUM>;echo <NUM>"},
      {"ls / //x", "ls / <PATH>"},                              // a slash alone is no path
      {R"(cd /tmp/x"y" z)", "cd <PATH> z"},                     // the mask of a string can sit in a path
      {"cp /a\t/b\n/c", "cp <PATH>\t<PATH>\n<PATH>"},
      {"", ""},
      // Beyond ASCII, \s, \b and \d take their Unicode meanings.
      {"cat /tmp/\xC3\xA9t\xC3\xA9 5", "cat <PATH> <NUM>"},
      {"echo \xD9\xA3", "echo <NUM>"},                          // an Arabic-Indic digit
      {"cat /a\xC2\xA0" "b 7", "cat <PATH>\xC2\xA0" "b <NUM>"},  // a no-break space ends the path
      {"x\xC3\xA9" "12 12", "x\xC3\xA9" "12 <NUM>"},            // a letter before the digits
  };
  for (const auto& c : cases) {
    EXPECT_EQ(normalizeBashCommand(c.command), c.normalized) << ::testing::PrintToString(c.command);
    EXPECT_EQ(normalizeBashCommandICU(c.command), c.normalized) << ::testing::PrintToString(c.command);
  }
  // The fast path agrees with the expressions on commands drawn from an
  // alphabet rich in what they look at: quotes, slashes, digits, word and
  // non-word characters, every ASCII space.
  const std::string alphabet = "\"'/aZ_09 5.-\t\v\f\r\n";
  std::mt19937 rng(7);
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1), length(0, 24);
  for (int i = 0; i < 30000; ++i) {
    std::string command;
    for (size_t n = length(rng); n > 0; --n) command.push_back(alphabet[pick(rng)]);
    ASSERT_EQ(normalizeBashCommand(command), normalizeBashCommandICU(command)) << ::testing::PrintToString(command);
  }
}

using namespace testing;
using testing::json;  // not ostler::json

const ReceiptCategory& repeatPipelines(const Receipt& r) { return r.mac_first.categories[1]; }

TEST(RepeatPipelinesTest, OccurrencesAreNumberedAlikeInBothPassesAndOnlyRunsInRangeCount) {
  const std::string opus = "claude-opus-4-5";
  Tree tree;
  tree.main("-home-dev-shop", "aaaaaaaa-1",
            {assistant("r1", opus, {.output = 1'000}, at(0),
                       json::array({bash("b0", "grep foo /src/a.txt"), toolUse("bx", "Bash", json::object())})),
             assistant("r2", opus, {.output = 2'000}, at(10),
                       json::array({bash("b1", "grep foo /src/b.txt"), bash("b2", "ls -la")}))});
  tree.subagent("-home-dev-shop", "aaaaaaaa-1", "agent-1",
                {assistant("r3", opus, {.output = 3'000}, at(20), json::array({bash("b3", "grep foo /src/c.txt")}))});
  tree.main("-home-dev-web", "bbbbbbbb-2",
            {assistant("r1", opus, {.output = 1'000}, at(30),  // a repeated request runs nothing
                       json::array({bash("b4", "make clean")})),
             assistant("r5", opus, {.output = 4'000}, at(40), json::array({bash("b5", "grep foo /src/d.txt")}))});
  // One run a day: the second and third qualify, unless the third is out of
  // range.
  std::vector<json> daily;
  for (int day = 1; day <= 3; ++day)
    daily.push_back(assistant("e" + std::to_string(day), opus, {.output = 1'000},
                              "2026-11-0" + std::to_string(day) + "T10:00:00Z",
                              json::array({bash("e" + std::to_string(day), "echo " + std::to_string(day))})));
  tree.main("-home-dev-web", "cccccccc-3", daily);
  const Receipt r = tree.run();
  // grep runs four times, so its second to fourth runs qualify; the turn
  // that also ran "ls -la" once splits its dollars with that template.
  const ReceiptCategory& r2 = repeatPipelines(r);
  const double out = 25.0 / 1e6;
  EXPECT_DOUBLE_EQ(r2.usd, roundUSD((2'000 + 3'000 + 4'000 + 2'000) * out));
  EXPECT_EQ(r2.sessions_distinct, 3);
  EXPECT_EQ(r2.detail_lines,
            (std::vector<ReceiptDetailLine>{
                {"template " + stableHash("grep foo <PATH>").substr(0, 8) + " (4x)", 0.2, std::nullopt},
                {"template " + stableHash("echo <NUM>").substr(0, 8) + " (3x)", 0.05, std::nullopt},
                {"template " + stableHash("ls -la").substr(0, 8) + " (0x)", 0.025, std::nullopt}}));
  MeterOptions o = tree.options();
  o.until = "2026-11-02";  // two echo runs in range qualify nothing
  EXPECT_DOUBLE_EQ(repeatPipelines(tree.run(o)).usd, roundUSD((2'000 + 3'000 + 4'000) * out));
}

}  // namespace
}  // namespace ostler
