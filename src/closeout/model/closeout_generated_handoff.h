// The shape the model fills when it writes a handoff: five properties in a
// fixed order, the last a list of proposed documentation updates. The
// descriptions are read by the model as part of its prompt, so they are
// literals, kept word for word. The shape carries no length limits and no
// description of its own.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "closeout/model/tier1_runner.h"
#include "platform/result.h"

namespace ostler::CloseoutGeneratedHandoff {

// One property: its name, its JSON Schema type and what the model is told.
struct Property {
  std::string_view name;
  std::string_view type;  // "string", or "array" for the list of updates
  std::string_view description;
};

inline constexpr std::string_view kName = "CloseoutGeneratedHandoff";

inline constexpr std::array<Property, 5> kProperties = {{
    {"state", "string",
     "The STATE section: what has been done so far in this session. Write at least five full sentences, thorough "
     "and specific, not a short summary."},
    {"decisions", "string",
     "The DECISIONS section: decisions made during the session and why. Write at least five full sentences, "
     "thorough and specific."},
    {"next", "string",
     "The NEXT section: what a fresh chat should do next. Write at least five full sentences, thorough and "
     "specific."},
    {"filesTouched", "string",
     "The FILES TOUCHED section: every distinct file path you saw mentioned as touched (in a '[file touched: ...]' "
     "marker) anywhere in the summary below, most-frequently-mentioned first. Each file goes on its own separate "
     "text line, and each line starts with a dash and a space. Do not use a backslash-n escape sequence anywhere; "
     "use an actual line break between files. Do not put more than one file on the same line, and never separate "
     "files with commas or add annotations like edit counts."},
    {"docUpdates", "array", "Proposed documentation updates arising from this session. May be an empty list."},
}};

// The properties of each element of "docUpdates".
inline constexpr std::string_view kDocUpdateName = "CloseoutGeneratedDocUpdate";
inline constexpr std::array<Property, 3> kDocUpdateProperties = {{
    {"path", "string", "Repo-relative file path this update proposes to touch."},
    {"rationale", "string", "One sentence rationale for the proposed update."},
    {"patch", "string", "The proposed patch text. This is a proposal only and is never applied to any repo."},
}};

// The shape as a JSON Schema object, properties in order, every one
// required and no other allowed (what a server's constrained decoding needs
// to hold the model to it).
[[nodiscard]] std::string jsonSchema();

// The handoff that `json` holds; fails, saying why, on text that is not an
// object of this shape (a property missing or of another type).
[[nodiscard]] Result<GeneratedHandoffResult> decode(std::string_view json);

}  // namespace ostler::CloseoutGeneratedHandoff
