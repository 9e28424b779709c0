#include "closeout/grounding.h"

#include <map>

#include "closeout/citations.h"
#include "closeout/code_points.h"
#include "closeout/path_canon.h"
#include "closeout/transcript_reader.h"
#include "transcript/text.h"

namespace ostler::Grounding {

std::vector<FailingCitation> failingCitations(const CloseoutDocument& document, std::string_view root,
                                              std::string_view home, FileExistence& fm) {
  std::vector<FailingCitation> failing;
  for (const std::string& citation : Citations::of(document)) {
    Citations::Probe probe = Citations::probe(citation, root, home, fm);
    if (probe.foundDirectly) continue;
    if (probe.tokens.empty()) {
      failing.push_back({citation, PathCanon::canonicalize(citation, root, home)});
      continue;
    }
    for (Citations::MissingToken& token : probe.missingTokens)
      failing.push_back({std::move(token.raw), std::move(token.canonical)});
  }
  return failing;
}

std::set<std::string> machineCorroboratedPaths(std::span<const TranscriptLine> lines, std::string_view root,
                                               std::string_view home) {
  std::map<std::string, std::string> pathById;
  std::map<std::string, bool> failedById;
  for (const TranscriptLine& line : lines) {
    if (!line.message || !line.message->content) continue;
    const TranscriptContent& content = *line.message->content;
    for (const TranscriptContentBlock* block : content.toolUseBlocks())
      if (block->id && block->input && block->input->filePath && !block->input->filePath->empty())
        pathById[*block->id] = *block->input->filePath;
    for (const TranscriptContentBlock* block : content.toolResultBlocks())
      if (block->toolUseId) failedById[*block->toolUseId] = block->isError == true;
  }
  std::set<std::string> paths;
  for (const auto& [id, path] : pathById) {
    auto result = failedById.find(id);
    if (result == failedById.end() || result->second) continue;
    if (auto canonical = PathCanon::canonicalize(path, root, home)) paths.insert(std::move(*canonical));
  }
  return paths;
}

bool anchoredContains(std::string_view text, std::string_view path) {
  if (path.empty() || text.empty()) return false;
  for (size_t at = text.find(path); at != std::string_view::npos;) {
    const size_t end = at + path.size();
    const bool openBefore =
        at == 0 || !CodePoints::isPathCharacter(CodePoints::decodeAt(text, CodePoints::previousStart(text, at)).value);
    const bool openAfter = end == text.size() || !CodePoints::isPathCharacter(CodePoints::decodeAt(text, end).value);
    if (openBefore && openAfter) return true;
    // The next search starts one code point after this hit's start.
    at = text.find(path, at + CodePoints::decodeAt(text, at).length);
  }
  return false;
}

Result evaluate(const CloseoutDocument& document, std::string_view root, std::string_view home,
                std::span<const TranscriptLine> transcriptLines, FileExistence& fm) {
  Result result;
  const std::vector<FailingCitation> failing = failingCitations(document, root, home, fm);
  if (failing.empty()) {
    result.isVoid = true;
    result.detail = "void: C1 found no missing citations, nothing to ground";
    return result;
  }
  std::vector<const FailingCitation*> gradeable;
  for (const FailingCitation& f : failing) {
    if (!f.canonical || !CodePoints::containsLetterOrDigit(f.raw))
      result.unverifiable.push_back(f.raw);
    else
      gradeable.push_back(&f);
  }
  if (gradeable.empty()) {
    result.isVoid = true;
    result.detail = "void: every missing citation (" + std::to_string(result.unverifiable.size()) +
                    ") was unverifiable, nothing gradeable to ground: " + text::joined(result.unverifiable, "; ");
    return result;
  }

  const std::string text = TranscriptReader::groundingText(transcriptLines);
  const std::set<std::string> corroborated = machineCorroboratedPaths(transcriptLines, root, home);
  std::vector<std::string> ungrounded;
  for (const FailingCitation* f : gradeable) {
    const bool grounded = anchoredContains(text, *f->canonical) ||
                          (f->raw.find('/') != std::string::npos && anchoredContains(text, f->raw)) ||
                          corroborated.contains(*f->canonical);
    result.citations.push_back({f->raw, f->canonical, grounded});
    if (!grounded) ungrounded.push_back(f->raw);
  }
  const size_t g = gradeable.size();
  if (ungrounded.empty())
    result.detail = std::to_string(g) + " missing citation(s), all grounded in transcript content";
  else
    result.detail = std::to_string(ungrounded.size()) + "/" + std::to_string(g) +
                    " missing citation(s) UNGROUNDED (fabrication candidate): " + text::joined(ungrounded, "; ");
  if (!result.unverifiable.empty())
    result.detail += "; " + std::to_string(result.unverifiable.size()) +
                     " unverifiable citation(s) excluded from the rate: " + text::joined(result.unverifiable, "; ");
  result.pass = ungrounded.empty();
  return result;
}

}  // namespace ostler::Grounding
