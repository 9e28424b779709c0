// `ostler prepare`, run as a user runs it, against a model server on
// 127.0.0.1 that answers as an OpenAI-compatible one does.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "closeout/closeout_store.h"
#include "closeout/model/fake_model_server.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using testing::FakeModelServer;
using testing::Outcome;
using testing::quoted;
using testing::runOstler;
using testing::TempDir;
using Json = nlohmann::json;
using Reply = FakeModelServer::Reply;

std::string words(int n, int from) {
  std::string out;
  for (int i = from; i < from + n; ++i) out += (i > from ? " w" : "w") + std::to_string(i);
  return out;
}

std::string userLine(const std::string& text) {
  return Json{{"type", "user"}, {"cwd", "/repo"}, {"message", {{"content", text}}}}.dump();
}

std::string completionText(const std::string& content) {
  return Json{{"choices",
               {{{"index", 0}, {"message", {{"role", "assistant"}, {"content", content}}}, {"finish_reason", "stop"}}}}}
      .dump();
}

// A server that lists model "m", summarises every text as "a summary", and
// writes a fixed handoff when asked for the handoff's shape.
void answerAsAModel(FakeModelServer& server) {
  server.on("GET", "/v1/models", Reply{200, R"({"object":"list","data":[{"id":"m","object":"model"}]})"});
  server.on("POST", "/v1/chat/completions", [](const std::string& body) {
    if (!Json::parse(body).contains("response_format")) return Reply{200, completionText("a summary")};
    const Json handoff = {{"state", "Work went on."},
                          {"decisions", "Kept it small."},
                          {"next", "Carry on."},
                          {"filesTouched", "- src/a.cc"},
                          {"docUpdates", Json::array()}};
    return Reply{200, completionText(handoff.dump())};
  });
}

class Fixture {
 public:
  Fixture() {
    testing::writeFile(dir.path() / "home" / ".keep", "");
    testing::writeFile(dir.path() / "projects" / "-repo" / "chat-1.jsonl",
                       testing::jsonl({userLine(words(200, 0)), userLine(words(200, 1000)), userLine(words(200, 2000)),
                                       userLine(words(200, 3000))}));
  }
  void configure(const std::string& url) {
    testing::writeFile(dir.path() / "config" / "ostler" / "settings.json",
                       Json{{"ostler.local_model.url", url},
                            {"ostler.local_model.model", "m"},
                            {"ostler.local_model.context_size", 1000}}
                           .dump());
  }
  std::string env() const {
    return "HOME=" + quoted(dir.str() + "/home") + " XDG_CONFIG_HOME=" + quoted(dir.str() + "/config") +
           " XDG_DATA_HOME=" + quoted(dir.str() + "/data");
  }
  std::string args(const std::string& extra = "") const {
    return "prepare chat-1 --root " + quoted(dir.str() + "/projects") + extra;
  }
  std::filesystem::path transcript() const { return dir.path() / "projects" / "-repo" / "chat-1.jsonl"; }
  std::string store() const { return dir.str() + "/data/Ostler/closeout/chat-1/store.json"; }

  TempDir dir;
};

TEST(PrepareCommandTest, PreparesAChatAndASecondRunSummarisesOnlyWhatIsNew) {
  Fixture f;
  FakeModelServer server;
  answerAsAModel(server);
  f.configure(server.url());

  const Outcome first = runOstler(f.args(" --json"), f.env());
  ASSERT_EQ(first.status, 0) << first.err;
  const Json out = Json::parse(first.out);
  std::vector<std::string> keys;
  for (const auto& [key, value] : out.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"document", "handoff", "model_calls", "session_id", "store", "verdict"}));
  EXPECT_EQ(out.at("session_id"), "chat-1");
  EXPECT_EQ(out.at("store"), f.store());
  const auto firstCalls = static_cast<int64_t>(server.bodiesTo("/v1/chat/completions").size());
  EXPECT_EQ(out.at("model_calls"), firstCalls);
  EXPECT_EQ(out.at("handoff"), out.at("document").at("handoff"));
  EXPECT_NE(out.at("handoff").get<std::string>().find("## FILES TOUCHED\n- src/a.cc"), std::string::npos);
  EXPECT_EQ(out.at("document").at("cost").at("tier"), "tier1");
  EXPECT_TRUE(out.at("verdict").contains("overall_pass"));
  auto stored = CloseoutStoreState::decode(testing::readFile(f.store()));
  ASSERT_TRUE(stored.ok()) << stored.error().message;
  EXPECT_EQ(stored.value().tailOffset, static_cast<int64_t>(std::filesystem::file_size(f.transcript())));
  const size_t firstChunks = stored.value().chunks.size();
  EXPECT_GE(firstChunks, 2u);
  ASSERT_TRUE(stored.value().bakedArtifact.has_value());

  // The grown chat: one new line, summarised on its own, the rest reused.
  testing::appendFile(f.transcript(), testing::jsonl({userLine(words(30, 5000))}));
  const Outcome second = runOstler(f.args(), f.env());
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(second.out.rfind("## STATE\n", 0), 0u) << second.out;
  EXPECT_NE(second.out.find("C1"), std::string::npos) << "the verdict follows the handoff";
  const auto secondCalls = static_cast<int64_t>(server.bodiesTo("/v1/chat/completions").size()) - firstCalls;
  EXPECT_LT(secondCalls, firstCalls);
  auto grown = CloseoutStoreState::decode(testing::readFile(f.store()));
  ASSERT_TRUE(grown.ok());
  ASSERT_EQ(grown.value().chunks.size(), firstChunks + 1);
  EXPECT_TRUE(std::equal(stored.value().chunks.begin(), stored.value().chunks.end(), grown.value().chunks.begin()));
}

TEST(PrepareCommandTest, SaysWhyNoHandoffWasMade) {
  Fixture f;
  // No settings: no model.
  const Outcome plain = runOstler(f.args(), f.env());
  EXPECT_EQ(plain.status, 1);
  EXPECT_TRUE(plain.out.empty());
  EXPECT_EQ(testing::linesOf(plain.err), (std::vector<std::string>{"ostler: no local model is configured"}));
  const Outcome json = runOstler(f.args(" --json"), f.env());
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(Json::parse(json.out), (Json{{"session_id", "chat-1"}, {"reason", "no local model is configured"}}));

  // A server that does not list the model.
  FakeModelServer server;
  f.configure(server.url());
  const Outcome notReady = runOstler(f.args(), f.env());
  EXPECT_EQ(notReady.status, 1);
  EXPECT_EQ(notReady.err.rfind("ostler: the local model is not ready: ", 0), 0u) << notReady.err;
  EXPECT_TRUE(server.bodiesTo("/v1/chat/completions").empty());

  // A transcript path with nothing in it yet.
  answerAsAModel(server);
  testing::writeFile(f.dir.path() / "empty.jsonl", "{\"type\":\"user\",\"cwd\":\"/repo\"}");
  const Outcome empty = runOstler("prepare " + quoted(f.dir.str() + "/empty.jsonl"), f.env());
  EXPECT_EQ(empty.status, 1);
  EXPECT_EQ(testing::linesOf(empty.err), (std::vector<std::string>{"ostler: nothing to summarise yet"}));

  // A usage error: one line, then the usage, and status 2.
  const Outcome usage = runOstler("prepare", f.env());
  EXPECT_EQ(usage.status, 2);
  EXPECT_EQ(usage.err.rfind("ostler: ", 0), 0u);
  EXPECT_NE(usage.err.find("SESSION"), std::string::npos);
}

}  // namespace
}  // namespace ostler
