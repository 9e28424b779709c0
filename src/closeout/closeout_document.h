// The handoff, the one thing the closeout pipeline gives out: a Markdown text
// of four sections ("## STATE", "## DECISIONS", "## NEXT", "## FILES
// TOUCHED") that a fresh chat reads to carry on, with the documentation
// changes the model proposed and what it cost to make. The JSON keys of
// these records are their field names.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"

namespace ostler {

// A documentation change the model proposes; never applied to any
// repository. All fields are required.
struct DocUpdate {
  std::string path;       // repository-relative file the update would touch
  std::string rationale;  // one sentence
  std::string patch;      // the proposed text

  friend bool operator==(const DocUpdate&, const DocUpdate&) = default;
};

// What one run cost.
struct CostRecord {
  std::string tier;  // "tier1", or the cloud tier that produced the record
  int64_t input_tokens = 0;
  int64_t output_tokens = 0;
  std::optional<int64_t> cache_read_tokens;
  std::optional<int64_t> cache_write_tokens;
  std::optional<int64_t> cache_write_5m_tokens;
  std::optional<int64_t> cache_write_1h_tokens;
  double wall_seconds = 0;
  bool tokens_are_proxy = false;  // the token counts are estimates, not measurements
  std::optional<double> usd;      // absent for the on-device tier
  std::optional<std::string> model_id;
  std::optional<std::string> session_id;  // the session in which the run took place

  friend bool operator==(const CostRecord&, const CostRecord&) = default;
};

// The part of a document that a model writes; the JSON a cloud model must
// return.
struct ModelFacingOutput {
  std::string handoff;
  std::vector<DocUpdate> doc_updates;

  // Fails on bytes that are not such an object, or lack a field.
  [[nodiscard]] static Result<ModelFacingOutput> decode(std::string_view bytes);
};

struct CloseoutDocument {
  std::string handoff;
  std::vector<DocUpdate> doc_updates;
  std::optional<CostRecord> cost;
  std::optional<int64_t> degradation_count;  // degraded tree nodes; set on on-device documents
  std::optional<int64_t> map_failure_count;  // pieces that gave no summary; likewise

  friend bool operator==(const CloseoutDocument&, const CloseoutDocument&) = default;

  // The section names, as written after "## ".
  static constexpr std::array<std::string_view, 4> kRequiredSections = {"STATE", "DECISIONS", "NEXT", "FILES TOUCHED"};

  // The four bodies, each trimmed of white space and line ends, under their
  // headings, sections parted by an empty line.
  [[nodiscard]] static std::string renderHandoff(std::string_view state, std::string_view decisions,
                                                 std::string_view next, std::string_view filesTouched);

  // The body of section `name` in `handoff`: the lines after the first line
  // that reads "## NAME" once spaces and tabs are trimmed, up to the next
  // line that begins with "## " as written, trimmed of white space and line
  // ends. Lines end at line feeds only (a carriage return stays on its line,
  // so a CR LF handoff has no headings). Nothing without the heading; the
  // empty text for an empty section.
  [[nodiscard]] static std::optional<std::string> section(std::string_view name, std::string_view handoff);

  // The model's output with the figures of how it was made.
  [[nodiscard]] static CloseoutDocument assemble(ModelFacingOutput modelOutput, std::optional<CostRecord> cost,
                                                 std::optional<int64_t> degradation_count,
                                                 std::optional<int64_t> map_failure_count);

  // JSON with sorted keys, pretty-printed when `pretty` is true; absent
  // fields are left out. Fails when a figure has no JSON form (not finite).
  [[nodiscard]] Result<std::string> encodedJSON(bool pretty) const;

  // Fails on bytes that are not JSON, lack a required field, or hold a
  // field of the wrong type. Unknown keys are ignored; null is absent.
  [[nodiscard]] static Result<CloseoutDocument> decode(std::string_view bytes);
};

// The documentation updates held in `bytes`: a JSON array of updates, or a
// whole document, whose `doc_updates` are taken. Fails on anything else.
[[nodiscard]] Result<std::vector<DocUpdate>> decodeDocUpdates(std::string_view bytes);

}  // namespace ostler
