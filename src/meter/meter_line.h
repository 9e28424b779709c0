// What the metering pass takes from one transcript line: the decoded line
// digested into the few figures the accounting needs (lengths, counts, ids),
// owned and small. Digesting is pure and independent of every other line, so
// it runs on worker threads ahead of the fold, which alone is sequential.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "meter/iso8601.h"
#include "meter/meter_options.h"
#include "meter/pricing.h"
#include "meter/transcript_line.h"

namespace ostler {

// A "tool_use" block of an assistant line.
struct MeterToolUse {
  std::string id;
  std::string name;                     // empty when the block has none
  std::optional<std::string> filePath;  // input.file_path
  bool hasCommand = false;              // input.command is present
};

// A "tool_result" block of a user line that names its call.
struct MeterToolResult {
  std::string toolUseId;
  int64_t bytes = 0;  // UTF-8 length of its text
};

struct MeterLine {
  enum class Kind : uint8_t { kDecoded, kSkipped };
  // How the line is dispatched once its ids are noted.
  enum class Dispatch : uint8_t { kNone, kAssistant, kUser, kSystem, kOther };

  Kind kind = Kind::kDecoded;
  Dispatch dispatch = Dispatch::kNone;  // kNone: no `type`, or out of range
  int64_t lineNumber = 0;               // from 1, counting every line of the file
  std::string sessionId;                // empty when absent
  std::string cwd;                      // empty when absent
  std::optional<std::string> timestamp;
  std::optional<InstantMs> instant;  // the timestamp, parsed

  // Assistant lines.
  std::optional<std::string> requestId;
  std::optional<std::string> model;  // message.model
  TurnUsage usage;
  bool hasToolUse = false;
  int64_t textLength = 0;  // characters of "text" blocks, capped at kTextLengthCap
  std::vector<MeterToolUse> toolUses;

  // User lines.
  int64_t typedBytes = 0;  // UTF-8 length of the typed text; 0 when none
  std::vector<MeterToolResult> toolResults;
  int64_t imageCount = 0;
  int64_t imageTokens = 0;

  // System lines: a compaction boundary.
  bool isCompactBoundary = false;
  std::optional<std::string> uuid;
  std::optional<std::string> trigger;
  int64_t preTokens = 0;
  int64_t postTokens = 0;
};

// A turn is mechanical below 200 characters of text, so counting stops there.
inline constexpr int64_t kTextLengthCap = 200;

// Token figures of a message's usage; zeros without one.
[[nodiscard]] TurnUsage turnUsage(const std::optional<RawMessage>& message);

// The words a person typed, as far as a user line tells; nothing for meta,
// compact-summary and sidechain lines, commands, task notifications, and text
// that is empty once trimmed.
[[nodiscard]] std::optional<std::string> extractTypedShareText(const RawTranscriptLine& line);

// UTF-8 length of a tool result's payload.
[[nodiscard]] int64_t toolResultBytes(const std::optional<RawToolResultContent>& content);

// Estimated tokens of an image: characters of its Base64 text over four.
[[nodiscard]] int64_t imageTokens(const RawContentBlock& block);

// Digests a decoded line for pass two.
[[nodiscard]] MeterLine digestLine(const RawTranscriptLine& line, int64_t lineNumber, const RangeBounds& bounds);

// What pass one takes from a line: only assistant lines in range.
struct BashScanLine {
  std::optional<std::string> requestId;
  std::vector<uint64_t> templateHashes;  // one per Bash call with a command, in block order
};

}  // namespace ostler
