// Reading what model servers answer, without a server: the wordings of a
// full window, the lists of models, and handoffs that miss their shape.
#include "closeout/model/local_model_protocol.h"

#include <gtest/gtest.h>

#include "closeout/model/closeout_generated_handoff.h"

namespace ostler {
namespace {

using LocalModelProtocol::Answer;
using LocalModelProtocol::isContextLengthError;

TEST(LocalModelProtocolTest, TellsAFullWindowFromOtherBadRequests) {
  // vLLM, LM Studio and OpenAI-style servers word it their own ways.
  EXPECT_TRUE(
      isContextLengthError({400, R"({"object":"error","message":"This model's maximum context length is )"
                                 R"(4096 tokens. However, you requested 5000 tokens.","type":"BadRequestError"})"}));
  EXPECT_TRUE(isContextLengthError(
      {400, R"({"error":{"message":"Trying to keep the first 5000 tokens when context the overflows. However, the )"
            R"(model is loaded with context length of only 4096 tokens, which is not enough."}})"}));
  EXPECT_TRUE(isContextLengthError({400, R"({"error":{"message":"too long","code":"context_length_exceeded"}})"}));
  EXPECT_TRUE(isContextLengthError({413, R"({"detail":"Prompt too long"})"}));
  // A full window is a bad request: the same words at another status are a
  // server's own trouble, except under llama.cpp's type of its own.
  EXPECT_FALSE(isContextLengthError({500, R"({"error":{"message":"context size of the KV cache exceeded"}})"}));
  EXPECT_FALSE(isContextLengthError({400, R"({"error":{"message":"'messages' must not be empty"}})"}));
  EXPECT_FALSE(isContextLengthError({400, "context"}));
}

TEST(LocalModelProtocolTest, FindsTheModelInTheServersList) {
  const std::string list = R"({"data":[{"id":"qwen"},{"id":"llama3.2:latest"},{"id":"mistral:7b"},{"name":"x"}]})";
  EXPECT_TRUE(LocalModelProtocol::listsModel(list, "qwen"));
  EXPECT_TRUE(LocalModelProtocol::listsModel(list, "llama3.2"));
  EXPECT_TRUE(LocalModelProtocol::listsModel(list, "mistral:7b"));
  EXPECT_FALSE(LocalModelProtocol::listsModel(list, "mistral"));
  EXPECT_FALSE(LocalModelProtocol::listsModel(list, "x"));
  EXPECT_FALSE(LocalModelProtocol::listsModel("[]", "qwen"));
}

TEST(LocalModelProtocolTest, HandoffMustFillEveryPropertyWithItsType) {
  const auto reason = [](std::string_view json) {
    const Result<GeneratedHandoffResult> r = CloseoutGeneratedHandoff::decode(json);
    return r.ok() ? std::string("ok") : r.error().message;
  };
  const std::string four = R"("state":"S","decisions":"D","next":"N","filesTouched":"- a")";
  EXPECT_EQ(reason("{" + four + R"(,"docUpdates":[]})"), "ok");
  EXPECT_EQ(reason(R"(["state"])"), "the handoff is not a JSON object");
  EXPECT_EQ(reason(R"({"state":"S","decisions":"D","next":3,"filesTouched":"","docUpdates":[]})"),
            "the handoff \"next\" is not a string");
  EXPECT_EQ(reason("{" + four + "}"), "the handoff has no \"docUpdates\" list");
  EXPECT_EQ(reason("{" + four + R"(,"docUpdates":["README.md"]})"), "a documentation update is not an object");
  EXPECT_EQ(reason("{" + four + R"(,"docUpdates":[{"path":"a","rationale":"r"}]})"),
            "a documentation update has no \"patch\"");
}

}  // namespace
}  // namespace ostler
