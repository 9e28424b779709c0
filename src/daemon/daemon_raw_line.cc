#include "daemon/daemon_raw_line.h"

namespace ostler {
namespace {

using simdjson::dom::array;
using simdjson::dom::element;
using simdjson::dom::object;

using json::SeenKeys;

// Opens an optional object: true with `*present` false on null, false on a
// wrong type.
bool openObject(element e, object* o, bool* present) {
  switch (json::getObject(e, o)) {
    case json::Field::kAbsent: *present = false; return true;
    case json::Field::kWrongType: return false;
    case json::Field::kPresent: *present = true; return true;
  }
  return false;
}

bool decodeContentBlock(element e, DaemonRawContentBlock* out) {
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
    } else if (k == "source") {
      if (seen.first(2) && !decodeRawImageSource(field.value, &out->source)) ok = false;
    }
    if (!ok) return false;
  }
  return true;
}

// The lenient key: a string fills `contentText`, a list whose every block
// decodes fills `content`, anything else fills neither and fails nothing.
// `spare` lends its buffer to the list.
void decodeContent(element value, DaemonRawMessage* m, std::vector<DaemonRawContentBlock>& spare) {
  switch (value.type()) {
    case simdjson::dom::element_type::STRING:
      m->contentText = std::string_view(value.get_string().value_unsafe());
      return;
    case simdjson::dom::element_type::ARRAY: {
      array a = value.get_array().value_unsafe();
      auto& blocks = m->content.emplace(std::move(spare));
      blocks.clear();
      blocks.reserve(a.size());
      for (element item : a) {
        if (!decodeContentBlock(item, &blocks.emplace_back())) {
          m->content.reset();
          return;
        }
      }
      return;
    }
    default:
      return;
  }
}

bool decodeMessage(element e, std::optional<DaemonRawMessage>* out, std::vector<DaemonRawContentBlock>& spare) {
  object o;
  bool present = false;
  if (!openObject(e, &o, &present)) return false;
  if (!present) return true;
  DaemonRawMessage& r = out->emplace();
  bool ok = true;
  SeenKeys seen;
  for (auto field : o) {
    std::string_view k = field.key;
    if (k == "model") {
      if (seen.first(0)) r.model = json::optString(field.value, ok);
    } else if (k == "usage") {
      if (seen.first(1) && !decodeRawUsage(field.value, &r.usage)) ok = false;
    } else if (k == "content") {
      if (seen.first(2)) decodeContent(field.value, &r, spare);
    }
    if (!ok) return false;
  }
  return true;
}

}  // namespace

bool decodeDaemonRawLine(object root, DaemonRawLine* out) {
  // The block list's buffer goes from one line to the next: most lines have
  // one, and a decoder reads line after line.
  std::vector<DaemonRawContentBlock> spare;
  if (out->message && out->message->content) spare = std::move(*out->message->content);
  *out = DaemonRawLine{};
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
        if (k == "type" && seen.first(1)) out->type = json::optString(field.value, ok);
        break;
      case 5:
        if (k == "error" && seen.first(2)) out->error = json::optString(field.value, ok);
        break;
      case 7:
        if (k == "message") {
          if (seen.first(3) && !decodeMessage(field.value, &out->message, spare)) ok = false;
        } else if (k == "aiTitle") {
          if (seen.first(4)) out->aiTitle = json::optString(field.value, ok);
        }
        break;
      case 9:
        if (k == "timestamp") {
          if (seen.first(5)) out->timestamp = json::optString(field.value, ok);
        } else if (k == "sessionId") {
          if (seen.first(6)) out->sessionId = json::optString(field.value, ok);
        } else if (k == "requestId") {
          if (seen.first(7)) out->requestId = json::optString(field.value, ok);
        }
        break;
      case 10:
        if (k == "lastPrompt" && seen.first(8)) out->lastPrompt = json::optString(field.value, ok);
        break;
      case 11:
        if (k == "customTitle" && seen.first(9)) out->customTitle = json::optString(field.value, ok);
        break;
      case 17:
        if (k == "isApiErrorMessage" && seen.first(10)) out->isApiErrorMessage = json::optBool(field.value, ok);
        break;
      default:
        break;
    }
    if (!ok) return false;
  }
  return true;
}

bool daemonLineFromMeter(const RawTranscriptLine& meter, DaemonRawLine* out) {
  std::vector<DaemonRawContentBlock> spare;
  if (out->message && out->message->content) spare = std::move(*out->message->content);
  *out = DaemonRawLine{};
  out->type = meter.type;
  out->timestamp = meter.timestamp;
  out->sessionId = meter.sessionId;
  out->cwd = meter.cwd;
  out->requestId = meter.requestId;
  bool ok = true;
  const RawSideKeys& side = meter.side;
  if (side.error) out->error = json::optString(*side.error, ok);
  if (side.aiTitle) out->aiTitle = json::optString(*side.aiTitle, ok);
  if (side.customTitle) out->customTitle = json::optString(*side.customTitle, ok);
  if (side.lastPrompt) out->lastPrompt = json::optString(*side.lastPrompt, ok);
  if (side.isApiErrorMessage) out->isApiErrorMessage = json::optBool(*side.isApiErrorMessage, ok);
  if (meter.message) {
    DaemonRawMessage& m = out->message.emplace();
    m.model = meter.message->model;
    m.usage = meter.message->usage;
    m.contentText = meter.message->contentText;
    if (meter.message->content && out->isApiErrorMessage == true) {
      auto& blocks = m.content.emplace(std::move(spare));
      blocks.clear();
      for (const RawContentBlock& b : *meter.message->content) blocks.push_back({b.type, b.text, b.source});
    }
  }
  return ok;
}

bool DaemonLineDecoder::decode(std::string_view line, bool padded, DaemonRawLine* out) {
  auto root = parser_.parse(line, padded);
  if (!root) return false;
  return decodeDaemonRawLine(*root, out);
}

TurnUsage daemonTurnUsage(const DaemonRawLine& line) {
  return line.message ? turnUsageOf(line.message->usage) : TurnUsage{};
}

std::string_view daemonModel(const DaemonRawLine& line) {
  if (!line.message || !line.message->model) return {};
  return *line.message->model;
}

std::string joinedBlockText(const DaemonRawLine& line) {
  std::string joined;
  if (!line.message || !line.message->content) return joined;
  bool first = true;
  for (const auto& block : *line.message->content) {
    if (!block.text) continue;
    if (!first) joined.push_back(' ');
    joined.append(*block.text);
    first = false;
  }
  return joined;
}

}  // namespace ostler
