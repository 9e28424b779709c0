// The OpenAI-compatible chat API as the local runner speaks it, without the
// network: the bodies it sends, and what each answer means for the
// pipeline. Local servers (llama.cpp's llama-server, Ollama, vLLM, LM Studio)
// share the request shape but differ in how they say that something went
// wrong; all of that is read here, in one place.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "closeout/chunk_attempt_outcome.h"

namespace ostler::LocalModelProtocol {

// What a server answered: the HTTP status and the body.
struct Answer {
  int status = 0;
  std::string body;
};

// A chat request of one user message holding `prompt`, with the server's
// own generation settings (no temperature, no limit on the answer). With
// `jsonSchema`, the answer is held to that schema, named `schemaName`.
[[nodiscard]] std::string chatRequest(std::string_view model, std::string_view prompt, std::string_view schemaName = {},
                                      std::string_view jsonSchema = {});

// The text of a chat answer: its message's content, `tooLarge` when the
// text did not fit the window, `otherFailure("refusal")` when the model
// declined, and another `otherFailure` saying in one line what else was
// wrong.
[[nodiscard]] ChunkAttemptOutcome<std::string> chatContent(const Answer& answer);

// Whether an error answer says that the prompt exceeded the context window.
[[nodiscard]] bool isContextLengthError(const Answer& answer);

// The context window in llama.cpp's `GET /props` answer.
[[nodiscard]] std::optional<int64_t> contextSizeFromProps(std::string_view body);

// The token count in llama.cpp's `POST /tokenize` answer.
[[nodiscard]] std::optional<int64_t> tokenCountFromTokenize(std::string_view body);

// The body of a `POST /tokenize` request for `text`.
[[nodiscard]] std::string tokenizeRequest(std::string_view text);

// Whether a `GET /v1/models` answer lists `model`. Ollama lists a model with
// its tag, and takes a name without one as ":latest", so that matches too.
[[nodiscard]] bool listsModel(std::string_view body, std::string_view model);

}  // namespace ostler::LocalModelProtocol
