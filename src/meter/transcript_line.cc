#include "meter/transcript_line.h"

namespace ostler {
namespace {

using simdjson::dom::array;
using simdjson::dom::element;
using simdjson::dom::object;

// The block list of the previous line on this thread, kept so that its
// storage serves the next line instead of a fresh allocation per line.
std::vector<RawContentBlock>& spareBlocks() {
  thread_local std::vector<RawContentBlock> spare;
  return spare;
}

using json::SeenKeys;

bool decodeCacheCreation(element e, std::optional<RawCacheCreation>* out) {
  object o;
  switch (json::getObject(e, &o)) {
    case json::Field::kAbsent: return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: break;
  }
  RawCacheCreation r;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    if (field.key == "ephemeral_5m_input_tokens") {
      if (seen.first(0)) r.ephemeral5mInputTokens = json::optInt64(field.value, ok);
    } else if (field.key == "ephemeral_1h_input_tokens") {
      if (seen.first(1)) r.ephemeral1hInputTokens = json::optInt64(field.value, ok);
    }
  }
  if (!ok) return false;
  *out = r;
  return true;
}

}  // namespace

bool decodeRawUsage(element e, std::optional<RawUsage>* out) {
  object o;
  switch (json::getObject(e, &o)) {
    case json::Field::kAbsent: return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: break;
  }
  RawUsage r;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "input_tokens") {
      if (seen.first(0)) r.inputTokens = json::optInt64(field.value, ok);
    } else if (k == "output_tokens") {
      if (seen.first(1)) r.outputTokens = json::optInt64(field.value, ok);
    } else if (k == "cache_read_input_tokens") {
      if (seen.first(2)) r.cacheReadInputTokens = json::optInt64(field.value, ok);
    } else if (k == "cache_creation_input_tokens") {
      if (seen.first(3)) r.cacheCreationInputTokens = json::optInt64(field.value, ok);
    } else if (k == "cache_creation") {
      if (seen.first(4) && !decodeCacheCreation(field.value, &r.cacheCreation)) ok = false;
    }
    if (!ok) return false;
  }
  *out = r;
  return true;
}

namespace {

bool decodeToolInput(element e, std::optional<RawToolInput>* out) {
  object o;
  switch (json::getObject(e, &o)) {
    case json::Field::kAbsent: return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: break;
  }
  RawToolInput r;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    if (field.key == "file_path") {
      if (seen.first(0)) r.filePath = json::optString(field.value, ok);
    } else if (field.key == "command") {
      if (seen.first(1)) r.command = json::optString(field.value, ok);
    }
  }
  if (!ok) return false;
  *out = r;
  return true;
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
    case simdjson::dom::element_type::NULL_VALUE:
      return;
    case simdjson::dom::element_type::STRING:
      r.kind = RawToolResultContent::Kind::kText;
      r.text = std::string_view(e.get_string().value_unsafe());
      break;
    case simdjson::dom::element_type::ARRAY: {
      array a = e.get_array().value_unsafe();
      r.kind = RawToolResultContent::Kind::kBlocks;
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

}  // namespace

bool decodeRawImageSource(element e, std::optional<RawImageSource>* out) {
  object o;
  switch (json::getObject(e, &o)) {
    case json::Field::kAbsent: return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: break;
  }
  RawImageSource r;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o)
    if (field.key == "data" && seen.first(0)) r.data = json::optString(field.value, ok);
  if (!ok) return false;
  *out = r;
  return true;
}

namespace {

bool decodeContentBlock(element e, RawContentBlock* out) {
  object o;
  if (json::getObject(e, &o) != json::Field::kPresent) return false;
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "type") {
      if (seen.first(0)) out->type = json::optString(field.value, ok);
    } else if (k == "text") {
      if (seen.first(1)) out->text = json::optString(field.value, ok);
    } else if (k == "id") {
      if (seen.first(2)) out->id = json::optString(field.value, ok);
    } else if (k == "name") {
      if (seen.first(3)) out->name = json::optString(field.value, ok);
    } else if (k == "input") {
      if (seen.first(4) && !decodeToolInput(field.value, &out->input)) ok = false;
    } else if (k == "tool_use_id") {
      if (seen.first(5)) out->toolUseId = json::optString(field.value, ok);
    } else if (k == "content") {
      if (seen.first(6)) decodeToolResultContent(field.value, &out->content);
    } else if (k == "source") {
      if (seen.first(7) && !decodeRawImageSource(field.value, &out->source)) ok = false;
    }
    if (!ok) return false;
  }
  return true;
}

