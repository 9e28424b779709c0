// Finds the transcript files of a tree in the one order the live engine and
// the window scan read them: project directories by name; within a project
// every top-level "{id}.jsonl" by name, then the subagent files of each
// "{id}/subagents" directory, session by session, each set sorted. The order
// decides which copy of a request repeated across files is counted.
#pragma once

#include <string>
#include <vector>

#include "daemon/daemon_file.h"

namespace ostler::SessionDiscovery {

// Every transcript file under `root`, in reading order. Never fails: a root,
// project or subagent folder that cannot be listed contributes nothing.
[[nodiscard]] std::vector<DaemonFile> discoverFiles(const std::string& root);

}  // namespace ostler::SessionDiscovery
