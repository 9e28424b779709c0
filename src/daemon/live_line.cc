#include "daemon/live_line.h"

#include "meter/text.h"

namespace ostler {

bool surelyNamesChat(std::string_view typedText) {
  return !typedText.empty() && typedText.front() > ' ' && typedText.front() < 0x7F;
}

LiveLine digestLiveLine(const DaemonRawLine& raw, StringArena& arena, LiveLineNeeds needs,
                        const CountedImages* images) {
  auto keep = [&arena](std::string_view s) { return arena.store(s); };
  LiveLine out;
  if (needs.cwd && raw.cwd) out.cwd = keep(*raw.cwd);
  if (!raw.type) return out;
  const std::string_view type = *raw.type;
  if (type == "assistant") {
    out.type = LiveLine::Type::kAssistant;
    if (raw.timestamp) out.instant = ISO8601::parse(*raw.timestamp);
    out.model = keep(daemonModel(raw));
    out.usage = daemonTurnUsage(raw);
    if (raw.requestId) out.requestId = keep(*raw.requestId);
    if (raw.isApiErrorMessage == true) {
      out.isApiErrorMessage = true;
      out.errorText = keep(joinedBlockText(raw));
      if (raw.timestamp) out.timestampText = keep(*raw.timestamp);
    }
  } else if (type == "user") {
    out.type = LiveLine::Type::kUser;
    if (images != nullptr) {
      out.imageCount = images->count;
      out.imageTokens = images->tokens;
    } else if (raw.message && raw.message->content) {
      for (const auto& block : *raw.message->content) {
        if (block.type != "image") continue;
        ++out.imageCount;
        // Base64 text runs about four characters to a token.
        if (block.source && block.source->data) out.imageTokens += text::characterCount(*block.source->data) / 4;
      }
    }
    if (out.imageCount > 0 && raw.timestamp) out.instant = ISO8601::parse(*raw.timestamp);
    if (needs.typedText && raw.message && raw.message->contentText) {
      const std::string_view typed = *raw.message->contentText;
      out.typedText = keep(text::prefixCharacters(typed, kTypedTextScanCharacters));
    }
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
