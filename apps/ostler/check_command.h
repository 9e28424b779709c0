// `ostler check`: grades a handoff, written by hand or by any tool, against
// the chat it came from, with the closeout's deterministic checks.
//
//   ostler check --handoff FILE --transcript FILE --root DIR
//                [--doc-updates FILE] [--c2-threshold N] [--json]
//
// Exit status 0 when the verdict passes overall, 1 when it does not, 2 on a
// usage error or an input that cannot be read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace ostler {

struct CheckFlags {
  std::string handoff;                    // the handoff's Markdown text
  std::string transcript;                 // the chat's JSONL transcript
  std::string root;                       // the project folder relative paths are taken against
  std::optional<std::string> docUpdates;  // a list of doc updates, or a whole closeout document
  std::optional<int64_t> c2Threshold;     // files C2 needs named, instead of min(3, qualifying)
  bool json = false;                      // print the verdict as JSON
};

// Registers the `check` subcommand on `app`, its flags landing in `flags`.
CLI::App* addCheckCommand(CLI::App& app, CheckFlags& flags);

// Grades and prints; returns the exit status. Unreadable inputs are said in
// one line on standard error.
int runCheck(const CheckFlags& flags);

}  // namespace ostler
