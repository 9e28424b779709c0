#include "closeout/model/local_model_protocol.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "closeout/model/tier1_runner.h"

namespace ostler::LocalModelProtocol {
namespace {

using Json = nlohmann::json;

Json parse(std::string_view body) { return Json::parse(body, nullptr, /*allow_exceptions=*/false); }

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

// One line of at most 200 bytes, so that a page of HTML in a reason does not
// flood a log.
std::string oneLine(std::string_view s) {
  std::string out;
  for (char c : s.substr(0, 200)) out += (c == '\n' || c == '\r' || c == '\t') ? ' ' : c;
  if (s.size() > 200) out += "...";
  return out;
}

// An error answer's message and type, in each server's form:
// {"error": {"message", "type", "code"}} (llama.cpp, Ollama, vLLM, LM
// Studio), {"error": "..."} (Ollama's own routes), {"object": "error",
// "message", "type"} (older vLLM) and {"detail": "..."} (servers built on
// FastAPI).
struct ErrorText {
  std::string message;
  std::string type;  // with the code, when there is one
};

ErrorText errorText(std::string_view body) {
  const Json doc = parse(body);
  if (!doc.is_object()) return {oneLine(body), {}};
  const auto field = [](const Json& o, const char* key) {
    const auto it = o.find(key);
    if (it == o.end()) return std::string();
    return it->is_string() ? it->get<std::string>() : it->dump();
  };
  if (const auto e = doc.find("error"); e != doc.end()) {
    if (e->is_string()) return {e->get<std::string>(), {}};
    if (e->is_object()) return {field(*e, "message"), field(*e, "type") + " " + field(*e, "code")};
  }
  if (doc.contains("message")) return {field(doc, "message"), field(doc, "type") + " " + field(doc, "code")};
  if (doc.contains("detail")) return {field(doc, "detail"), {}};
  return {oneLine(body), {}};
}

bool mentionsContextLimit(const std::string& text) {
  static constexpr std::array<std::string_view, 7> kPhrases = {
      "context size",   "context length",     "context window", "exceed_context_size",
      "context_length", "prompt is too long", "prompt too long"};
  return std::any_of(kPhrases.begin(), kPhrases.end(),
                     [&](std::string_view p) { return text.find(p) != std::string::npos; });
}

}  // namespace

std::string chatRequest(std::string_view model, std::string_view prompt, std::string_view schemaName,
                        std::string_view jsonSchema) {
  nlohmann::ordered_json request = {
      {"model", model}, {"messages", nlohmann::ordered_json::array({{{"role", "user"}, {"content", prompt}}})}};
  if (!jsonSchema.empty()) {
    request["response_format"] = {
        {"type", "json_schema"},
        {"json_schema",
         {{"name", schemaName}, {"strict", true}, {"schema", nlohmann::ordered_json::parse(jsonSchema)}}}};
  }
  // Text from a transcript may hold bytes that are not UTF-8; they go as
  // U+FFFD rather than failing the request.
  return request.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

// How each server says what went wrong, and what the pipeline makes of it:
//
// | Answer                                                   | Who answers so                   | Outcome          |
// |----------------------------------------------------------|----------------------------------|------------------|
// | 400, "exceeds the available context size",               | llama.cpp (500 in some versions, | tooLarge         |
// |   type "exceed_context_size_error"                       |   hence the type at any status)  |                  |
// | 400, "This model's maximum context length is N tokens"   | vLLM, LM Studio                  | tooLarge         |
// | 400, "... exceeds the context length" / "prompt too long"| Ollama with truncation off       | tooLarge         |
// | 200, finish_reason "length"                              | any, when the answer ran out of  | tooLarge         |
// |                                                          |   window: no limit is ever set   |                  |
// | 200, finish_reason "content_filter", or message.refusal  | vLLM and LM Studio guard models, | "refusal"        |
// |                                                          |   OpenAI-style servers           |                  |
// | 5xx, another 4xx, a body that is not a chat completion   | any                              | otherFailure     |
//
// Ollama by default cuts a prompt that is too long rather than refusing it,
// and answers 200: nothing in the answer tells it, which is why the window
// is best set in the settings for Ollama.
ChunkAttemptOutcome<std::string> chatContent(const Answer& answer) {
  using Outcome = ChunkAttemptOutcome<std::string>;
  if (answer.status != 200) {
    if (isContextLengthError(answer)) return Outcome::tooLarge();
    const ErrorText e = errorText(answer.body);
    return Outcome::otherFailure("HTTP " + std::to_string(answer.status) +
                                 (e.message.empty() ? std::string() : ": " + oneLine(e.message)));
  }
  const Json doc = parse(answer.body);
  const auto bad = [&](std::string_view why) {
    return Outcome::otherFailure("the server's answer " + std::string(why) + ": " + oneLine(answer.body));
  };
  if (!doc.is_object()) return bad("is not JSON");
  const auto choices = doc.find("choices");
  if (choices == doc.end() || !choices->is_array() || choices->empty() || !(*choices)[0].is_object()) {
    return bad("holds no choice");
  }
  const Json& choice = (*choices)[0];
  std::string finish;
  if (const auto f = choice.find("finish_reason"); f != choice.end() && f->is_string()) finish = f->get<std::string>();
  if (finish == "content_filter") return Outcome::otherFailure(std::string(kRefusalReason));
  const auto message = choice.find("message");
  if (message == choice.end() || !message->is_object()) return bad("holds no message");
  if (const auto refusal = message->find("refusal");
      refusal != message->end() && refusal->is_string() && !refusal->get_ref<const std::string&>().empty()) {
    return Outcome::otherFailure(std::string(kRefusalReason));
  }
  if (finish == "length") return Outcome::tooLarge();
  const auto content = message->find("content");
  if (content == message->end() || !content->is_string()) return bad("holds no text");
  return Outcome::success(content->get<std::string>());
}

bool isContextLengthError(const Answer& answer) {
  const ErrorText e = errorText(answer.body);
  const std::string type = lower(e.type);
  if (type.find("exceed_context_size") != std::string::npos) return true;
  if (answer.status != 400 && answer.status != 413) return false;
  return mentionsContextLimit(lower(e.message)) || mentionsContextLimit(type);
}

std::optional<int64_t> contextSizeFromProps(std::string_view body) {
  const Json doc = parse(body);
  if (!doc.is_object()) return std::nullopt;
  const auto settings = doc.find("default_generation_settings");
  if (settings == doc.end() || !settings->is_object()) return std::nullopt;
  const auto n = settings->find("n_ctx");
  if (n == settings->end() || !n->is_number_integer() || n->get<int64_t>() <= 0) return std::nullopt;
  return n->get<int64_t>();
}

std::optional<int64_t> tokenCountFromTokenize(std::string_view body) {
  const Json doc = parse(body);
  if (!doc.is_object()) return std::nullopt;
  const auto tokens = doc.find("tokens");
  if (tokens == doc.end() || !tokens->is_array()) return std::nullopt;
  return static_cast<int64_t>(tokens->size());
}

std::string tokenizeRequest(std::string_view text) {
  return Json{{"content", text}}.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool listsModel(std::string_view body, std::string_view model) {
  const Json doc = parse(body);
  if (!doc.is_object()) return false;
  const auto data = doc.find("data");
  if (data == doc.end() || !data->is_array()) return false;
  const std::string tagged = std::string(model) + ":latest";
  return std::any_of(data->begin(), data->end(), [&](const Json& entry) {
    if (!entry.is_object() || !entry.contains("id") || !entry["id"].is_string()) return false;
    const std::string& id = entry["id"].get_ref<const std::string&>();
    return id == model || (model.find(':') == std::string_view::npos && id == tagged);
  });
}

}  // namespace ostler::LocalModelProtocol
