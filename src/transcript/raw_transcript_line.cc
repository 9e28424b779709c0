#include "transcript/raw_transcript_line.h"

#include "transcript/json_line.h"
#include "transcript/text.h"

namespace ostler {
namespace {

using simdjson::dom::array;
using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

static_assert(TranscriptLineDecoder::kPadding >= simdjson::SIMDJSON_PADDING);

using json::SeenKeys;

// Reads a string, integer or boolean into `out`; a wrong type leaves `out`
// absent and notes `key` in `failed`.
template <typename Key>
void readString(element e, std::optional<std::string_view>* out, Key key, KeySet<Key>& failed) {
  bool ok = true;
  *out = json::optString(e, ok);
  if (!ok) failed.add(key);
}

template <typename Key>
void readBool(element e, std::optional<bool>* out, Key key, KeySet<Key>& failed) {
  bool ok = true;
  *out = json::optBool(e, ok);
  if (!ok) failed.add(key);
}

// The object at `e`: true with `*o` set when it is one, true with nothing
// to read on null, false on any other type.
bool openObject(element e, object* o, bool* present) {
  switch (json::getObject(e, o)) {
    case json::Field::kAbsent: *present = false; return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: *present = true; return true;
  }
  return false;
}

// A token count: an integer from 0 to 2^40. Real counts stay far below the
// bound; one past it (or below 0) is a corrupt line, and is refused before
// it could overflow a sum or print an absurd spend.
constexpr int64_t kMaxTokenCount = int64_t{1} << 40;

std::optional<int64_t> optTokenCount(element e, bool& ok) {
  std::optional<int64_t> v = json::optInt64(e, ok);
  if (v && (*v < 0 || *v > kMaxTokenCount)) {
    ok = false;
    return std::nullopt;
  }
  return v;
}

// Strict records: any field of the wrong type fails the whole record.
bool decodeCacheCreation(element e, std::optional<RawCacheCreation>* out) {
  object o;
  bool present = false;
  if (!openObject(e, &o, &present)) return false;
  if (!present) return true;
  RawCacheCreation r;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    if (field.key == "ephemeral_5m_input_tokens") {
      if (seen.first(0)) r.ephemeral5mInputTokens = optTokenCount(field.value, ok);
    } else if (field.key == "ephemeral_1h_input_tokens") {
      if (seen.first(1)) r.ephemeral1hInputTokens = optTokenCount(field.value, ok);
    }
  }
  if (!ok) return false;
  *out = r;
  return true;
}

bool decodeUsage(element e, std::optional<RawUsage>* out) {
  object o;
  bool present = false;
  if (!openObject(e, &o, &present)) return false;
  if (!present) return true;
  RawUsage r;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "input_tokens") {
      if (seen.first(0)) r.inputTokens = optTokenCount(field.value, ok);
    } else if (k == "output_tokens") {
      if (seen.first(1)) r.outputTokens = optTokenCount(field.value, ok);
    } else if (k == "cache_read_input_tokens") {
      if (seen.first(2)) r.cacheReadInputTokens = optTokenCount(field.value, ok);
    } else if (k == "cache_creation_input_tokens") {
      if (seen.first(3)) r.cacheCreationInputTokens = optTokenCount(field.value, ok);
    } else if (k == "cache_creation") {
      if (seen.first(4) && !decodeCacheCreation(field.value, &r.cacheCreation)) ok = false;
    }
    if (!ok) return false;
  }
  *out = r;
  return true;
}

bool decodeCompactMetadata(element e, std::optional<RawCompactMetadata>* out) {
  object o;
  bool present = false;
  if (!openObject(e, &o, &present)) return false;
  if (!present) return true;
  RawCompactMetadata r;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "trigger") {
      if (seen.first(0)) r.trigger = json::optString(field.value, ok);
    } else if (k == "preTokens") {
      if (seen.first(1)) r.preTokens = json::optInt64(field.value, ok);
    } else if (k == "postTokens") {
      if (seen.first(2)) r.postTokens = json::optInt64(field.value, ok);
    }
  }
  if (!ok) return false;
  *out = r;
  return true;
}

// Block records: each key fails alone, so that a reader that does not hold
// blocks to it still has the rest.
void decodeToolInput(element e, RawContentBlock& block, KeySet<BlockKey>& failed) {
  object o;
  bool present = false;
  if (!openObject(e, &o, &present)) {
    failed.add(BlockKey::kInput);
    return;
  }
  if (!present) return;
  RawToolInput& r = block.input.emplace();
  SeenKeys seen;
  for (auto field : o) {
    if (field.key == "file_path") {
      if (seen.first(0)) readString(field.value, &r.filePath, BlockKey::kInputFilePath, failed);
    } else if (field.key == "command") {
      if (seen.first(1)) readString(field.value, &r.command, BlockKey::kInputCommand, failed);
    }
  }
}

