// Reading the local model's settings, and keeping chat text on this machine.
#include "closeout/model/local_model_settings.h"

#include <gtest/gtest.h>

#include "closeout/model/local_model_runner.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using testing::TempDir;

TEST(LocalModelSettingsTest, AbsentWrongOrUnreadableValuesReadAsDefaults) {
  TempDir dir;
  const LocalModelSettings missing = LocalModelSettings::read(systemFileSystem(), dir.str() + "/none.json");
  EXPECT_FALSE(missing.configured());
  EXPECT_EQ(missing.connectTimeoutSeconds, 5);
  EXPECT_EQ(missing.timeoutSeconds, 300);
  EXPECT_FALSE(missing.allowRemote);
  EXPECT_FALSE(missing.contextSize.has_value());

  testing::writeFile(dir.path() / "bad.json", "{not json");
  EXPECT_FALSE(LocalModelSettings::read(systemFileSystem(), dir.str() + "/bad.json").configured());

  const LocalModelSettings wrong = LocalModelSettings::parse(
      R"({"ostler.local_model.url": 8080, "ostler.local_model.model": "qwen",
          "ostler.local_model.context_size": -1, "ostler.local_model.allow_remote": "yes",
          "ostler.local_model.connect_timeout_seconds": 0, "ostler.local_model.timeout_seconds": "long"})");
  EXPECT_EQ(wrong.url, "");
  EXPECT_EQ(wrong.model, "qwen");
  EXPECT_FALSE(wrong.configured());
  EXPECT_FALSE(wrong.contextSize.has_value());
  EXPECT_FALSE(wrong.allowRemote);
  EXPECT_EQ(wrong.connectTimeoutSeconds, 5);
  EXPECT_EQ(wrong.timeoutSeconds, 300);

  testing::writeFile(dir.path() / "settings.json",
                     R"({"ostler.cloud_pin_mode": "auto", "ostler.local_model.url": "http://127.0.0.1:11434",
                         "ostler.local_model.model": "llama3.2", "ostler.local_model.context_size": 8192,
                         "ostler.local_model.allow_remote": true, "ostler.local_model.connect_timeout_seconds": 1.5,
                         "ostler.local_model.timeout_seconds": 60})");
  const LocalModelSettings full = LocalModelSettings::read(systemFileSystem(), dir.str() + "/settings.json");
  EXPECT_TRUE(full.configured());
  EXPECT_EQ(full.url, "http://127.0.0.1:11434");
  EXPECT_EQ(full.contextSize, 8192);
  EXPECT_TRUE(full.allowRemote);
  EXPECT_EQ(full.connectTimeoutSeconds, 1.5);
  EXPECT_EQ(full.timeoutSeconds, 60);
}

TEST(LocalModelSettingsTest, FileLivesUnderTheConfigHome) {
  EXPECT_EQ(LocalModelSettings::defaultPath("/home/u", std::nullopt), "/home/u/.config/ostler/settings.json");
  EXPECT_EQ(LocalModelSettings::defaultPath("/home/u", "/cfg"), "/cfg/ostler/settings.json");
  EXPECT_EQ(LocalModelSettings::defaultPath("/home/u", "relative"), "/home/u/.config/ostler/settings.json");
}

TEST(LocalModelSettingsTest, ServerUrlsAreTakenApart) {
  const auto address = [](std::string_view url) {
    const Result<ServerAddress> a = parseServerUrl(url);
    return a.ok() ? a.value().origin() + "|" + a.value().basePath : "error";
  };
  EXPECT_EQ(address("http://127.0.0.1:8080"), "http://127.0.0.1:8080|");
  EXPECT_EQ(address("HTTP://localhost:11434/"), "http://localhost:11434|");
  EXPECT_EQ(address("http://[::1]:8000/proxy/"), "http://[::1]:8000|/proxy");
  EXPECT_EQ(address("https://models.example"), "https://models.example:443|");
  EXPECT_EQ(address("http://localhost"), "http://localhost:80|");
  for (const char* bad : {"127.0.0.1:8080", "ftp://127.0.0.1", "http://", "http://:80", "http://h:0", "http://h:65536",
                          "http://h:80x", "http://[::1:80", "http://u@h", "http://h/?q"}) {
    EXPECT_EQ(address(bad), "error") << bad;
  }
}

TEST(LocalModelSettingsTest, ChatTextStaysOnThisMachineUnlessAllowed) {
  for (const char* host : {"localhost", "LOCALHOST", "127.0.0.1", "127.255.0.9", "::1"}) {
    EXPECT_TRUE(isLoopbackHost(host)) << host;
  }
  for (const char* host : {"128.0.0.1", "10.0.0.2", "127.0.0.1.evil.example", "localhost.example", "127.0.0.256", "::2",
                           "0.0.0.0", "example.com"}) {
    EXPECT_FALSE(isLoopbackHost(host)) << host;
  }

  LocalModelSettings settings;
  settings.url = "http://192.0.2.7:8080";
  settings.model = "qwen";
  // Refused before any connection: the address is reserved for
  // documentation, and nothing listens there.
  const auto refused = LocalModelRunner::create(settings);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().message,
            "refusing to send chat text to 192.0.2.7: not a loopback address (set ostler.local_model.allow_remote to "
            "allow it)");
  settings.allowRemote = true;
  EXPECT_TRUE(LocalModelRunner::create(settings).ok());

  TempDir dir;
  testing::writeFile(dir.path() / "settings.json",
                     R"({"ostler.local_model.url": "http://gpu-box:8080", "ostler.local_model.model": "qwen"})");
  const auto fromFile = Tier1RunnerFactory::runnerFromSettings(systemFileSystem(), dir.str() + "/settings.json");
  ASSERT_FALSE(fromFile.ok());
  EXPECT_TRUE(fromFile.error().message.starts_with("refusing to send chat text to gpu-box: "));
  const auto none = Tier1RunnerFactory::runnerFromSettings(systemFileSystem(), dir.str() + "/missing.json");
  ASSERT_TRUE(none.ok());
  EXPECT_EQ(none.value(), nullptr) << "nothing configured, no runner";
}

}  // namespace
}  // namespace ostler
