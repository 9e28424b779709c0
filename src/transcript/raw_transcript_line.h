// One Claude Code transcript line, decoded once for every reader. A line holds
// far more keys than any reader takes; the record carries every key that
// one of them reads, and nothing else.
//
// Every field is optional: a missing key and a JSON null both leave it
// absent. A present key of the wrong JSON type is noted rather than failing
// at once, because readers differ in which keys they hold to their type: the
// meter fails a line whose `uuid` is a number, the live engine never reads
// `uuid`. Each reader states its keys as a `LineReading`, and asks through
// `decodes` whether the line stands for it. Of duplicate keys the first wins.
//
// `message.content` is read leniently: a string fills `contentText`, a list
// fills `blocks`, anything else neither. Inside the list a wrong type is
// noted per key too; `contentFor` gives a reader the list only when none of
// the keys it holds its blocks to failed, so that the meter's stricter blocks
// and the engine's laxer ones are two views of one decoding.
//
// Strings are views into the decoder's buffers, valid until its next call:
// megabytes of image data or tool output are measured, never copied.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "transcript/iso8601.h"
#include "transcript/pricing.h"

namespace ostler {

// Keys of a line, and of its message, whose type a reader may hold it to.
enum class LineKey : uint8_t {
  kType,
  kTimestamp,
  kSessionId,
  kCwd,
  kMessage,  // not an object
  kModel,
  kUsage,    // not an object, or any count in it not an integer from 0 to 2^40
  kMessageId,
  kContent,  // neither a string nor a list
  kRequestId,
  kUuid,
  kIsMeta,
  kIsCompactSummary,
  kIsSidechain,
  kSubtype,
  kCompactMetadata,  // not an object, or a field in it of the wrong type
  kError,
  kAiTitle,
  kCustomTitle,
  kLastPrompt,
  kIsApiErrorMessage,
};

// Keys of a content block.
enum class BlockKey : uint8_t {
  kNotObject,  // the element itself is not an object
  kType,
  kText,
  kId,
  kName,
  kInput,  // not an object
  kInputFilePath,
  kInputCommand,
  kToolUseId,
  kIsError,
  kSource,  // not an object
  kSourceData,
};

// A set of keys, one bit per key.
template <typename Key>
struct KeySet {
  uint32_t bits = 0;

  constexpr KeySet() = default;
  constexpr KeySet(std::initializer_list<Key> keys) {
    for (Key k : keys) bits |= bit(k);
  }
  constexpr void add(Key k) { bits |= bit(k); }
  [[nodiscard]] constexpr bool contains(Key k) const { return (bits & bit(k)) != 0; }
  [[nodiscard]] constexpr bool intersects(KeySet other) const { return (bits & other.bits) != 0; }
  [[nodiscard]] constexpr bool empty() const { return bits == 0; }

 private:
  static constexpr uint32_t bit(Key k) { return uint32_t{1} << static_cast<unsigned>(k); }
};

// Which keys one reader holds to their types.
struct LineReading {
  KeySet<LineKey> lineKeys;    // a wrong type here fails the line
  KeySet<BlockKey> blockKeys;  // a wrong type here costs the line its block list
  bool badBlockFailsLine = false;  // ... or, with this, the whole line
};

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
  std::optional<std::string_view> filePath;  // file_path
  std::optional<std::string_view> command;   // command
};

struct RawToolResultBlock {
  std::optional<std::string_view> text;
};

// A tool result's payload; decoding it never fails. A list holding anything
// but objects whose `text` is a string or null is `kOther`.
struct RawToolResultContent {
  enum class Kind { kText, kBlocks, kOther };
  Kind kind = Kind::kOther;
  std::string_view text;                   // kText
  std::vector<RawToolResultBlock> blocks;  // kBlocks
};

struct RawImageSource {
  std::optional<std::string_view> data;  // the image's Base64 text
  int64_t dataCharacters = 0;            // its length in characters, measured once
};

struct RawContentBlock {
  std::optional<std::string_view> type;
  std::optional<std::string_view> text;
  std::optional<std::string_view> id;
  std::optional<std::string_view> name;
  std::optional<RawToolInput> input;
  std::optional<std::string_view> toolUseId;  // tool_use_id
  std::optional<RawToolResultContent> content;
  std::optional<bool> isError;                // is_error
  std::optional<RawImageSource> source;
};

struct RawMessage {
  std::optional<std::string_view> model;
  std::optional<RawUsage> usage;
  std::optional<std::string_view> id;
  std::optional<std::string_view> contentText;  // `content` as a string
  // `content` as a list, every element read as far as it goes; read it
  // through contentFor, which knows whether a block failed for the reader.
  std::optional<std::vector<RawContentBlock>> blocks;
  KeySet<BlockKey> failedBlockKeys;
};

struct RawCompactMetadata {
  std::optional<std::string_view> trigger;
  std::optional<int64_t> preTokens;
  std::optional<int64_t> postTokens;
};

struct RawTranscriptLine {
  std::optional<std::string_view> type;
  std::optional<std::string_view> timestamp;
  std::optional<InstantMs> instant;  // the timestamp, parsed once for every reader; absent when it does not parse
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
  std::optional<std::string_view> error;
  std::optional<std::string_view> aiTitle;
  std::optional<std::string_view> customTitle;
  std::optional<std::string_view> lastPrompt;
  std::optional<bool> isApiErrorMessage;
  KeySet<LineKey> failedKeys;  // keys present with the wrong type
};

// Whether the line stands for `reading`: none of its keys, nor (when the
// reading says so) of its blocks, failed.
[[nodiscard]] bool decodes(const RawTranscriptLine& line, const LineReading& reading);

// The message's blocks as `reading` sees them: nothing when `content` was no
// list, or a block failed one of the reading's keys.
[[nodiscard]] const std::vector<RawContentBlock>* contentFor(const RawTranscriptLine& line,
                                                             const LineReading& reading);

// Token figures of a usage record; zeros without one. A cache write with no
// split is a five-minute write, and the flat figure is ignored whenever the
// split is there, even empty.
[[nodiscard]] TurnUsage turnUsageOf(const std::optional<RawUsage>& usage);
[[nodiscard]] TurnUsage turnUsageOf(const RawTranscriptLine& line);

// Parses and decodes lines, one after another, on one thread; buffers are
// reused from line to line.
class TranscriptLineDecoder {
 public:
  TranscriptLineDecoder();
  ~TranscriptLineDecoder();
  TranscriptLineDecoder(const TranscriptLineDecoder&) = delete;
  TranscriptLineDecoder& operator=(const TranscriptLineDecoder&) = delete;

  // Decodes `line`, already trimmed of spaces and tabs. False when it is not
  // JSON or its top level is no object (the reading rules of the JSON
  // reader: BOM, UTF-8 and surrogate repair, depth). When `padded` is true
  // the caller guarantees kPadding readable bytes behind the line, so that
  // it is parsed in place. Views in `out` stay valid until the next call.
  [[nodiscard]] bool decode(std::string_view line, bool padded, RawTranscriptLine* out);

  static constexpr size_t kPadding = 64;

 private:
  struct Parser;
  std::unique_ptr<Parser> parser_;
};

}  // namespace ostler
