// The live engine's own reading of one transcript line. It is narrower than
// the meter's (no tool fields, no compaction keys, no uuid or flags) and adds
// five keys the meter does not read: `isApiErrorMessage`, `error`, `aiTitle`,
// `customTitle` and `lastPrompt`.
//
// Every field is optional: a missing key and a JSON null both leave it
// absent. A key read here that is present with the wrong JSON type fails the
// whole line, except at `message.content`, whose two readings (the list of
// blocks and the plain string) each fail alone and leave their field absent.
// Keys not read here never fail a line, whatever their type. Of duplicate
// keys the first wins.
//
// Strings are views into the decoder's buffers and stay valid until the
// decoder's next call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "meter/json_line.h"
#include "meter/pricing.h"
#include "meter/transcript_line.h"

namespace ostler {

// Usage and image sources read exactly as the meter reads them.
using DaemonRawCacheCreation = RawCacheCreation;
using DaemonRawUsage = RawUsage;
using DaemonRawImageSource = RawImageSource;

struct DaemonRawContentBlock {
  std::optional<std::string_view> type;
  std::optional<std::string_view> text;
  std::optional<DaemonRawImageSource> source;
};

struct DaemonRawMessage {
  std::optional<std::string_view> model;
  std::optional<DaemonRawUsage> usage;
  std::optional<std::vector<DaemonRawContentBlock>> content;  // list form of `content`
  std::optional<std::string_view> contentText;                // string form of `content`
};

struct DaemonRawLine {
  std::optional<std::string_view> type;       // routes the line
  std::optional<std::string_view> timestamp;  // ISO 8601 text
  std::optional<std::string_view> sessionId;  // decoded; the file decides the session
  std::optional<std::string_view> cwd;
  std::optional<DaemonRawMessage> message;
  std::optional<bool> isApiErrorMessage;
  std::optional<std::string_view> error;
  std::optional<std::string_view> requestId;
  std::optional<std::string_view> aiTitle;
  std::optional<std::string_view> customTitle;
  std::optional<std::string_view> lastPrompt;
};

// Decodes the top-level object of an already parsed line. Returns false when
// the line fails to decode; `out` is then unspecified.
[[nodiscard]] bool decodeDaemonRawLine(simdjson::dom::object root, DaemonRawLine* out);

// The same reading built from the meter's decoding of the line, which reads
// every key the two share with the same strictness: valid only when the
// meter's decoding succeeded and, when `content` is a list, read it too (the
// meter's blocks are stricter). Returns false when one of the keys only this
// reading has is of the wrong type, as decoding would. The block list is
// carried over for an API error message alone, whose text the engine reads;
// of other lines it reads only the images, which the meter has counted.
[[nodiscard]] bool daemonLineFromMeter(const RawTranscriptLine& meter, DaemonRawLine* out);

// Parser and decoder together; one per engine or scan, reused line after line.
class DaemonLineDecoder {
 public:
  // Decodes `line` (already trimmed). When `padded` is true the caller
  // guarantees simdjson::SIMDJSON_PADDING readable bytes behind the line.
  [[nodiscard]] bool decode(std::string_view line, bool padded, DaemonRawLine* out);

 private:
  JsonLineParser parser_;
};

// The five token counts of the line's usage; all 0 without message or usage.
// The `cache_creation` split, when present, wins over the flat
// `cache_creation_input_tokens`, even when it is empty.
[[nodiscard]] TurnUsage daemonTurnUsage(const DaemonRawLine& line);

// The line's model, empty when absent.
[[nodiscard]] std::string_view daemonModel(const DaemonRawLine& line);

// The `text` of the message's content blocks, those without text left out,
// joined by one space; empty when the content is not a list.
[[nodiscard]] std::string joinedBlockText(const DaemonRawLine& line);

}  // namespace ostler
