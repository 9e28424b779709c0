// Finds the transcript files of a tree in the one order the live engine and
// the window scan read them: project directories by name; within a project
// every top-level "{id}.jsonl" by name, then the subagent files of each
// "{id}/subagents" directory, session by session, each set sorted. The order
// decides which copy of a request repeated across files is counted.
#pragma once

#include <string>
#include <vector>

#include "daemon/daemon_file.h"
#include "meter/iso8601.h"

namespace ostler::SessionDiscovery {

// Every transcript file under `root`, in reading order. Never fails: a root,
// project or subagent folder that cannot be listed contributes nothing.
[[nodiscard]] std::vector<DaemonFile> discoverFiles(const std::string& root);

// The subagent files of a chat that are being written: every ".jsonl" under
// "{projectDirPath}/{sessionId}/subagents" whose modification time lies at
// most `withinSeconds` before `now` and at most one second after it (a
// little clock skew is tolerated; a file stamped further ahead is not
// running). Sorted by path. Empty when the folder is missing; a file whose
// attributes cannot be read is left out.
[[nodiscard]] std::vector<std::string> activeDispatchFiles(const std::string& projectDirPath,
                                                           const std::string& sessionId, InstantMs now,
                                                           double withinSeconds);
[[nodiscard]] int64_t activeDispatchCount(const std::string& projectDirPath, const std::string& sessionId,
                                          InstantMs now, double withinSeconds);

}  // namespace ostler::SessionDiscovery
