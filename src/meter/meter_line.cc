#include "meter/meter_line.h"

#include "transcript/text.h"

namespace ostler {
namespace {

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

std::optional<std::string> trimmedOrNothing(std::string_view s) {
  std::string_view t = text::trimWhitespaceAndNewlines(s);
  if (t.empty()) return std::nullopt;
  return std::string(t);
}

}  // namespace

std::optional<std::string> extractTypedShareText(const RawTranscriptLine& line) {
  if (line.isMeta.value_or(false) || line.isCompactSummary.value_or(false) || line.isSidechain.value_or(false) ||
      !line.message)
    return std::nullopt;
  const RawMessage& message = *line.message;
  if (message.contentText) {
    std::string_view t = *message.contentText;
    for (std::string_view tag : {"<command-name", "<command-message", "<local-command-stdout",
                                 "<local-command-caveat", "<task-notification"})
      if (startsWith(t, tag)) return std::nullopt;
    if (startsWith(t, "<system-reminder")) {
      constexpr std::string_view kClose = "</system-reminder>";
      if (size_t at = t.find(kClose); at != std::string_view::npos) t.remove_prefix(at + kClose.size());
    }
    return trimmedOrNothing(t);
  }
  if (const auto* blocks = contentFor(line, kMeterReading)) {
    std::string joined;
    bool first = true;
    for (const auto& block : *blocks) {
      if (block.type != "text" || !block.text || block.text->empty()) continue;
      if (!first) joined.push_back('\n');
      joined.append(*block.text);
      first = false;
    }
    return trimmedOrNothing(joined);
  }
  return std::nullopt;
}

int64_t toolResultBytes(const std::optional<RawToolResultContent>& content) {
  if (!content) return 0;
  switch (content->kind) {
    case RawToolResultContent::Kind::kText:
      return static_cast<int64_t>(content->text.size());
    case RawToolResultContent::Kind::kBlocks: {
      int64_t bytes = 0;
      for (const auto& b : content->blocks)
        if (b.text) bytes += static_cast<int64_t>(b.text->size());
      return bytes;
    }
    case RawToolResultContent::Kind::kOther:
      return 0;
  }
  return 0;
}

int64_t imageTokens(const RawContentBlock& block) {
  if (!block.source || !block.source->data) return 0;
  return block.source->dataCharacters / 4;
}

void appendSkippedLine(int64_t lineNumber, FileDigest& digest) {
  MeterLine& m = digest.lines.emplace_back();
  m.kind = MeterLine::Kind::kSkipped;
  m.lineNumber = lineNumber;
  m.toolUseBegin = static_cast<uint32_t>(digest.toolUses.size());
  m.toolResultBegin = static_cast<uint32_t>(digest.toolResults.size());
}

void appendDigestLine(const RawTranscriptLine& line, int64_t lineNumber, FileDigest& digest) {
  StringArena& strings = digest.strings;
  auto keep = [&](std::string_view s) { return strings.store(s); };
  auto keepOpt = [&](const std::optional<std::string_view>& s) -> std::optional<std::string_view> {
    if (!s) return std::nullopt;
    return strings.store(*s);
  };
  MeterLine& m = digest.lines.emplace_back();
  m.lineNumber = lineNumber;
  m.toolUseBegin = static_cast<uint32_t>(digest.toolUses.size());
  m.toolResultBegin = static_cast<uint32_t>(digest.toolResults.size());
  // Lines of a file mostly repeat the previous line's ids; share the copy.
  const MeterLine* previous = digest.lines.size() >= 2 ? &digest.lines[digest.lines.size() - 2] : nullptr;
  if (line.sessionId && !line.sessionId->empty())
    m.sessionId = previous && previous->sessionId == *line.sessionId ? previous->sessionId : keep(*line.sessionId);
  if (line.cwd && !line.cwd->empty())
    m.cwd = previous && previous->cwd == *line.cwd ? previous->cwd : keep(*line.cwd);
  if (!line.type) return;
  m.instant = line.instant;
  m.timestamp = keepOpt(line.timestamp);

  std::string_view type = *line.type;
  if (type == "assistant") {
    m.dispatch = MeterLine::Dispatch::kAssistant;
    m.requestId = keepOpt(line.requestId);
    if (line.message) m.model = keepOpt(line.message->model);
    m.usage = turnUsageOf(line);
    if (const auto* blocks = contentFor(line, kMeterReading)) {
      for (const auto& block : *blocks) {
        if (!block.type) continue;
        if (*block.type == "text") {
          if (block.text && m.textLength < kTextLengthCap)
            m.textLength += text::characterCount(*block.text, kTextLengthCap - m.textLength);
        } else if (*block.type == "tool_use") {
          m.hasToolUse = true;
          MeterToolUse use;
          if (block.id) use.id = keep(*block.id);
          if (block.name) use.name = keep(*block.name);
          if (block.input && block.input->filePath) use.filePath = keep(*block.input->filePath);
          use.hasCommand = block.input && block.input->command.has_value();
          digest.toolUses.push_back(use);
        }
      }
    }
  } else if (type == "user") {
    m.dispatch = MeterLine::Dispatch::kUser;
    if (auto typed = extractTypedShareText(line)) m.typedBytes = static_cast<int64_t>(typed->size());
    if (const auto* blocks = contentFor(line, kMeterReading)) {
      for (const auto& block : *blocks) {
        if (!block.type) continue;
        if (*block.type == "tool_result") {
          if (block.toolUseId && !block.toolUseId->empty())
            digest.toolResults.push_back({keep(*block.toolUseId), toolResultBytes(block.content)});
        } else if (*block.type == "image") {
          m.imageCount += 1;
          m.imageTokens += imageTokens(block);
        }
      }
    }
  } else if (type == "system") {
    m.dispatch = MeterLine::Dispatch::kSystem;
    if (line.subtype == "compact_boundary" && line.compactMetadata) {
      m.isCompactBoundary = true;
      m.uuid = keepOpt(line.uuid);
      m.trigger = keepOpt(line.compactMetadata->trigger);
      m.preTokens = line.compactMetadata->preTokens.value_or(0);
      m.postTokens = line.compactMetadata->postTokens.value_or(0);
    }
  } else {
    m.dispatch = MeterLine::Dispatch::kOther;
  }
}

void finishDigest(FileDigest& digest) {
  const size_t n = digest.lines.size();
  for (size_t i = 0; i < n; ++i) {
    MeterLine& m = digest.lines[i];
    const size_t useEnd = i + 1 < n ? digest.lines[i + 1].toolUseBegin : digest.toolUses.size();
    const size_t resultEnd = i + 1 < n ? digest.lines[i + 1].toolResultBegin : digest.toolResults.size();
    m.toolUses = std::span<const MeterToolUse>(digest.toolUses.data() + m.toolUseBegin, useEnd - m.toolUseBegin);
    m.toolResults = std::span<const MeterToolResult>(digest.toolResults.data() + m.toolResultBegin,
                                                     resultEnd - m.toolResultBegin);
  }
}

}  // namespace ostler
