// The deterministic checks that decide whether a handoff may be trusted,
// whoever wrote it: C1, every cited path is on disk; C2, the files the end
// of the chat worked on most are named; C3, the four sections are there and
// have substance; C4, the handoff is neither a stub, a flood nor repetitive
// filler. They are floors on shape and recall, not a judgment of quality,
// and use no model: they read the handoff, the parsed transcript and the
// metadata of cited paths. Checks cannot fail: bad input gives a failed or
// void result.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "closeout/closeout_document.h"
#include "closeout/file_existence.h"
#include "closeout/grounding.h"
#include "closeout/transcript_model.h"
#include "platform/result.h"

namespace ostler::Checks {

struct CheckResult {
  std::string name;  // "C1", "C2", "C3" or "C4"
  bool pass = false;
  std::string detail;   // what was found, for a person
  bool isVoid = false;  // JSON "void": nothing to measure; neither a pass nor a fail

  friend bool operator==(const CheckResult&, const CheckResult&) = default;
};

inline constexpr std::string_view kDisclosure =
    "pass rates are floors on shape and recall, necessary not sufficient; qualitative sampling is X4's job";

struct Verdict {
  CheckResult c1, c2, c3, c4;
  bool overallPass = false;  // JSON "overall_pass"
  std::string disclosure{kDisclosure};
  std::optional<Grounding::Result> grounding;  // reported, never part of overallPass

  friend bool operator==(const Verdict&, const Verdict&) = default;

  // JSON with sorted keys, pretty-printed when `pretty` is true; "void" is
  // always written.
  [[nodiscard]] ostler::Result<std::string> encodedJSON(bool pretty) const;
  // Fails on bytes that are not a verdict; an absent "void" reads as false.
  [[nodiscard]] static ostler::Result<Verdict> decode(std::string_view bytes);
};

// The figures the pipeline grades with.
inline constexpr int64_t kCoverageTop = 5;
inline constexpr int64_t kSectionWordFloor = 25;
inline constexpr int64_t kMinWords = 200;
inline constexpr int64_t kMaxWords = 2000;
inline constexpr double kMinDistinctRatio = 0.3;

// C1: every citation (FILES TOUCHED lines, then doc update paths) is on
// disk, as a file, as a folder written with its slash, or token by token.
[[nodiscard]] CheckResult c1PathExistence(const CloseoutDocument& document, std::string_view root,
                                          std::string_view home, FileExistence& fm);

// C2: of the `top` files edited most in the transcript's final third, at
// least `threshold` (by default the smaller of 3 and the number whose path
// resolves) are named anywhere in the handoff. Void when the final third
// edits nothing.
[[nodiscard]] CheckResult c2Coverage(const CloseoutDocument& document, std::span<const TranscriptLine> transcriptLines,
                                     std::string_view root, std::string_view home, std::optional<int64_t> threshold,
                                     int64_t top);

// C3: STATE, DECISIONS and NEXT each hold at least 25 words; FILES TOUCHED
// is there, not empty, with a line that resolves to a path.
[[nodiscard]] CheckResult c3Schema(const CloseoutDocument& document, std::string_view root, std::string_view home);

// C4: the handoff has `min` to `max` words, both included, and a distinct
// word ratio of at least `minDistinctRatio`.
[[nodiscard]] CheckResult c4Bounds(const CloseoutDocument& document, int64_t min, int64_t max, double minDistinctRatio);

// Distinct words over words, after lower-casing; 0 for text without words.
[[nodiscard]] double distinctWordRatio(std::string_view text);

// Whether every result that is not void passes; false when all are void.
[[nodiscard]] bool overallPass(std::span<const CheckResult> results);

// C1, C2 (top 5), C3 and C4 (200 to 2,000 words, ratio 0.3), their overall
// pass, and grounding beside them.
[[nodiscard]] Verdict grade(const CloseoutDocument& document, std::string_view root, std::string_view home,
                            std::span<const TranscriptLine> transcriptLines, std::optional<int64_t> c2Threshold,
                            FileExistence& fm);

}  // namespace ostler::Checks
