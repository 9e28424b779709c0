// The meter's reading of one Claude Code transcript line. Every field is
// optional: a missing key and a JSON null both leave it absent. A present key
// of the wrong JSON type fails the whole line, except inside
// `message.content`, where a failure only drops `content`/`contentText`.
// Keys not listed are ignored.
//
// Strings are views into the decoder's buffers and stay valid until the
// decoder's next call; large strings (image data, tool results) are therefore
// measured without being copied.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "meter/json_line.h"
#include "meter/pricing.h"

namespace ostler {

struct RawCacheCreation {
  std::optional<int64_t> ephemeral5mInputTokens;  // ephemeral_5m_input_tokens
  std::optional<int64_t> ephemeral1hInputTokens;  // ephemeral_1h_input_tokens
};

struct RawUsage {
  std::optional<int64_t> inputTokens;               // input_tokens
  std::optional<int64_t> outputTokens;              // output_tokens
  std::optional<int64_t> cacheReadInputTokens;      // cache_read_input_tokens
  std::optional<int64_t> cacheCreationInputTokens;  // cache_creation_input_tokens
  std::optional<RawCacheCreation> cacheCreation;    // cache_creation
};

struct RawToolInput {
  std::optional<std::string_view> filePath;  // file_path, named by "Read"
  std::optional<std::string_view> command;   // command, run by "Bash"
};

struct RawToolResultBlock {
  std::optional<std::string_view> text;
};

// A tool result's payload; decoding it never fails.
struct RawToolResultContent {
  enum class Kind { kText, kBlocks, kOther };
  Kind kind = Kind::kOther;
  std::string_view text;                   // kText
  std::vector<RawToolResultBlock> blocks;  // kBlocks
};

struct RawImageSource {
  std::optional<std::string_view> data;  // the image's Base64 text
};

struct RawContentBlock {
  std::optional<std::string_view> type;
  std::optional<std::string_view> text;
  std::optional<std::string_view> id;
  std::optional<std::string_view> name;
  std::optional<RawToolInput> input;
  std::optional<std::string_view> toolUseId;  // tool_use_id
  std::optional<RawToolResultContent> content;
  std::optional<RawImageSource> source;
};

struct RawMessage {
  std::optional<std::string_view> model;
  std::optional<RawUsage> usage;
  std::optional<std::vector<RawContentBlock>> content;  // list form of `content`
  std::optional<std::string_view> contentText;          // string form of `content`
  std::optional<std::string_view> id;
  // `content` was a list with a block that does not decode: a reader with
  // laxer blocks may still read it.
  bool contentListFailed = false;
};

struct RawCompactMetadata {
  std::optional<std::string_view> trigger;
  std::optional<int64_t> preTokens;
  std::optional<int64_t> postTokens;
};

// Keys the meter does not read, noted as they stand (first copy, any type)
// for the live engine, which reads them from the same parse and judges their
// types itself. They never fail the meter's line.
struct RawSideKeys {
  std::optional<simdjson::dom::element> error;
  std::optional<simdjson::dom::element> aiTitle;
  std::optional<simdjson::dom::element> customTitle;
  std::optional<simdjson::dom::element> lastPrompt;
  std::optional<simdjson::dom::element> isApiErrorMessage;
};

struct RawTranscriptLine {
  std::optional<std::string_view> type;
  std::optional<std::string_view> timestamp;
  std::optional<std::string_view> sessionId;
  std::optional<std::string_view> cwd;
  std::optional<RawMessage> message;
  std::optional<std::string_view> requestId;
  std::optional<std::string_view> uuid;
  std::optional<bool> isMeta;
  std::optional<bool> isCompactSummary;
  std::optional<bool> isSidechain;
  std::optional<std::string_view> subtype;
  std::optional<RawCompactMetadata> compactMetadata;
  RawSideKeys side;
};

// Decodes the object of an already parsed line. Returns false when the line
// fails to decode; `out` is then unspecified. Storage left in `out` by an
// earlier line is reused.
[[nodiscard]] bool decodeRawTranscriptLine(simdjson::dom::object root, RawTranscriptLine* out);

// The strict readings shared with the live engine: a null value leaves the
// record absent, a wrong type anywhere fails (returns false).
[[nodiscard]] bool decodeRawUsage(simdjson::dom::element value, std::optional<RawUsage>* out);
[[nodiscard]] bool decodeRawImageSource(simdjson::dom::element value, std::optional<RawImageSource>* out);

// Token figures of a usage record; zeros without one. A cache write with no
// split is a five-minute write, and the flat figure is ignored whenever the
// split is there, even empty.
[[nodiscard]] TurnUsage turnUsageOf(const std::optional<RawUsage>& usage);

// Reads `content` leniently: fills `content` or `contentText`, or neither;
// `listFailed`, when given, is set when a list did not decode.
void decodeMessageContent(simdjson::dom::element value, std::optional<std::vector<RawContentBlock>>* content,
                          std::optional<std::string_view>* contentText, bool* listFailed = nullptr);

// Parser and decoder together, reused line after line on one thread.
class TranscriptLineDecoder {
 public:
  // Decodes `line` (already trimmed). See JsonLineParser::parse for `padded`.
  [[nodiscard]] bool decode(std::string_view line, bool padded, RawTranscriptLine* out);

  JsonLineParser& parser() { return parser_; }

 private:
  JsonLineParser parser_;
};

}  // namespace ostler
