// A verdict as a person reads it on a terminal: one entry per check (name,
// "pass", "fail" or "void", and the detail), then grounding and the overall
// verdict, wrapped to fit a width of 80 columns.
#pragma once

#include <cstddef>
#include <string>

#include "closeout/checks.h"

namespace ostler {

// Each entry starts a line; a detail too long for the line continues on
// lines indented under it. A word longer than a whole line is cut.
[[nodiscard]] std::string renderVerdictText(const Checks::Verdict& verdict, size_t width = 80);

}  // namespace ostler
