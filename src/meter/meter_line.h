// What the metering pass takes from one transcript line: the decoded line
// digested into the few figures the accounting needs (lengths, counts, ids),
// owned and small. Digesting is pure and independent of every other line, so
// it runs on worker threads ahead of the fold, which alone is sequential.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "meter/meter_options.h"
#include "transcript/iso8601.h"
#include "transcript/pricing.h"
#include "transcript/raw_transcript_line.h"
#include "transcript/string_arena.h"

namespace ostler {

// The keys the meter holds a line to: a wrong type at one of them fails the
// line, counted as skipped. A block list in which one block fails one of the
// block keys is read as no content at all; the line still counts.
inline constexpr LineReading kMeterReading = {
    {LineKey::kType, LineKey::kTimestamp, LineKey::kSessionId, LineKey::kCwd, LineKey::kMessage, LineKey::kModel,
     LineKey::kUsage, LineKey::kMessageId, LineKey::kRequestId, LineKey::kUuid, LineKey::kIsMeta,
     LineKey::kIsCompactSummary, LineKey::kIsSidechain, LineKey::kSubtype, LineKey::kCompactMetadata},
    {BlockKey::kNotObject, BlockKey::kType, BlockKey::kText, BlockKey::kId, BlockKey::kName, BlockKey::kInput,
     BlockKey::kInputFilePath, BlockKey::kInputCommand, BlockKey::kToolUseId, BlockKey::kSource,
     BlockKey::kSourceData}};

// A "tool_use" block of an assistant line.
struct MeterToolUse {
  std::string_view id;
  std::string_view name;                     // empty when the block has none
  std::optional<std::string_view> filePath;  // input.file_path
  bool hasCommand = false;                   // input.command is present
};

// A "tool_result" block of a user line that names its call.
struct MeterToolResult {
  std::string_view toolUseId;
  int64_t bytes = 0;  // UTF-8 length of its text
};

// Strings are views into the FileDigest that holds the line.
struct MeterLine {
  enum class Kind : uint8_t { kDecoded, kSkipped };
  // How the line is dispatched once its ids are noted.
  enum class Dispatch : uint8_t { kNone, kAssistant, kUser, kSystem, kOther };

  Kind kind = Kind::kDecoded;
  Dispatch dispatch = Dispatch::kNone;  // kNone: no `type`; the date range is the fold's to apply
  int64_t lineNumber = 0;               // from 1, counting every line of the file
  std::string_view sessionId;           // empty when absent
  std::string_view cwd;                 // empty when absent
  std::optional<std::string_view> timestamp;
  std::optional<InstantMs> instant;  // the timestamp, parsed

  // Assistant lines.
  std::optional<std::string_view> requestId;
  std::optional<std::string_view> model;  // message.model
  TurnUsage usage;
  bool hasToolUse = false;
  int64_t textLength = 0;  // characters of "text" blocks, capped at kTextLengthCap
  std::span<const MeterToolUse> toolUses;

  // User lines.
  int64_t typedBytes = 0;  // UTF-8 length of the typed text; 0 when none
  std::span<const MeterToolResult> toolResults;
  int64_t imageCount = 0;
  int64_t imageTokens = 0;

  // System lines: a compaction boundary.
  bool isCompactBoundary = false;
  std::optional<std::string_view> uuid;
  std::optional<std::string_view> trigger;
  int64_t preTokens = 0;
  int64_t postTokens = 0;

  // Where this line's tool uses and results start in its file's lists.
  uint32_t toolUseBegin = 0, toolResultBegin = 0;
};

// The digested lines of one file and the storage they point into. Movable;
// moving keeps every view valid.
struct FileDigest {
  bool opened = false;  // false when the file could not be opened
  std::vector<MeterLine> lines;  // decoded and skipped lines; blank ones are left out
  std::vector<MeterToolUse> toolUses;
  std::vector<MeterToolResult> toolResults;
  // A slice's strings (ids, stamps, folders) come to a few kilobytes.
  StringArena strings{16 * 1024};

  FileDigest() = default;
  FileDigest(FileDigest&&) noexcept = default;
  FileDigest& operator=(FileDigest&&) noexcept = default;

  // Empties the digest, keeping its storage for the next slice.
  void clear() {
    opened = false;
    lines.clear();
    toolUses.clear();
    toolResults.clear();
    strings.clear();
  }
};

// A turn is mechanical below 200 characters of text, so counting stops there.
inline constexpr int64_t kTextLengthCap = 200;

// The words a person typed, as far as a user line tells; nothing for meta,
// compact-summary and sidechain lines, commands, task notifications, and text
// that is empty once trimmed.
[[nodiscard]] std::optional<std::string> extractTypedShareText(const RawTranscriptLine& line);

// UTF-8 length of a tool result's payload.
[[nodiscard]] int64_t toolResultBytes(const std::optional<RawToolResultContent>& content);

// Estimated tokens of an image: characters of its Base64 text over four.
[[nodiscard]] int64_t imageTokens(const RawContentBlock& block);

// Digests a line that decodes for the meter and appends it to `digest`. The
// digest holds every line, whatever its date: one digest serves passes with
// different bounds.
void appendDigestLine(const RawTranscriptLine& line, int64_t lineNumber, FileDigest& digest);
// Appends a line that failed to decode for the meter.
void appendSkippedLine(int64_t lineNumber, FileDigest& digest);
// After the last line: points each line at its tool uses and results.
void finishDigest(FileDigest& digest);

}  // namespace ostler
