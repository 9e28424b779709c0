// Turns out of assistant lines, and what user and system lines leave for
// them. A turn is one billed API request: a run of consecutive assistant
// lines of one file with one `requestId`, priced once on the usage of its
// last line. A `requestId` already seen anywhere in the pass is no turn,
// since resumed and forked sessions repeat earlier lines. Costs are computed
// per line and moved by the difference, so every sum holds the group's
// latest line at all times.
#pragma once

#include <string>

#include "meter/meter_line.h"
#include "meter/meter_options.h"
#include "meter/meter_state.h"

namespace ostler {

// Routes an assistant line: continues, repeats or opens a request group.
void dispatchAssistantLine(const MeterLine& line, SessionState& state, bool isSubagentFile,
                           const MeterOptions& options, GlobalAggregator& agg);

void beginGroup(const MeterLine& line, const std::optional<std::string_view>& requestId, SessionState& state,
                bool isSubagentFile, const MeterOptions& options, GlobalAggregator& agg);
void continueGroup(const MeterLine& line, int64_t turnIndex, SessionState& state, const MeterOptions& options,
                   GlobalAggregator& agg);
// Settles the open group: a turn with tool calls and under 200 characters of
// text is mechanical, and may be a downshift candidate.
void closeOpenGroup(SessionState& state, const MeterOptions& options, GlobalAggregator& agg);
// A repeat makes no turn but tells which model and cache the session is on.
void recordRealFactsFromDuplicateLine(const MeterLine& line, SessionState& state);

struct ContentBlocksOutcome {
  bool hasToolUse = false;
  int64_t textLength = 0;
};
// Notes the tool calls of a turn's line: Read paths, calls awaiting their
// results, and Bash occurrences in pass two's numbering.
ContentBlocksOutcome processContentBlocks(const MeterLine& line, int64_t turnIndex, SessionState& state,
                                          GlobalAggregator& agg);

// User lines: typed words and images wait for the next turn; tool results
// answer their calls.
void processUser(const MeterLine& line, const std::string& path, int64_t lineNumber, SessionState& state);

// System lines: a compaction boundary is priced from the last real turn,
// once per `uuid`.
void processSystem(const MeterLine& line, SessionState& state, const MeterOptions& options, GlobalAggregator& agg);

// "{project}" of detail texts, "session" when the session has none yet.
[[nodiscard]] std::string projectLabel(const SessionState& state);
// The first 8 characters of a session id.
[[nodiscard]] std::string sessionId8(const std::string& sessionId);

}  // namespace ostler