bool decodeMessage(element e, std::optional<RawMessage>* out) {
  object o;
  switch (json::getObject(e, &o)) {
    case json::Field::kAbsent: return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: break;
  }
  RawMessage& r = out->emplace();
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "model") {
      if (seen.first(0)) r.model = json::optString(field.value, ok);
    } else if (k == "usage") {
      if (seen.first(1) && !decodeRawUsage(field.value, &r.usage)) ok = false;
    } else if (k == "content") {
      if (seen.first(2)) decodeMessageContent(field.value, &r.content, &r.contentText, &r.contentListFailed);
    } else if (k == "id") {
      if (seen.first(3)) r.id = json::optString(field.value, ok);
    }
    if (!ok) return false;
  }
  return true;
}

bool decodeCompactMetadata(element e, std::optional<RawCompactMetadata>* out) {
  object o;
  switch (json::getObject(e, &o)) {
    case json::Field::kAbsent: return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: break;
  }
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

}  // namespace

void decodeMessageContent(element value, std::optional<std::vector<RawContentBlock>>* content,
                          std::optional<std::string_view>* contentText, bool* listFailed) {
  switch (value.type()) {
    case simdjson::dom::element_type::STRING:
      *contentText = std::string_view(value.get_string().value_unsafe());
      return;
    case simdjson::dom::element_type::ARRAY: {
      array a = value.get_array().value_unsafe();
      auto& blocks = content->emplace(std::move(spareBlocks()));
      blocks.clear();
      blocks.reserve(a.size());
      for (element item : a) {
        RawContentBlock& block = blocks.emplace_back();
        if (!decodeContentBlock(item, &block)) {
          content->reset();
          if (listFailed != nullptr) *listFailed = true;
          return;
        }
      }
      return;
    }
    default:
      return;
  }
}

bool decodeRawTranscriptLine(object root, RawTranscriptLine* out) {
  if (out->message && out->message->content) spareBlocks() = std::move(*out->message->content);
  *out = RawTranscriptLine{};
  bool ok = true;
  SeenKeys seen;
  for (auto field : root) {
    std::string_view k = field.key;
    // Dispatch on length first: most keys of a line are not read at all.
    switch (k.size()) {
      case 3:
        if (k == "cwd" && seen.first(0)) out->cwd = json::optString(field.value, ok);
        break;
      case 4:
        if (k == "type") {
          if (seen.first(1)) out->type = json::optString(field.value, ok);
        } else if (k == "uuid") {
          if (seen.first(2)) out->uuid = json::optString(field.value, ok);
        }
        break;
      case 6:
        if (k == "isMeta" && seen.first(3)) out->isMeta = json::optBool(field.value, ok);
        break;
      case 5:
        if (k == "error" && seen.first(12)) out->side.error = field.value;
        break;
      case 7:
        if (k == "message") {
          if (seen.first(4) && !decodeMessage(field.value, &out->message)) ok = false;
        } else if (k == "subtype") {
          if (seen.first(5)) out->subtype = json::optString(field.value, ok);
        } else if (k == "aiTitle") {
          if (seen.first(13)) out->side.aiTitle = field.value;
        }
        break;
      case 9:
        if (k == "timestamp") {
          if (seen.first(6)) out->timestamp = json::optString(field.value, ok);
        } else if (k == "sessionId") {
          if (seen.first(7)) out->sessionId = json::optString(field.value, ok);
        } else if (k == "requestId") {
          if (seen.first(8)) out->requestId = json::optString(field.value, ok);
        }
        break;
      case 10:
        if (k == "lastPrompt" && seen.first(14)) out->side.lastPrompt = field.value;
        break;
      case 11:
        if (k == "isSidechain") {
          if (seen.first(9)) out->isSidechain = json::optBool(field.value, ok);
        } else if (k == "customTitle") {
          if (seen.first(15)) out->side.customTitle = field.value;
        }
        break;
      case 15:
        if (k == "compactMetadata" && seen.first(10) && !decodeCompactMetadata(field.value, &out->compactMetadata))
          ok = false;
        break;
      case 16:
        if (k == "isCompactSummary" && seen.first(11)) out->isCompactSummary = json::optBool(field.value, ok);
        break;
      case 17:
        if (k == "isApiErrorMessage" && seen.first(16)) out->side.isApiErrorMessage = field.value;
        break;
      default:
        break;
    }
    if (!ok) return false;
  }
  return true;
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

bool TranscriptLineDecoder::decode(std::string_view line, bool padded, RawTranscriptLine* out) {
  auto root = parser_.parse(line, padded);
  if (!root) return false;
  return decodeRawTranscriptLine(*root, out);
}

}  // namespace ostler
