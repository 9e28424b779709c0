// The subagents of a chat that are running: the files of its
// "{id}/subagents" folder that were written in the last moments.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/file_system.h"
#include "transcript/iso8601.h"

namespace ostler::ActiveDispatches {

// Every ".jsonl" under "{projectDirPath}/{sessionId}/subagents" whose
// modification time lies at most `withinSeconds` before `now` and at most
// one second after it (a little clock skew is tolerated; a file stamped
// further ahead is not running). Sorted by path. Empty when the folder is
// missing; a file whose attributes cannot be read is left out.
[[nodiscard]] std::vector<std::string> files(FileSystem& fs, const std::string& projectDirPath,
                                             const std::string& sessionId, InstantMs now, double withinSeconds);

}  // namespace ostler::ActiveDispatches
