#include "closeout/checks.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <unordered_set>

#include <fmt/format.h>

#include "closeout/citations.h"
#include "closeout/code_points.h"
#include "closeout/path_canon.h"
#include "closeout/transcript_reader.h"
#include "closeout/word_split.h"
#include "transcript/text.h"

namespace ostler::Checks {
namespace {

// The shortest decimal that reads back as `v`, with ".0" on a whole number:
// "0.3", "0.25", "1.0".
std::string shortestDecimal(double v) {
  std::string s = fmt::format("{}", v);
  if (s.find_first_of(".eEn") == std::string::npos) s += ".0";
  return s;
}

// The lines of `body`, trimmed of spaces and tabs, blank ones dropped.
std::vector<std::string_view> nonBlankLines(std::string_view body) {
  std::vector<std::string_view> lines;
  for (;;) {
    const size_t end = body.find('\n');
    const std::string_view line = text::trimSpacesAndTabs(body.substr(0, end));
    if (!line.empty()) lines.push_back(line);
    if (end == std::string_view::npos) break;
    body.remove_prefix(end + 1);
  }
  return lines;
}

}  // namespace

CheckResult c1PathExistence(const CloseoutDocument& document, std::string_view root, std::string_view home,
                            FileExistence& fm) {
  CheckResult r{"C1", false, "", false};
  const std::vector<std::string> citations = Citations::of(document);
  if (citations.empty()) {
    r.detail = "no paths named in handoff or doc_updates";
    return r;
  }
  int64_t attempts = 0;
  std::vector<std::string> missing;
  for (const std::string& citation : citations) {
    const Citations::Probe probe = Citations::probe(citation, root, home, fm);
    attempts += probe.attempts;
    if (probe.found()) continue;
    if (probe.tokens.empty()) {
      missing.push_back(citation + " (resolves to nothing: empty, '.', './', or a bare directory)");
      continue;
    }
    std::vector<std::string> tokens;
    for (const Citations::MissingToken& token : probe.missingTokens) tokens.push_back(token.raw);
    missing.push_back(citation + " (tokenized fallback missing: " + text::joined(tokens, ", ") + ")");
  }
  r.pass = missing.empty();
  r.detail = r.pass ? fmt::format("{} path(s) checked, all exist under root {}", attempts, root)
                    : "missing: " + text::joined(missing, "; ");
  return r;
}

CheckResult c2Coverage(const CloseoutDocument& document, std::span<const TranscriptLine> transcriptLines,
                       std::string_view root, std::string_view home, std::optional<int64_t> threshold, int64_t top) {
  CheckResult r{"C2", false, "", false};
  const std::vector<TranscriptReader::EditedFile> edited =
      TranscriptReader::topEditedFilesInFinalThird(transcriptLines, top);
  if (edited.empty()) {
    r.isVoid = true;
    r.detail =
        "void: no edited files found in final third of transcript (R3: excluded from pass-rate denominators, never "
        "a free pass or a fail)";
    return r;
  }
  struct Qualifying {
    const TranscriptReader::EditedFile* file;
    std::string canonical;
  };
  std::vector<Qualifying> qualifying;
  for (const auto& file : edited)
    if (auto canonical = PathCanon::canonicalize(file.path, root, home)) qualifying.push_back({&file, *canonical});
  if (qualifying.empty()) {
    r.detail = fmt::format("top edited files did not canonicalize against root {}", root);
    return r;
  }
  const int64_t q = static_cast<int64_t>(qualifying.size());
  const int64_t t = threshold.value_or(std::min<int64_t>(3, q));
  const std::set<std::string> named = PathCanon::canonicalTokenSet(document.handoff, root, home);
  std::vector<std::string> files, namedFiles;
  for (const Qualifying& f : qualifying) {
    files.push_back(fmt::format("{} ({})", f.file->path, f.file->count));
    if (named.contains(f.canonical)) namedFiles.push_back(f.file->path);
  }
  const int64_t n = static_cast<int64_t>(namedFiles.size());
  r.pass = n >= t;
  r.detail =
      fmt::format("top {} by edit count: {}; named in handoff: {}; {}/{} threshold (min(3, qualifying={}))", q,
                  text::joined(files, ", "), namedFiles.empty() ? "none" : text::joined(namedFiles, ", "), n, t, q);
  return r;
}

CheckResult c3Schema(const CloseoutDocument& document, std::string_view root, std::string_view home) {
  CheckResult r{"C3", false, "", false};
  std::vector<std::string> problems;
  for (std::string_view name : {"STATE", "DECISIONS", "NEXT"}) {
    const std::optional<std::string> body = CloseoutDocument::section(name, document.handoff);
    if (!body) {
      problems.push_back(fmt::format("missing: {}", name));
    } else if (body->empty()) {
      problems.push_back(fmt::format("empty: {}", name));
    } else if (const int64_t n = WordSplit::wordCount(*body); n < kSectionWordFloor) {
      problems.push_back(fmt::format("{} too short ({} words, floor {})", name, n, kSectionWordFloor));
    }
  }
  const std::optional<std::string> files = CloseoutDocument::section("FILES TOUCHED", document.handoff);
  if (!files) {
    problems.push_back("missing: FILES TOUCHED");
  } else if (files->empty()) {
    problems.push_back("empty: FILES TOUCHED");
  } else {
    const std::vector<std::string_view> lines = nonBlankLines(*files);
    const bool anyPath = std::any_of(lines.begin(), lines.end(), [&](std::string_view line) {
      return PathCanon::canonicalize(line, root, home).has_value();
    });
    if (!anyPath)
      problems.push_back("FILES TOUCHED has no valid path line (only empty/'.'/'./'/bare-directory entries)");
  }
  r.pass = problems.empty();
  r.detail = r.pass ? "all four sections present, floors met, FILES TOUCHED has a valid path line"
                    : text::joined(problems, "; ");
  return r;
}

double distinctWordRatio(std::string_view text) {
  const std::string lowered = CodePoints::lowercased(text);
  const std::vector<std::string_view> words = WordSplit::words(lowered);
  if (words.empty()) return 0;
  const std::unordered_set<std::string_view> distinct(words.begin(), words.end());
  return static_cast<double>(distinct.size()) / static_cast<double>(words.size());
}

CheckResult c4Bounds(const CloseoutDocument& document, int64_t min, int64_t max, double minDistinctRatio) {
  CheckResult r{"C4", false, "", false};
  const int64_t n = WordSplit::wordCount(document.handoff);
  const double ratio = distinctWordRatio(document.handoff);
  r.pass = n >= min && n <= max && ratio >= minDistinctRatio;
  // printf's rounding of the exact binary value, as every %.3f reads.
  std::array<char, 64> formatted{};
  std::snprintf(formatted.data(), formatted.size(), "%.3f", ratio);
  r.detail = fmt::format("{} words (bounds {}-{}); distinct-word ratio {} (floor {})", n, min, max, formatted.data(),
                         shortestDecimal(minDistinctRatio));
  return r;
}

bool overallPass(std::span<const CheckResult> results) {
  bool any = false;
  for (const CheckResult& r : results) {
    if (r.isVoid) continue;
    if (!r.pass) return false;
    any = true;
  }
  return any;
}

Verdict grade(const CloseoutDocument& document, std::string_view root, std::string_view home,
              std::span<const TranscriptLine> transcriptLines, std::optional<int64_t> c2Threshold, FileExistence& fm) {
  Verdict v;
  v.c1 = c1PathExistence(document, root, home, fm);
  v.c2 = c2Coverage(document, transcriptLines, root, home, c2Threshold, kCoverageTop);
  v.c3 = c3Schema(document, root, home);
  v.c4 = c4Bounds(document, kMinWords, kMaxWords, kMinDistinctRatio);
  const std::array<CheckResult, 4> results = {v.c1, v.c2, v.c3, v.c4};
  v.overallPass = overallPass(results);
  v.grounding = Grounding::evaluate(document, root, home, transcriptLines, fm);
  return v;
}

}  // namespace ostler::Checks
