// `ostler check`, run as a user runs it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "closeout/closeout_document.h"
#include "closeout/code_points.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using testing::Outcome;
using testing::quoted;
using testing::runOstler;
using testing::TempDir;

std::string words(int n, int from) {
  std::string out;
  for (int i = from; i < from + n; ++i) {
    if (i > from) out += ' ';
    out.append("w").append(std::to_string(i));
  }
  return out;
}

// A project with two files, a home with one, a transcript editing both
// project files at its end, and a handoff naming them.
class Fixture {
 public:
  Fixture() {
    testing::writeFile(dir.path() / "root" / "src" / "a.txt", "a");
    testing::writeFile(dir.path() / "root" / "b.txt", "b");
    testing::writeFile(dir.path() / "home" / "notes.md", "n");
    testing::writeFile(transcript(), testing::jsonl({
        R"({"type":"user","message":{"content":"go"}})",
        R"({"type":"assistant","message":{"content":"ok"}})",
        R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"1","name":"Edit","input":{"file_path":"src/a.txt"}},)"
        R"({"type":"tool_use","id":"2","name":"Write","input":{"file_path":"b.txt"}}]}})"}));
    writeHandoff("- src/a.txt (1 edit)\n- b.txt\n- ~/notes.md");
  }
  void writeHandoff(const std::string& files) {
    testing::writeFile(handoff(), CloseoutDocument::renderHandoff(words(80, 0), words(80, 100), words(80, 200), files));
  }
  std::string transcript() const { return (dir.path() / "t.jsonl").string(); }
  std::string handoff() const { return (dir.path() / "h.md").string(); }
  std::string root() const { return (dir.path() / "root").string(); }
  std::string args() const {
    return "check --handoff " + quoted(handoff()) + " --transcript " + quoted(transcript()) + " --root " +
           quoted(root());
  }
  std::string home() const { return "HOME=" + quoted((dir.path() / "home").string()); }

  TempDir dir;
};

TEST(CheckCommandTest, UsageErrorsAndUnreadableInputsSayOneLineAndExit2) {
  Fixture f;
  testing::writeFile(f.dir.path() / "bad.jsonl", "{\"type\":\"\xC3\x28\"}\n");
  testing::writeFile(f.dir.path() / "updates.json", "{not json");
  const std::vector<std::string> cases = {
      "check",
      "check --handoff " + quoted(f.handoff()) + " --transcript " + quoted(f.transcript()),
      f.args() + " --c2-threshold many",
      f.args() + " --bogus",
      "check --handoff " + quoted(f.root() + "/missing.md") + " --transcript " + quoted(f.transcript()) +
          " --root " + quoted(f.root()),
      "check --handoff " + quoted(f.handoff()) + " --transcript " + quoted(f.dir.str() + "/bad.jsonl") + " --root " +
          quoted(f.root()),
      f.args() + " --doc-updates " + quoted(f.dir.str() + "/updates.json"),
      f.args() + " --doc-updates " + quoted(f.dir.str() + "/missing.json"),
  };
  for (const auto& args : cases) {
    const Outcome o = runOstler(args, f.home());
    EXPECT_EQ(o.status, 2) << args;
    EXPECT_TRUE(o.out.empty()) << args;
    const auto lines = testing::linesOf(o.err);
    ASSERT_EQ(lines.size(), 1u) << o.err;
    EXPECT_EQ(lines[0].rfind("ostler: ", 0), 0u) << o.err;
  }
}

TEST(CheckCommandTest, PrintsOneEntryPerCheckWithin80Columns) {
  Fixture f;
  const Outcome pass = runOstler(f.args(), f.home());
  EXPECT_EQ(pass.status, 0) << pass.out << pass.err;
  std::vector<std::string> names;
  for (const auto& line : testing::linesOf(pass.out)) {
    std::string_view view = line;
    size_t columns = 0;
    for (size_t i = 0; i < view.size(); i += CodePoints::decodeAt(view, i).length) ++columns;
    EXPECT_LE(columns, 80u) << line;
    if (line[0] != ' ') names.push_back(line.substr(0, line.find(' ')));
  }
  EXPECT_EQ(names, (std::vector<std::string>{"C1", "C2", "C3", "C4", "GROUNDING", "overall"}));
  EXPECT_NE(pass.out.find("C1         pass  3 path(s) checked, all exist under root"), std::string::npos) << pass.out;
  EXPECT_NE(pass.out.find("GROUNDING  void  void: C1 found no missing citations"), std::string::npos) << pass.out;

  // Without the home that holds notes.md, the "~" citation is missing.
  const Outcome fail = runOstler(f.args(), "HOME=/nonexistent");
  EXPECT_EQ(fail.status, 1);
  EXPECT_NE(fail.out.find("C1         fail  missing: - ~/notes.md"), std::string::npos) << fail.out;
  EXPECT_NE(fail.out.find("overall    fail"), std::string::npos);
}

// Both shapes of doc updates are read by the library; here the flags reach
// the checks: the update's path is cited, and the threshold replaces
// min(3, qualifying).
TEST(CheckCommandTest, JsonVerdictWritesEveryKeyAndTakesTheFlags) {
  Fixture f;
  testing::writeFile(
      f.dir.path() / "doc.json",
      R"({"handoff":"ignored","doc_updates":[{"path":"docs/invented.md","rationale":"r","patch":"p"}]})");
  const Outcome o =
      runOstler(f.args() + " --json --c2-threshold 3 --doc-updates " + quoted(f.dir.str() + "/doc.json"), f.home());
  EXPECT_EQ(o.status, 1);
  const auto v = nlohmann::json::parse(o.out, nullptr, false);
  ASSERT_TRUE(v.is_object()) << o.out;
  for (const char* check : {"c1", "c2", "c3", "c4"}) {
    ASSERT_TRUE(v.contains(check)) << check;
    for (const char* key : {"name", "pass", "detail", "void"}) EXPECT_TRUE(v[check].contains(key)) << check << key;
  }
  EXPECT_EQ(v["overall_pass"], false);
  EXPECT_EQ(v["c1"]["detail"], "missing: docs/invented.md (tokenized fallback missing: docs/invented.md)");
  EXPECT_EQ(v["c2"]["detail"],
            "top 2 by edit count: b.txt (1), src/a.txt (1); named in handoff: b.txt, src/a.txt; 2/3 threshold "
            "(min(3, qualifying=2))");
  EXPECT_EQ(v["grounding"]["citations"][0]["citation"], "docs/invented.md");
  EXPECT_EQ(v["grounding"]["void"], false);
  // Pretty-printed, keys sorted.
  EXPECT_LT(o.out.find("\"c1\""), o.out.find("\"disclosure\""));
  EXPECT_LT(o.out.find("\"grounding\""), o.out.find("\"overall_pass\""));
  EXPECT_NE(o.out.find("\n  \"c1\": {\n    \"detail\""), std::string::npos);
}

}  // namespace
}  // namespace ostler
