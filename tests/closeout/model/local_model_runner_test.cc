// The local model runner against a fake server on 127.0.0.1 that answers as
// llama.cpp's llama-server and as Ollama do: what it sends, and what each
// answer becomes.
#include "closeout/model/local_model_runner.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "closeout/model/closeout_generated_handoff.h"
#include "closeout/model/fake_model_server.h"
#include "closeout/model/tier1_prompts.h"

namespace ostler {
namespace {

using testing::FakeModelServer;
using Json = nlohmann::json;
using Kind = ChunkAttemptOutcome<std::string>::Kind;
using Reply = FakeModelServer::Reply;

std::string completion(const Json& message, const std::string& finish = "stop") {
  return Json{{"id", "chatcmpl-1"},
              {"object", "chat.completion"},
              {"choices", {{{"index", 0}, {"message", message}, {"finish_reason", finish}}}}}
      .dump();
}
std::string completionText(const std::string& content, const std::string& finish = "stop") {
  return completion({{"role", "assistant"}, {"content", content}}, finish);
}

const std::string kHandoffJson = R"({"state":"S.","decisions":"D.","next":"N.","filesTouched":"- a.cc\n- b.h",
  "docUpdates":[{"path":"README.md","rationale":"R.","patch":"+ x"}]})";

// llama-server: lists its model by alias, tells its window at /props and
// tokenizes at /tokenize (one token per word here).
void answerLikeLlamaCpp(FakeModelServer& server) {
  server.on("GET", "/v1/models", Reply{200, R"({"object":"list","data":[{"id":"qwen","object":"model"}]})"});
  server.on("GET", "/props", Reply{200, R"({"default_generation_settings":{"n_ctx":8192},"total_slots":1})"});
  server.on("POST", "/tokenize", [](const std::string& body) {
    const std::string text = Json::parse(body).at("content").get<std::string>();
    Json tokens = Json::array();
    for (size_t i = 0; i <= text.size(); i = text.find(' ', i) + 1) {
      tokens.push_back(7);
      if (text.find(' ', i) == std::string::npos) break;
    }
    return Reply{200, Json{{"tokens", tokens}}.dump()};
  });
}

// Ollama: lists models with their tag, and has neither /props nor /tokenize.
void answerLikeOllama(FakeModelServer& server) {
  server.on("GET", "/v1/models",
            Reply{200, R"({"object":"list","data":[{"id":"llama3.2:latest","object":"model","owned_by":"library"}]})"});
}

std::unique_ptr<LocalModelRunner> runnerOn(const std::string& url, const std::string& model, double timeout = 300) {
  LocalModelSettings settings;
  settings.url = url;
  settings.model = model;
  settings.timeoutSeconds = timeout;
  auto runner = LocalModelRunner::create(settings);
  EXPECT_TRUE(runner.ok()) << runner.error().message;
  return runner.ok() ? std::move(runner).value() : nullptr;
}

TEST(LocalModelRunnerTest, SendsOneUserMessageWithTheServersOwnGenerationSettings) {
  FakeModelServer server;
  answerLikeLlamaCpp(server);
  server.on("POST", "/v1/chat/completions", [](const std::string& body) {
    return Reply{200, Json::parse(body).contains("response_format") ? completionText(kHandoffJson)
                                                                    : completionText("a summary")};
  });
  auto runner = runnerOn(server.url() + "/", "qwen");

  const auto summary = runner->summarizeChunk("edited a.cc");
  ASSERT_EQ(summary.kind, Kind::kSuccess) << summary.reason;
  EXPECT_EQ(*summary.value, "a summary");
  const auto combined = runner->combineBatch({"one", "two"});
  ASSERT_EQ(combined.kind, Kind::kSuccess);
  const auto handoff = runner->generateHandoff("the whole chat");
  ASSERT_EQ(handoff.kind, ChunkAttemptOutcome<GeneratedHandoffResult>::Kind::kSuccess) << handoff.reason;
  EXPECT_EQ(*handoff.value, (GeneratedHandoffResult{"S.", "D.", "N.", "- a.cc\n- b.h", {{"README.md", "R.", "+ x"}}}));

  const std::vector<std::string> bodies = server.bodiesTo("/v1/chat/completions");
  ASSERT_EQ(bodies.size(), 3u);
  const std::vector<std::string> prompts = {Tier1Prompts::summarizeChunk("edited a.cc"),
                                            Tier1Prompts::combineBatch({"one", "two"}),
                                            Tier1Prompts::generateHandoff("the whole chat")};
  for (size_t i = 0; i < bodies.size(); ++i) {
    const Json request = Json::parse(bodies[i]);
    EXPECT_EQ(request.at("model"), "qwen");
    EXPECT_EQ(request.at("messages"), Json::array({{{"role", "user"}, {"content", prompts[i]}}}));
    for (const char* key : {"temperature", "max_tokens", "max_completion_tokens", "top_p", "seed"}) {
      EXPECT_FALSE(request.contains(key)) << key;
    }
    EXPECT_EQ(request.contains("response_format"), i == 2) << i;
  }
  EXPECT_NE(prompts[1].find("Summary 1: one\nSummary 2: two"), std::string::npos);

  // The schema goes with its descriptions, properties in the order the
  // model should write them.
  const nlohmann::ordered_json format = nlohmann::ordered_json::parse(bodies[2]).at("response_format");
  EXPECT_EQ(format.at("type"), "json_schema");
  EXPECT_EQ(format.at("json_schema").at("name"), "CloseoutGeneratedHandoff");
  const auto& schema = format.at("json_schema").at("schema");
  std::vector<std::string> order;
  for (const auto& [name, property] : schema.at("properties").items()) {
    order.push_back(name);
    EXPECT_FALSE(property.at("description").get<std::string>().empty()) << name;
  }
  EXPECT_EQ(order, (std::vector<std::string>{"state", "decisions", "next", "filesTouched", "docUpdates"}));
  EXPECT_EQ(schema.at("properties").at("filesTouched").at("description"),
            CloseoutGeneratedHandoff::kProperties[3].description);
  EXPECT_EQ(schema.at("properties").at("docUpdates").at("items").at("properties").at("patch").at("description"),
            "The proposed patch text. This is a proposal only and is never applied to any repo.");
  EXPECT_EQ(schema.at("required").size(), 5u);
}

