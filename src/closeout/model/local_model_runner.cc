// The one place that calls the HTTP client: its exceptions and error codes
// end here, as one-line reasons.
#include "closeout/model/local_model_runner.h"

#include <httplib.h>

#include <cmath>
#include <exception>

#include "closeout/model/closeout_generated_handoff.h"
#include "closeout/model/tier1_prompts.h"

namespace ostler {
namespace {

using LocalModelProtocol::Answer;

std::string seconds(double s) {
  const double whole = std::round(s);
  return std::fabs(s - whole) < 1e-9 ? std::to_string(static_cast<int64_t>(whole)) : std::to_string(s);
}

std::string describe(httplib::Error error, double connectTimeout, double timeout) {
  switch (error) {
    case httplib::Error::Connection: return "cannot connect";
    case httplib::Error::ConnectionTimeout: return "no connection within " + seconds(connectTimeout) + " s";
    case httplib::Error::Read: return "no complete answer within " + seconds(timeout) + " s";
    case httplib::Error::Write: return "the request could not be sent";
    case httplib::Error::SSLConnection:
    case httplib::Error::SSLLoadingCerts:
    case httplib::Error::SSLServerVerification: return "no secure connection (" + httplib::to_string(error) + ")";
    default: return "the request failed (" + httplib::to_string(error) + ")";
  }
}

void setTimeout(double s, const std::function<void(time_t, time_t)>& set) {
  const auto whole = static_cast<time_t>(s);
  set(whole, static_cast<time_t>((s - static_cast<double>(whole)) * 1e6));
}

}  // namespace

Result<std::unique_ptr<LocalModelRunner>> LocalModelRunner::create(const LocalModelSettings& settings) {
  if (!settings.configured()) return Error{"no local model server is configured"};
  Result<ServerAddress> address = permittedServer(settings);
  if (!address.ok()) return address.error();
  return std::unique_ptr<LocalModelRunner>(new LocalModelRunner(settings, std::move(address).value()));
}

LocalModelRunner::LocalModelRunner(LocalModelSettings settings, ServerAddress address)
    : settings_(std::move(settings)), address_(std::move(address)) {}

Result<Answer> LocalModelRunner::get(const std::string& path) const { return send(false, path, {}); }

Result<Answer> LocalModelRunner::post(const std::string& path, const std::string& body) const {
  return send(true, path, body);
}

Result<Answer> LocalModelRunner::send(bool isPost, const std::string& path, const std::string& body) const {
  const std::string target = address_.basePath + path;
  const std::string where = (isPost ? "POST " : "GET ") + address_.origin() + target;
  try {
    httplib::Client client(address_.origin());
    setTimeout(settings_.connectTimeoutSeconds, [&](time_t s, time_t us) { client.set_connection_timeout(s, us); });
    setTimeout(settings_.timeoutSeconds, [&](time_t s, time_t us) { client.set_read_timeout(s, us); });
    setTimeout(settings_.timeoutSeconds, [&](time_t s, time_t us) { client.set_write_timeout(s, us); });
    const httplib::Result result = isPost ? client.Post(target, body, "application/json") : client.Get(target);
    if (!result) {
      return Error{where + ": " + describe(result.error(), settings_.connectTimeoutSeconds, settings_.timeoutSeconds)};
    }
    return Answer{result->status, result->body};
  } catch (const std::exception& e) {
    return Error{where + ": " + e.what()};
  }
}

ChunkAttemptOutcome<std::string> LocalModelRunner::chat(const std::string& body) const {
  const Result<Answer> answer = post("/v1/chat/completions", body);
  if (!answer.ok()) return ChunkAttemptOutcome<std::string>::otherFailure(answer.error().message);
  return LocalModelProtocol::chatContent(answer.value());
}

int64_t LocalModelRunner::contextSize() {
  if (settings_.contextSize) return *settings_.contextSize;
  {
    const std::lock_guard lock(mutex_);
    if (serverContext_) return *serverContext_ > 0 ? *serverContext_ : kFallbackContextSize;
  }
  const Result<Answer> props = get("/props");
  if (!props.ok()) return kFallbackContextSize;
  const std::optional<int64_t> n =
      props.value().status == 200 ? LocalModelProtocol::contextSizeFromProps(props.value().body) : std::nullopt;
  const std::lock_guard lock(mutex_);
  serverContext_ = n.value_or(0);
  return n.value_or(kFallbackContextSize);
}

bool LocalModelRunner::tokensAreMeasured() {
  {
    const std::lock_guard lock(mutex_);
    if (serverTokenizes_) return *serverTokenizes_;
  }
  const Result<Answer> probe = post("/tokenize", LocalModelProtocol::tokenizeRequest("probe"));
  if (!probe.ok()) return false;
  const bool tokenizes =
      probe.value().status == 200 && LocalModelProtocol::tokenCountFromTokenize(probe.value().body).has_value();
  const std::lock_guard lock(mutex_);
  serverTokenizes_ = tokenizes;
  return tokenizes;
}

Tier1Availability LocalModelRunner::checkAvailability() {
  const Result<Answer> models = get("/v1/models");
  if (models.ok() && models.value().status == 200 &&
      LocalModelProtocol::listsModel(models.value().body, settings_.model)) {
    return Tier1Availability::available();
  }
  return Tier1Availability::unavailable(Tier1Availability::kModelNotReady);
}

int64_t LocalModelRunner::measureTokens(std::string_view text) {
  if (tokensAreMeasured()) {
    const Result<Answer> answer = post("/tokenize", LocalModelProtocol::tokenizeRequest(text));
    if (answer.ok() && answer.value().status == 200) {
      if (const auto n = LocalModelProtocol::tokenCountFromTokenize(answer.value().body))
        return std::max<int64_t>(*n, 1);
    }
  }
  return Tier1Tokens::estimate(text);
}

ChunkAttemptOutcome<std::string> LocalModelRunner::summarizeChunk(std::string_view text) {
  return chat(LocalModelProtocol::chatRequest(settings_.model, Tier1Prompts::summarizeChunk(text)));
}

ChunkAttemptOutcome<std::string> LocalModelRunner::combineBatch(const std::vector<std::string>& summaries) {
  if (summaries.size() == 1) return ChunkAttemptOutcome<std::string>::success(summaries.front());
  return chat(LocalModelProtocol::chatRequest(settings_.model, Tier1Prompts::combineBatch(summaries)));
}

ChunkAttemptOutcome<GeneratedHandoffResult> LocalModelRunner::generateHandoff(std::string_view combinedSummary) {
  using Outcome = ChunkAttemptOutcome<GeneratedHandoffResult>;
  const ChunkAttemptOutcome<std::string> text =
      chat(LocalModelProtocol::chatRequest(settings_.model, Tier1Prompts::generateHandoff(combinedSummary),
                                           CloseoutGeneratedHandoff::kName, CloseoutGeneratedHandoff::jsonSchema()));
  switch (text.kind) {
    case ChunkAttemptOutcome<std::string>::Kind::kTooLarge: return Outcome::tooLarge();
    case ChunkAttemptOutcome<std::string>::Kind::kOtherFailure: return Outcome::otherFailure(text.reason);
    case ChunkAttemptOutcome<std::string>::Kind::kSuccess: break;
  }
  Result<GeneratedHandoffResult> handoff = CloseoutGeneratedHandoff::decode(*text.value);
  if (!handoff.ok()) return Outcome::otherFailure("the handoff does not fit its schema: " + handoff.error().message);
  return Outcome::success(std::move(handoff).value());
}

}  // namespace ostler