void decodeImageSource(element e, RawContentBlock& block, KeySet<BlockKey>& failed) {
  object o;
  bool present = false;
  if (!openObject(e, &o, &present)) {
    failed.add(BlockKey::kSource);
    return;
  }
  if (!present) return;
  RawImageSource& r = block.source.emplace();
  SeenKeys seen;
  for (auto field : o)
    if (field.key == "data" && seen.first(0)) readString(field.value, &r.data, BlockKey::kSourceData, failed);
}

bool decodeToolResultBlock(element e, RawToolResultBlock* out) {
  object o;
  if (json::getObject(e, &o) != json::Field::kPresent) return false;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o)
    if (field.key == "text" && seen.first(0)) out->text = json::optString(field.value, ok);
  return ok;
}

// Never fails: whatever does not read as text or as blocks is `other`.
void decodeToolResultContent(element e, std::optional<RawToolResultContent>* out) {
  RawToolResultContent r;
  switch (e.type()) {
    case element_type::NULL_VALUE:
      return;
    case element_type::STRING:
      r.kind = RawToolResultContent::Kind::kText;
      r.text = std::string_view(e.get_string().value_unsafe());
      break;
    case element_type::ARRAY: {
      r.kind = RawToolResultContent::Kind::kBlocks;
      array a = e.get_array().value_unsafe();
      for (element item : a) {
        RawToolResultBlock block;
        if (!decodeToolResultBlock(item, &block)) {
          r.kind = RawToolResultContent::Kind::kOther;
          r.blocks.clear();
          break;
        }
        r.blocks.push_back(block);
      }
      break;
    }
    default:
      r.kind = RawToolResultContent::Kind::kOther;
      break;
  }
  *out = std::move(r);
}

void decodeContentBlock(element e, RawContentBlock& out, KeySet<BlockKey>& failed) {
  object o;
  if (json::getObject(e, &o) != json::Field::kPresent) {
    failed.add(BlockKey::kNotObject);
    return;
  }
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "type") {
      if (seen.first(0)) readString(field.value, &out.type, BlockKey::kType, failed);
    } else if (k == "text") {
      if (seen.first(1)) readString(field.value, &out.text, BlockKey::kText, failed);
    } else if (k == "id") {
      if (seen.first(2)) readString(field.value, &out.id, BlockKey::kId, failed);
    } else if (k == "name") {
      if (seen.first(3)) readString(field.value, &out.name, BlockKey::kName, failed);
    } else if (k == "input") {
      if (seen.first(4)) decodeToolInput(field.value, out, failed);
    } else if (k == "tool_use_id") {
      if (seen.first(5)) readString(field.value, &out.toolUseId, BlockKey::kToolUseId, failed);
    } else if (k == "content") {
      if (seen.first(6)) decodeToolResultContent(field.value, &out.content);
    } else if (k == "source") {
      if (seen.first(7)) decodeImageSource(field.value, out, failed);
    } else if (k == "is_error") {
      if (seen.first(8)) readBool(field.value, &out.isError, BlockKey::kIsError, failed);
    }
  }
  // Every reader of an image wants its size, and Base64 runs to megabytes.
  if (out.type == "image" && out.source && out.source->data)
    out.source->dataCharacters = text::characterCount(*out.source->data);
}

// `spare` lends the storage of the last line's list.
void decodeContent(element value, RawMessage& m, KeySet<LineKey>& failed, std::vector<RawContentBlock>& spare) {
  switch (value.type()) {
    case element_type::NULL_VALUE:
      return;
    case element_type::STRING:
      m.contentText = std::string_view(value.get_string().value_unsafe());
      return;
    case element_type::ARRAY: {
      array a = value.get_array().value_unsafe();
      auto& blocks = m.blocks.emplace(std::move(spare));
      blocks.clear();
      blocks.reserve(a.size());
      for (element item : a) decodeContentBlock(item, blocks.emplace_back(), m.failedBlockKeys);
      return;
    }
    default:
      failed.add(LineKey::kContent);
      return;
  }
}

void decodeMessage(element e, RawTranscriptLine& line, std::vector<RawContentBlock>& spare) {
  object o;
  bool present = false;
  if (!openObject(e, &o, &present)) {
    line.failedKeys.add(LineKey::kMessage);
    return;
  }
  if (!present) return;
  RawMessage& m = line.message.emplace();
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "model") {
      if (seen.first(0)) readString(field.value, &m.model, LineKey::kModel, line.failedKeys);
    } else if (k == "usage") {
      if (seen.first(1) && !decodeUsage(field.value, &m.usage)) line.failedKeys.add(LineKey::kUsage);
    } else if (k == "content") {
      if (seen.first(2)) decodeContent(field.value, m, line.failedKeys, spare);
    } else if (k == "id") {
      if (seen.first(3)) readString(field.value, &m.id, LineKey::kMessageId, line.failedKeys);
    }
  }
}

