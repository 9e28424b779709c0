// The on-device model as a local model server: a runner that speaks the
// OpenAI-compatible chat API over HTTP to llama.cpp's llama-server, Ollama,
// vLLM or LM Studio on this machine. Each request is one user message and
// stands alone, so no call sees another's text.
//
// What the server can tell about itself is asked once it answers and kept:
// its context window (llama.cpp's /props) and whether it has a tokenizer
// (llama.cpp's /tokenize). A server that is down is asked again next time.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "closeout/model/local_model_protocol.h"
#include "closeout/model/local_model_settings.h"
#include "closeout/model/tier1_runner.h"
#include "platform/result.h"

namespace ostler {

class LocalModelRunner final : public Tier1Runner {
 public:
  // The window taken when neither the settings nor the server give one.
  static constexpr int64_t kFallbackContextSize = 4096;

  // A runner on the server that `settings` names; fails, saying why, when it
  // names none, its URL cannot be read, or its host is off this machine and
  // remote servers are not allowed. Nothing is sent before that is settled.
  [[nodiscard]] static Result<std::unique_ptr<LocalModelRunner>> create(const LocalModelSettings& settings);

  // The settings' window, else the server's, else kFallbackContextSize.
  [[nodiscard]] int64_t contextSize() override;
  // Whether the server has a tokenizer to ask.
  [[nodiscard]] bool tokensAreMeasured() override;
  // Available when the server answers and lists the model; "modelNotReady"
  // otherwise (down, still loading, or without that model).
  [[nodiscard]] Tier1Availability checkAvailability() override;
  // The server's count when it has a tokenizer that answers, else the
  // estimate.
  [[nodiscard]] int64_t measureTokens(std::string_view text) override;
  [[nodiscard]] ChunkAttemptOutcome<std::string> summarizeChunk(std::string_view text) override;
  [[nodiscard]] ChunkAttemptOutcome<std::string> combineBatch(const std::vector<std::string>& summaries) override;
  // The handoff, the answer held to the CloseoutGeneratedHandoff schema; an
  // answer that does not decode to it is an `otherFailure`.
  [[nodiscard]] ChunkAttemptOutcome<GeneratedHandoffResult> generateHandoff(std::string_view combinedSummary) override;

 private:
  LocalModelRunner(LocalModelSettings settings, ServerAddress address);

  // One request: the server's answer, or why there was none, in one line.
  [[nodiscard]] Result<LocalModelProtocol::Answer> get(const std::string& path) const;
  [[nodiscard]] Result<LocalModelProtocol::Answer> post(const std::string& path, const std::string& body) const;
  [[nodiscard]] Result<LocalModelProtocol::Answer> send(bool isPost, const std::string& path,
                                                        const std::string& body) const;
  [[nodiscard]] ChunkAttemptOutcome<std::string> chat(const std::string& body) const;

  const LocalModelSettings settings_;
  const ServerAddress address_;
  std::mutex mutex_;                      // guards the two below
  std::optional<int64_t> serverContext_;  // set once /props answered; 0: it gave no window
  std::optional<bool> serverTokenizes_;   // set once /tokenize answered
};

}  // namespace ostler
