// The closeout's reading of one Claude Code transcript line: what a handoff
// is summarised from and graded against. It takes less from a line than the
// meter (no usage, no request ids) and more from its blocks (tool names,
// tool inputs, tool results). Records are owned values: a parsed transcript
// outlives the decoder that read it.
//
// A line stands for this reading only when every key it reads has its JSON
// type (see kCloseoutReading); otherwise the line is skipped, without a
// count. A JSON null is an absent key everywhere.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "transcript/raw_transcript_line.h"

namespace ostler {

// The keys this reading holds a line to. A key that is read with the wrong
// JSON type fails the whole line, a bad block included; keys not read never
// fail it. A tool result's payload never fails: what does not read as text
// or text blocks is `other`.
inline constexpr LineReading kCloseoutReading = {
    {LineKey::kType, LineKey::kTimestamp, LineKey::kMessage, LineKey::kModel, LineKey::kContent},
    {BlockKey::kNotObject, BlockKey::kType, BlockKey::kText, BlockKey::kName, BlockKey::kInput, BlockKey::kId,
     BlockKey::kToolUseId, BlockKey::kIsError, BlockKey::kInputFilePath},
    /*badBlockFailsLine=*/true};

struct ToolInput {
  std::optional<std::string> filePath;  // file_path; every other key of a tool's input is ignored
};

struct ToolResultTextBlock {
  std::optional<std::string> text;
};

// The payload of a tool result: a string, a list of text blocks, or
// anything else.
struct ToolResultContent {
  enum class Kind { kText, kBlocks, kOther };
  Kind kind = Kind::kOther;
  std::string text;                         // kText
  std::vector<ToolResultTextBlock> blocks;  // kBlocks

  // The string, or the blocks' texts joined by line feeds (a block without
  // text adds nothing), or empty for `other`.
  [[nodiscard]] std::string plainText() const;
};

struct TranscriptContentBlock {
  std::optional<std::string> type;
  std::optional<std::string> text;
  std::optional<std::string> name;           // the tool's name, on "tool_use"
  std::optional<ToolInput> input;            // on "tool_use"
  std::optional<ToolResultContent> content;  // on "tool_result"
  std::optional<std::string> id;             // on "tool_use"
  std::optional<std::string> toolUseId;      // tool_use_id, on "tool_result"
  std::optional<bool> isError;               // is_error, on "tool_result"
};

// A message's content: a bare string or a list of blocks.
struct TranscriptContent {
  enum class Kind { kText, kBlocks };
  Kind kind = Kind::kText;
  std::string text;                            // kText
  std::vector<TranscriptContentBlock> blocks;  // kBlocks

  // The blocks whose type is "tool_use", or "tool_result", in order; none
  // for the string form.
  [[nodiscard]] std::vector<const TranscriptContentBlock*> toolUseBlocks() const;
  [[nodiscard]] std::vector<const TranscriptContentBlock*> toolResultBlocks() const;

  // The string, or the `text` of every block that has one, whatever its
  // type, joined by line feeds. An empty `text` is still a text.
  [[nodiscard]] std::string plainText() const;
};

struct TranscriptMessage {
  std::optional<std::string> model;
  std::optional<TranscriptContent> content;
};

struct TranscriptLine {
  std::optional<std::string> type;
  std::optional<std::string> timestamp;
  std::optional<TranscriptMessage> message;

  // The line as this reading sees the decoded `raw`; nothing when a key it
  // reads has the wrong type.
  [[nodiscard]] static std::optional<TranscriptLine> from(const RawTranscriptLine& raw);
};

// One edit of a file seen in a transcript: a "tool_use" block named "Edit"
// or "Write" with a non-empty `input.file_path`.
struct EditEvent {
  int64_t lineIndex = 0;  // index into the parsed lines (blank and undecodable lines are not counted)
  std::string filePath;   // as the transcript has it

  friend bool operator==(const EditEvent&, const EditEvent&) = default;
};

// Whether `block` records an edit: a "tool_use" named "Edit" or "Write"
// whose input names a non-empty file path.
[[nodiscard]] bool isEdit(const TranscriptContentBlock& block);

}  // namespace ostler