TEST(LocalModelRunnerTest, CombiningOneSummaryAsksNothing) {
  FakeModelServer server;
  auto runner = runnerOn(server.url(), "qwen");
  const auto one = runner->combineBatch({"only"});
  ASSERT_EQ(one.kind, Kind::kSuccess);
  EXPECT_EQ(*one.value, "only");
  EXPECT_TRUE(server.requests().empty());
}

TEST(LocalModelRunnerTest, LearnsWindowTokenizerAndModelFromEachKindOfServer) {
  FakeModelServer llama;
  answerLikeLlamaCpp(llama);
  auto onLlama = runnerOn(llama.url(), "qwen");
  EXPECT_EQ(onLlama->checkAvailability(), Tier1Availability::available());
  EXPECT_EQ(onLlama->contextSize(), 8192);
  EXPECT_TRUE(onLlama->tokensAreMeasured());
  EXPECT_EQ(onLlama->measureTokens("one two three four five"), 5);
  EXPECT_EQ(runnerOn(llama.url(), "other")->checkAvailability(),
            Tier1Availability::unavailable(Tier1Availability::kModelNotReady));

  FakeModelServer ollama;
  answerLikeOllama(ollama);
  auto onOllama = runnerOn(ollama.url(), "llama3.2");
  EXPECT_EQ(onOllama->checkAvailability(), Tier1Availability::available()) << "a name without a tag is :latest";
  EXPECT_EQ(onOllama->contextSize(), LocalModelRunner::kFallbackContextSize);
  EXPECT_FALSE(onOllama->tokensAreMeasured());
  EXPECT_EQ(onOllama->measureTokens("123456789"), 2) << "the estimate: a token per four characters";
  EXPECT_EQ(onOllama->measureTokens(""), 1);
  EXPECT_EQ(runnerOn(ollama.url(), "llama3.2:1b")->checkAvailability().isAvailable, false);

  // The settings' window wins over the server's.
  LocalModelSettings settings;
  settings.url = llama.url();
  settings.model = "qwen";
  settings.contextSize = 2048;
  EXPECT_EQ(LocalModelRunner::create(settings).value()->contextSize(), 2048);

  // A server still loading its model answers 503.
  FakeModelServer loading;
  loading.on("GET", "/v1/models",
             Reply{503, R"({"error":{"code":503,"message":"Loading model","type":"unavailable_error"}})"});
  EXPECT_EQ(runnerOn(loading.url(), "qwen")->checkAvailability().reason, "modelNotReady");
}

