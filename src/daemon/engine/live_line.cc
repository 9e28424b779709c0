#include "daemon/engine/live_line.h"

#include "transcript/text.h"

namespace ostler {

bool surelyNamesChat(std::string_view typedText) {
  return !typedText.empty() && typedText.front() > ' ' && typedText.front() < 0x7F;
}

std::string joinedBlockText(const RawTranscriptLine& raw) {
  std::string joined;
  const auto* blocks = contentFor(raw, kEngineReading);
  if (blocks == nullptr) return joined;
  bool first = true;
  for (const auto& block : *blocks) {
    if (!block.text) continue;
    if (!first) joined.push_back(' ');
    joined.append(*block.text);
    first = false;
  }
  return joined;
}

LiveLine digestLiveLine(const RawTranscriptLine& raw, StringArena& arena, LiveLineNeeds needs,
                        const LiveLine* previous) {
  auto keep = [&arena](std::string_view s) { return arena.store(s); };
  auto share = [&](std::string_view s, std::string_view earlier) { return s == earlier ? earlier : keep(s); };
  LiveLine out;
  if (needs.cwd && raw.cwd) out.cwd = keep(*raw.cwd);
  if (!raw.type) return out;
  const std::string_view type = *raw.type;
  if (type == "assistant") {
    out.type = LiveLine::Type::kAssistant;
    out.instant = raw.instant;
    if (raw.message && raw.message->model)
      out.model = previous != nullptr ? share(*raw.message->model, previous->model) : keep(*raw.message->model);
    out.usage = turnUsageOf(raw);
    if (raw.requestId)
      out.requestId = previous != nullptr ? share(*raw.requestId, previous->requestId) : keep(*raw.requestId);
    if (raw.isApiErrorMessage == true) {
      out.isApiErrorMessage = true;
      out.errorText = keep(joinedBlockText(raw));
      if (raw.timestamp) out.timestampText = keep(*raw.timestamp);
    }
  } else if (type == "user") {
    out.type = LiveLine::Type::kUser;
    if (const auto* blocks = contentFor(raw, kEngineReading)) {
      for (const auto& block : *blocks) {
        if (block.type != "image") continue;
        ++out.imageCount;
        // Base64 text runs about four characters to a token.
        if (block.source && block.source->data) out.imageTokens += block.source->dataCharacters / 4;
      }
    }
    if (out.imageCount > 0) out.instant = raw.instant;
    if (needs.typedText && raw.message && raw.message->contentText)
      out.typedText = keep(text::prefixCharacters(*raw.message->contentText, kTypedTextScanCharacters));
  } else if (type == "ai-title") {
    out.type = LiveLine::Type::kAiTitle;
    if (raw.aiTitle) out.title = keep(*raw.aiTitle);
  } else if (type == "custom-title") {
    out.type = LiveLine::Type::kCustomTitle;
    if (raw.customTitle) out.title = keep(*raw.customTitle);
  } else {
    out.type = LiveLine::Type::kOther;
  }
  return out;
}

}  // namespace ostler
