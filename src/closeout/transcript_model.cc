#include "closeout/transcript_model.h"

namespace ostler {
namespace {

std::optional<std::string> owned(const std::optional<std::string_view>& v) {
  if (!v) return std::nullopt;
  return std::string(*v);
}

ToolResultContent toolResultContentOf(const RawToolResultContent& raw) {
  ToolResultContent out;
  switch (raw.kind) {
    case RawToolResultContent::Kind::kText:
      out.kind = ToolResultContent::Kind::kText;
      out.text = std::string(raw.text);
      break;
    case RawToolResultContent::Kind::kBlocks:
      out.kind = ToolResultContent::Kind::kBlocks;
      out.blocks.reserve(raw.blocks.size());
      for (const RawToolResultBlock& b : raw.blocks) out.blocks.push_back({owned(b.text)});
      break;
    case RawToolResultContent::Kind::kOther: out.kind = ToolResultContent::Kind::kOther; break;
  }
  return out;
}

TranscriptContentBlock blockOf(const RawContentBlock& raw) {
  TranscriptContentBlock b;
  b.type = owned(raw.type);
  b.text = owned(raw.text);
  b.name = owned(raw.name);
  if (raw.input) b.input = ToolInput{owned(raw.input->filePath)};
  if (raw.content) b.content = toolResultContentOf(*raw.content);
  b.id = owned(raw.id);
  b.toolUseId = owned(raw.toolUseId);
  b.isError = raw.isError;
  return b;
}

std::vector<const TranscriptContentBlock*> blocksOfType(const TranscriptContent& content, std::string_view type) {
  std::vector<const TranscriptContentBlock*> out;
  if (content.kind != TranscriptContent::Kind::kBlocks) return out;
  for (const TranscriptContentBlock& b : content.blocks)
    if (b.type == type) out.push_back(&b);
  return out;
}

}  // namespace

std::string ToolResultContent::plainText() const {
  switch (kind) {
    case Kind::kText: return text;
    case Kind::kBlocks: {
      std::string out;
      bool first = true;
      for (const ToolResultTextBlock& b : blocks) {
        if (!b.text) continue;
        if (!first) out.push_back('\n');
        out.append(*b.text);
        first = false;
      }
      return out;
    }
    case Kind::kOther: break;
  }
  return {};
}

std::vector<const TranscriptContentBlock*> TranscriptContent::toolUseBlocks() const {
  return blocksOfType(*this, "tool_use");
}

std::vector<const TranscriptContentBlock*> TranscriptContent::toolResultBlocks() const {
  return blocksOfType(*this, "tool_result");
}

std::string TranscriptContent::plainText() const {
  if (kind == Kind::kText) return text;
  std::string out;
  bool first = true;
  for (const TranscriptContentBlock& b : blocks) {
    if (!b.text) continue;
    if (!first) out.push_back('\n');
    out.append(*b.text);
    first = false;
  }
  return out;
}

std::optional<TranscriptLine> TranscriptLine::from(const RawTranscriptLine& raw) {
  if (!decodes(raw, kCloseoutReading)) return std::nullopt;
  TranscriptLine line;
  line.type = owned(raw.type);
  line.timestamp = owned(raw.timestamp);
  if (raw.message) {
    TranscriptMessage& m = line.message.emplace();
    m.model = owned(raw.message->model);
    if (raw.message->contentText) {
      m.content = TranscriptContent{TranscriptContent::Kind::kText, std::string(*raw.message->contentText), {}};
    } else if (const std::vector<RawContentBlock>* blocks = contentFor(raw, kCloseoutReading)) {
      TranscriptContent& c = m.content.emplace();
      c.kind = TranscriptContent::Kind::kBlocks;
      c.blocks.reserve(blocks->size());
      for (const RawContentBlock& b : *blocks) c.blocks.push_back(blockOf(b));
    }
  }
  return line;
}

bool isEdit(const TranscriptContentBlock& block) {
  return block.type == "tool_use" && (block.name == "Edit" || block.name == "Write") && block.input &&
         block.input->filePath && !block.input->filePath->empty();
}

}  // namespace ostler