TEST(LocalModelRunnerTest, EachAnswerOfEachServerBecomesItsOutcome) {
  struct Case {
    const char* what;
    int status;
    std::string body;
    Kind kind;
    std::string reason;  // for kOtherFailure: what the reason starts with
  };
  const std::vector<Case> cases = {
      {"llama.cpp window exceeded", 400,
       R"({"error":{"code":400,"message":"the request exceeds the available context size, try increasing it",)"
       R"("type":"exceed_context_size_error","n_prompt_tokens":5000,"n_ctx":4096}})",
       Kind::kTooLarge, ""},
      {"older llama.cpp, same error as a 500", 500,
       R"({"error":{"code":500,"message":"the request exceeds the available context size. try increasing )"
       R"(the context size or enable context shift","type":"exceed_context_size_error"}})",
       Kind::kTooLarge, ""},
      {"Ollama window exceeded", 400,
       R"({"error":{"message":"the input length exceeds the context length","type":"invalid_request_error",)"
       R"("param":null,"code":null}})",
       Kind::kTooLarge, ""},
      {"answer ran out of window", 200, completionText("half a sum", "length"), Kind::kTooLarge, ""},
      {"content filter", 200, completionText("", "content_filter"), Kind::kOtherFailure, "refusal"},
      {"refusal field", 200, completion({{"role", "assistant"}, {"content", nullptr}, {"refusal", "I can't."}}),
       Kind::kOtherFailure, "refusal"},
      {"llama.cpp 500", 500, R"({"error":{"code":500,"message":"Internal server error","type":"server_error"}})",
       Kind::kOtherFailure, "HTTP 500: Internal server error"},
      {"Ollama 500", 500, R"({"error":{"message":"model runner has unexpectedly stopped","type":"api_error"}})",
       Kind::kOtherFailure, "HTTP 500: model runner has unexpectedly stopped"},
      {"other 400", 400, R"({"error":{"code":400,"message":"invalid json_schema","type":"invalid_request_error"}})",
       Kind::kOtherFailure, "HTTP 400: invalid json_schema"},
      {"malformed body", 200, "<html>Bad Gateway</html>", Kind::kOtherFailure, "the server's answer is not JSON"},
      {"no choices", 200, R"({"choices":[]})", Kind::kOtherFailure, "the server's answer holds no choice"},
  };
  for (const Case& c : cases) {
    FakeModelServer server;
    server.on("POST", "/v1/chat/completions", Reply{c.status, c.body});
    auto runner = runnerOn(server.url(), "qwen");
    const auto outcome = runner->summarizeChunk("text");
    EXPECT_EQ(outcome.kind, c.kind) << c.what << ": " << outcome.reason;
    if (c.kind == Kind::kOtherFailure) {
      EXPECT_TRUE(outcome.reason.starts_with(c.reason)) << c.what << ": " << outcome.reason;
      if (c.reason == "refusal") {
        EXPECT_EQ(outcome.reason, "refusal") << c.what;
      }
    }
    // The handoff maps the same answers the same way.
    const auto handoff = runner->generateHandoff("summary");
    EXPECT_EQ(static_cast<int>(handoff.kind), static_cast<int>(c.kind)) << c.what;
    EXPECT_EQ(handoff.reason, outcome.reason) << c.what;
  }
}

TEST(LocalModelRunnerTest, AHandoffOutsideItsSchemaIsAFailure) {
  FakeModelServer server;
  server.on("POST", "/v1/chat/completions", Reply{200, completionText(R"({"state":"S.","decisions":"D."})")});
  const auto handoff = runnerOn(server.url(), "qwen")->generateHandoff("summary");
  ASSERT_EQ(handoff.kind, ChunkAttemptOutcome<GeneratedHandoffResult>::Kind::kOtherFailure);
  EXPECT_EQ(handoff.reason, "the handoff does not fit its schema: the handoff has no \"next\"");
}

TEST(LocalModelRunnerTest, AServerThatIsDownOrHangsIsAFailureNotAWait) {
  FakeModelServer server;
  answerLikeLlamaCpp(server);
  server.on("POST", "/v1/chat/completions", Reply{200, "", /*hang=*/true});
  auto runner = runnerOn(server.url(), "qwen", /*timeout=*/1);
  const auto hung = runner->summarizeChunk("text");
  ASSERT_EQ(hung.kind, Kind::kOtherFailure);
  EXPECT_EQ(hung.reason, "POST " + server.url() + "/v1/chat/completions: no complete answer within 1 s");

  std::string url;
  {
    FakeModelServer gone;
    url = gone.url();
  }
  auto down = runnerOn(url, "qwen");
  EXPECT_EQ(down->checkAvailability().reason, "modelNotReady");
  const auto refused = down->summarizeChunk("text");
  ASSERT_EQ(refused.kind, Kind::kOtherFailure);
  EXPECT_EQ(refused.reason, "POST " + url + "/v1/chat/completions: cannot connect");
  EXPECT_EQ(down->contextSize(), LocalModelRunner::kFallbackContextSize);
  EXPECT_EQ(down->measureTokens("12345678"), 2) << "a failed measurement is estimated";
}

}  // namespace
}  // namespace ostler
