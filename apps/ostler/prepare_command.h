// `ostler prepare`: summarises a chat with the local model into its closeout
// store, and prints the graded handoff.
//
//   ostler prepare SESSION [--root DIR] [--json]
//
// SESSION is a session id, found as SESSION.jsonl in any project folder
// under the transcript root, or the path of a transcript. What was
// summarised before is kept in the chat's store, so a later run on the
// grown chat summarises only what is new.
//
// Exit status 0 with a handoff, 1 when none could be made (the reason in
// one line), 2 on a usage error.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace ostler {

struct PrepareFlags {
  std::string session;  // a session id or a transcript's path
  std::string root;     // the transcript root a session id is looked for under
  bool json = false;    // print one JSON object
};

// Registers the `prepare` subcommand on `app`, its flags landing in `flags`.
CLI::App* addPrepareCommand(CLI::App& app, PrepareFlags& flags);

// Prepares and prints; returns the exit status.
int runPrepare(const PrepareFlags& flags);

}  // namespace ostler
