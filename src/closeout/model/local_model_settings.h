// Which local model server the on-device runner uses, as the user's settings
// file says: one JSON object whose keys are the settings' names. A missing
// or unreadable file, and any key that is absent or of the wrong type, read
// as the default; with no server or no model named there is no runner.
//
// Chat text is private, so by default the server must be on this machine:
// a URL whose host is not a loopback address is refused before anything is
// sent, unless the user allows remote servers in so many words.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_system.h"
#include "platform/result.h"

namespace ostler {

struct LocalModelSettings {
  static constexpr std::string_view kUrlKey = "ostler.local_model.url";
  static constexpr std::string_view kModelKey = "ostler.local_model.model";
  static constexpr std::string_view kContextSizeKey = "ostler.local_model.context_size";
  static constexpr std::string_view kAllowRemoteKey = "ostler.local_model.allow_remote";
  static constexpr std::string_view kConnectTimeoutKey = "ostler.local_model.connect_timeout_seconds";
  static constexpr std::string_view kTimeoutKey = "ostler.local_model.timeout_seconds";

  std::string url;                     // the server's root, "http://127.0.0.1:8080"; empty: none configured
  std::string model;                   // the model's name as the server lists it; empty: none configured
  std::optional<int64_t> contextSize;  // the window in tokens; absent: asked of the server
  bool allowRemote = false;            // whether a server off this machine may be sent chat text
  double connectTimeoutSeconds = 5;    // to wait for a connection
  double timeoutSeconds = 300;         // to wait for the answer to one request

  [[nodiscard]] bool configured() const { return !url.empty() && !model.empty(); }

  // The settings that `json` holds; defaults for what it lacks or is not
  // an object. A value out of range (a time-out or a window not above 0)
  // counts as absent.
  [[nodiscard]] static LocalModelSettings parse(std::string_view json);
  // The settings file at `path`; all defaults when it cannot be read.
  [[nodiscard]] static LocalModelSettings read(FileSystem& fs, const std::string& path);
  // "$XDG_CONFIG_HOME/ostler/settings.json", or "~/.config/ostler/settings.json"
  // when that is unset or not absolute.
  [[nodiscard]] static std::string defaultPath(std::string_view home, const std::optional<std::string>& xdgConfigHome);
};

// A server's root URL taken apart.
struct ServerAddress {
  std::string scheme;    // "http" or "https"
  std::string host;      // as written, without the brackets of an IPv6 address
  int port = 0;          // as written, else the scheme's
  std::string basePath;  // what precedes "/v1/...", without a final slash; often empty

  // "scheme://host:port", the form an HTTP client is handed.
  [[nodiscard]] std::string origin() const;
};

// `url` taken apart; fails on a scheme other than http and https, a missing
// host or a port out of range.
[[nodiscard]] Result<ServerAddress> parseServerUrl(std::string_view url);

// Whether `host` names this machine: "localhost", an IPv4 address in
// 127.0.0.0/8 or the IPv6 loopback address.
[[nodiscard]] bool isLoopbackHost(std::string_view host);

// The address of the server that `settings` names, when chat text may be
// sent there: a host off this machine is refused, naming the host, unless
// `allowRemote` is set.
[[nodiscard]] Result<ServerAddress> permittedServer(const LocalModelSettings& settings);

}  // namespace ostler
