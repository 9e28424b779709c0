#include "closeout/closeout_document.h"

#include "transcript/text.h"

namespace ostler {

std::string CloseoutDocument::renderHandoff(std::string_view state, std::string_view decisions, std::string_view next,
                                            std::string_view filesTouched) {
  std::string out;
  const std::array<std::string_view, 4> bodies = {state, decisions, next, filesTouched};
  for (size_t i = 0; i < bodies.size(); ++i) {
    if (i > 0) out.append("\n\n");
    out.append("## ").append(kRequiredSections[i]).append("\n");
    out.append(text::trimWhitespaceAndNewlines(bodies[i]));
  }
  return out;
}

std::optional<std::string> CloseoutDocument::section(std::string_view name, std::string_view handoff) {
  std::vector<std::string_view> lines;
  for (size_t begin = 0;;) {
    const size_t end = handoff.find('\n', begin);
    lines.push_back(handoff.substr(begin, end == std::string_view::npos ? std::string_view::npos : end - begin));
    if (end == std::string_view::npos) break;
    begin = end + 1;
  }
  const std::string heading = "## " + std::string(name);
  size_t at = 0;
  while (at < lines.size() && text::trimSpacesAndTabs(lines[at]) != heading) ++at;
  if (at == lines.size()) return std::nullopt;
  std::string body;
  for (size_t i = at + 1; i < lines.size() && !lines[i].starts_with("## "); ++i) {
    if (i > at + 1) body.push_back('\n');
    body.append(lines[i]);
  }
  return std::string(text::trimWhitespaceAndNewlines(body));
}

CloseoutDocument CloseoutDocument::assemble(ModelFacingOutput modelOutput, std::optional<CostRecord> cost,
                                            std::optional<int64_t> degradation_count,
                                            std::optional<int64_t> map_failure_count) {
  return {std::move(modelOutput.handoff), std::move(modelOutput.doc_updates), std::move(cost), degradation_count,
          map_failure_count};
}

}  // namespace ostler
