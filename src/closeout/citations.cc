#include "closeout/citations.h"

#include "closeout/path_canon.h"
#include "transcript/text.h"

namespace ostler::Citations {
namespace {

void addTrimmed(std::string_view line, std::vector<std::string>& out) {
  line = text::trimSpacesAndTabs(line);
  if (!line.empty()) out.emplace_back(line);
}

}  // namespace

std::vector<std::string> of(const CloseoutDocument& document) {
  std::vector<std::string> citations;
  if (auto files = CloseoutDocument::section("FILES TOUCHED", document.handoff)) {
    std::string_view rest = *files;
    for (;;) {
      const size_t end = rest.find('\n');
      addTrimmed(rest.substr(0, end), citations);
      if (end == std::string_view::npos) break;
      rest.remove_prefix(end + 1);
    }
  }
  for (const DocUpdate& update : document.doc_updates) addTrimmed(update.path, citations);
  return citations;
}

Probe probe(std::string_view citation, std::string_view root, std::string_view home, FileExistence& fm) {
  Probe p;
  if (auto canonical = PathCanon::canonicalize(citation, root, home)) {
    ++p.attempts;
    if (fm.exists(*canonical)) {
      p.foundDirectly = true;
      return p;
    }
  }
  std::string_view bare = citation;
  while (bare.ends_with('/')) bare.remove_suffix(1);
  if (bare.size() != citation.size()) {
    if (auto canonical = PathCanon::canonicalize(bare, root, home)) {
      ++p.attempts;
      if (fm.isDirectory(*canonical)) {
        p.foundDirectly = true;
        return p;
      }
    }
  }
  // A line holding several paths, or a path inside prose.
  p.tokens = PathCanon::extractPathTokens(citation);
  for (const std::string& token : p.tokens) {
    ++p.attempts;
    auto canonical = PathCanon::canonicalize(PathCanon::tildeReattached(token, citation), root, home);
    if (!canonical || !fm.exists(*canonical)) p.missingTokens.push_back({token, std::move(canonical)});
  }
  return p;
}

}  // namespace ostler::Citations
