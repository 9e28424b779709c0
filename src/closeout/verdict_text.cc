#include "closeout/verdict_text.h"

#include <array>
#include <string_view>
#include <vector>

#include "closeout/code_points.h"
#include "closeout/word_split.h"

namespace ostler {
namespace {

constexpr size_t kNameColumn = 11;   // "GROUNDING" and two spaces
constexpr size_t kStatusColumn = 6;  // "pass", "fail" or "void" and two spaces

// Columns taken by `s`: one per code point.
size_t columns(std::string_view s) {
  size_t n = 0;
  for (size_t i = 0; i < s.size(); i += CodePoints::decodeAt(s, i).length) ++n;
  return n;
}

// The first `n` columns of `s`, and the rest.
std::pair<std::string_view, std::string_view> splitAtColumn(std::string_view s, size_t n) {
  size_t at = 0;
  for (size_t taken = 0; at < s.size() && taken < n; ++taken) at += CodePoints::decodeAt(s, at).length;
  return {s.substr(0, at), s.substr(at)};
}

// `detail` in lines of at most `width` columns, words kept whole where they
// fit; white space runs become single spaces.
std::vector<std::string> wrapped(std::string_view detail, size_t width) {
  std::vector<std::string> lines(1);
  for (std::string_view word : WordSplit::words(detail)) {
    for (;;) {
      std::string& line = lines.back();
      const size_t used = columns(line);
      const size_t need = columns(word) + (line.empty() ? 0 : 1);
      if (used + need <= width) {
        if (!line.empty()) line.push_back(' ');
        line.append(word);
        break;
      }
      if (!line.empty()) {
        lines.emplace_back();
        continue;
      }
      auto [head, tail] = splitAtColumn(word, width);
      line.append(head);
      lines.emplace_back();
      word = tail;
    }
  }
  if (lines.size() > 1 && lines.back().empty()) lines.pop_back();
  return lines;
}

void appendEntry(std::string& out, std::string_view name, std::string_view status, std::string_view detail,
                 size_t width) {
  const size_t indent = kNameColumn + kStatusColumn;
  const size_t room = width > indent + 10 ? width - indent : 10;
  std::string head(name);
  head.resize(kNameColumn, ' ');
  head.append(status);
  const std::vector<std::string> lines = wrapped(detail, room);
  if (lines.front().empty()) {
    out.append(head).append("\n");
    return;
  }
  head.resize(indent, ' ');
  for (size_t i = 0; i < lines.size(); ++i) {
    out.append(i == 0 ? head : std::string(indent, ' ')).append(lines[i]).append("\n");
  }
}

std::string_view statusOf(bool pass, bool isVoid) { return isVoid ? "void" : pass ? "pass" : "fail"; }

}  // namespace

std::string renderVerdictText(const Checks::Verdict& verdict, size_t width) {
  std::string out;
  for (const Checks::CheckResult* r : std::array{&verdict.c1, &verdict.c2, &verdict.c3, &verdict.c4})
    appendEntry(out, r->name, statusOf(r->pass, r->isVoid), r->detail, width);
  if (verdict.grounding) {
    const Grounding::Result& g = *verdict.grounding;
    appendEntry(out, g.name, statusOf(g.pass, g.isVoid), g.detail, width);
  }
  appendEntry(out, "overall", verdict.overallPass ? "pass" : "fail", "void checks and grounding are not counted",
              width);
  return out;
}

}  // namespace ostler