void decodeLine(object root, RawTranscriptLine& out, std::vector<RawContentBlock>& spare) {
  KeySet<LineKey>& failed = out.failedKeys;
  SeenKeys seen;
  for (auto field : root) {
    std::string_view k = field.key;
    element v = field.value;
    // Dispatch on length first: most keys of a line are not read at all.
    switch (k.size()) {
      case 3:
        if (k == "cwd" && seen.first(0)) readString(v, &out.cwd, LineKey::kCwd, failed);
        break;
      case 4:
        if (k == "type") {
          if (seen.first(1)) readString(v, &out.type, LineKey::kType, failed);
        } else if (k == "uuid") {
          if (seen.first(2)) readString(v, &out.uuid, LineKey::kUuid, failed);
        }
        break;
      case 5:
        if (k == "error" && seen.first(3)) readString(v, &out.error, LineKey::kError, failed);
        break;
      case 6:
        if (k == "isMeta" && seen.first(4)) readBool(v, &out.isMeta, LineKey::kIsMeta, failed);
        break;
      case 7:
        if (k == "message") {
          if (seen.first(5)) decodeMessage(v, out, spare);
        } else if (k == "subtype") {
          if (seen.first(6)) readString(v, &out.subtype, LineKey::kSubtype, failed);
        } else if (k == "aiTitle") {
          if (seen.first(7)) readString(v, &out.aiTitle, LineKey::kAiTitle, failed);
        }
        break;
      case 9:
        if (k == "timestamp") {
          if (seen.first(8)) readString(v, &out.timestamp, LineKey::kTimestamp, failed);
        } else if (k == "sessionId") {
          if (seen.first(9)) readString(v, &out.sessionId, LineKey::kSessionId, failed);
        } else if (k == "requestId") {
          if (seen.first(10)) readString(v, &out.requestId, LineKey::kRequestId, failed);
        }
        break;
      case 10:
        if (k == "lastPrompt" && seen.first(11)) readString(v, &out.lastPrompt, LineKey::kLastPrompt, failed);
        break;
      case 11:
        if (k == "isSidechain") {
          if (seen.first(12)) readBool(v, &out.isSidechain, LineKey::kIsSidechain, failed);
        } else if (k == "customTitle") {
          if (seen.first(13)) readString(v, &out.customTitle, LineKey::kCustomTitle, failed);
        }
        break;
      case 15:
        if (k == "compactMetadata" && seen.first(14) && !decodeCompactMetadata(v, &out.compactMetadata))
          failed.add(LineKey::kCompactMetadata);
        break;
      case 16:
        if (k == "isCompactSummary" && seen.first(15))
          readBool(v, &out.isCompactSummary, LineKey::kIsCompactSummary, failed);
        break;
      case 17:
        if (k == "isApiErrorMessage" && seen.first(16))
          readBool(v, &out.isApiErrorMessage, LineKey::kIsApiErrorMessage, failed);
        break;
      default:
        break;
    }
  }
}

}  // namespace

bool decodes(const RawTranscriptLine& line, const LineReading& reading) {
  if (line.failedKeys.intersects(reading.lineKeys)) return false;
  return !reading.badBlockFailsLine || !line.message ||
         !line.message->failedBlockKeys.intersects(reading.blockKeys);
}

const std::vector<RawContentBlock>* contentFor(const RawTranscriptLine& line, const LineReading& reading) {
  if (!line.message || !line.message->blocks || line.message->failedBlockKeys.intersects(reading.blockKeys))
    return nullptr;
  return &*line.message->blocks;
}

TurnUsage turnUsageOf(const std::optional<RawUsage>& usage) {
  TurnUsage u;
  if (!usage) return u;
  u.input = usage->inputTokens.value_or(0);
  u.output = usage->outputTokens.value_or(0);
  u.cacheRead = usage->cacheReadInputTokens.value_or(0);
  if (usage->cacheCreation) {
    u.cache5m = usage->cacheCreation->ephemeral5mInputTokens.value_or(0);
    u.cache1h = usage->cacheCreation->ephemeral1hInputTokens.value_or(0);
  } else {
    u.cache5m = usage->cacheCreationInputTokens.value_or(0);
  }
  return u;
}

TurnUsage turnUsageOf(const RawTranscriptLine& line) {
  return line.message ? turnUsageOf(line.message->usage) : TurnUsage{};
}

struct TranscriptLineDecoder::Parser {
  JsonLineParser json;
  std::vector<RawContentBlock> spareBlocks;
};

TranscriptLineDecoder::TranscriptLineDecoder() : parser_(std::make_unique<Parser>()) {}
TranscriptLineDecoder::~TranscriptLineDecoder() = default;

bool TranscriptLineDecoder::decode(std::string_view line, bool padded, RawTranscriptLine* out) {
  // The block list's storage goes from one line to the next.
  if (out->message && out->message->blocks) parser_->spareBlocks = std::move(*out->message->blocks);
  *out = RawTranscriptLine{};
  auto root = parser_->json.parse(line, padded);
  if (!root) return false;
  decodeLine(*root, *out, parser_->spareBlocks);
  if (out->timestamp) out->instant = ISO8601::parse(*out->timestamp);
  return true;
}

}  // namespace ostler
