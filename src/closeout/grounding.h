// Grounding: of each path a handoff cites that is not on disk, whether the
// transcript knows it. A file deleted since, or one on another machine, is
// innocent; a path nobody ever saw is a fabrication candidate. The result
// is reported beside the checks and never decides a verdict.
#pragma once

#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/closeout_document.h"
#include "closeout/file_existence.h"
#include "closeout/transcript_model.h"

namespace ostler::Grounding {

struct CitationVerdict {
  std::string citation;                  // the raw citation or token
  std::optional<std::string> canonical;  // its canonical form
  bool grounded = false;

  friend bool operator==(const CitationVerdict&, const CitationVerdict&) = default;
};

struct Result {
  std::string name = "GROUNDING";
  std::vector<CitationVerdict> citations;  // the gradeable missing citations, in order
  std::vector<std::string> unverifiable;   // raw forms of missing citations that cannot be graded
  bool pass = false;
  bool isVoid = false;  // JSON "void": nothing to grade
  std::string detail;

  friend bool operator==(const Result&, const Result&) = default;
};

struct FailingCitation {
  std::string raw;
  std::optional<std::string> canonical;

  friend bool operator==(const FailingCitation&, const FailingCitation&) = default;
};

// The citations that the path check finds missing. A citation without path
// tokens gives itself (with its canonical form, if any); one with tokens
// gives each token not on disk, with the canonical form of the token with
// its "~" reattached.
[[nodiscard]] std::vector<FailingCitation> failingCitations(const CloseoutDocument& document, std::string_view root,
                                                            std::string_view home, FileExistence& fm);

// The canonical paths that the tools themselves vouched for: the
// `input.file_path` of each "tool_use" (any tool, with an `id`; "" is an
// id) answered by a "tool_result" whose `is_error` is not true. Later
// blocks of one id overwrite earlier ones.
[[nodiscard]] std::set<std::string> machineCorroboratedPaths(std::span<const TranscriptLine> lines,
                                                             std::string_view root, std::string_view home);

// Whether `path` occurs in `text` as a whole: literally, case-sensitively,
// with no path character (letter, digit, "_", "-", "." or "/") right before
// or after it. Every occurrence is tried, overlapping ones included. False
// for an empty path or text.
[[nodiscard]] bool anchoredContains(std::string_view text, std::string_view path);

// The grounding of the document's missing citations in the transcript. Void
// when nothing is missing, or nothing missing can be graded (no canonical
// form, or no letter or digit).
[[nodiscard]] Result evaluate(const CloseoutDocument& document, std::string_view root, std::string_view home,
                              std::span<const TranscriptLine> transcriptLines, FileExistence& fm);

}  // namespace ostler::Grounding
