#include "closeout/model/local_model_settings.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

namespace ostler {
namespace {

std::optional<double> positiveNumber(const nlohmann::json& doc, std::string_view key) {
  const auto it = doc.find(key);
  if (it == doc.end() || !it->is_number()) return std::nullopt;
  const double v = it->get<double>();
  return std::isfinite(v) && v > 0 ? std::optional<double>(v) : std::nullopt;
}

std::optional<std::string> text(const nlohmann::json& doc, std::string_view key) {
  const auto it = doc.find(key);
  if (it == doc.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

// The four decimal numbers of a dotted IPv4 address, each at most 255.
std::optional<std::array<int, 4>> ipv4(std::string_view host) {
  std::array<int, 4> parts{};
  size_t at = 0;
  for (int i = 0; i < 4; ++i) {
    if (i > 0) {
      if (at >= host.size() || host[at] != '.') return std::nullopt;
      ++at;
    }
    const char* begin = host.data() + at;
    const auto [end, ec] = std::from_chars(begin, host.data() + host.size(), parts[i]);
    if (ec != std::errc() || end == begin || end - begin > 3 || parts[i] > 255) return std::nullopt;
    at += static_cast<size_t>(end - begin);
  }
  if (at != host.size()) return std::nullopt;
  return parts;
}

}  // namespace

LocalModelSettings LocalModelSettings::parse(std::string_view json) {
  LocalModelSettings s;
  const nlohmann::json doc = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
  if (!doc.is_object()) return s;
  s.url = text(doc, kUrlKey).value_or("");
  s.model = text(doc, kModelKey).value_or("");
  if (const auto it = doc.find(kContextSizeKey); it != doc.end() && it->is_number_integer()) {
    if (it->get<int64_t>() > 0) s.contextSize = it->get<int64_t>();
  }
  if (const auto it = doc.find(kAllowRemoteKey); it != doc.end() && it->is_boolean()) s.allowRemote = it->get<bool>();
  s.connectTimeoutSeconds = positiveNumber(doc, kConnectTimeoutKey).value_or(s.connectTimeoutSeconds);
  s.timeoutSeconds = positiveNumber(doc, kTimeoutKey).value_or(s.timeoutSeconds);
  return s;
}

LocalModelSettings LocalModelSettings::read(FileSystem& fs, const std::string& path) {
  const Result<std::string> bytes = readWholeFile(fs, path, uint64_t{1} << 20);
  return bytes.ok() ? parse(bytes.value()) : LocalModelSettings{};
}

std::string LocalModelSettings::defaultPath(std::string_view home, const std::optional<std::string>& xdgConfigHome) {
  const std::string base =
      xdgConfigHome && xdgConfigHome->starts_with('/') ? *xdgConfigHome : joinPath(home, ".config");
  return joinPath(joinPath(base, "ostler"), "settings.json");
}

std::string ServerAddress::origin() const {
  const std::string h = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return scheme + "://" + h + ":" + std::to_string(port);
}

Result<ServerAddress> parseServerUrl(std::string_view url) {
  const auto bad = [&](std::string_view why) {
    return Error{"cannot use the model server URL \"" + std::string(url) + "\": " + std::string(why)};
  };
  ServerAddress a;
  const size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos) return bad("it has no scheme (http:// or https://)");
  a.scheme = std::string(url.substr(0, schemeEnd));
  for (char& c : a.scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (a.scheme != "http" && a.scheme != "https") return bad("only http and https are spoken");
  std::string_view rest = url.substr(schemeEnd + 3);
  const size_t pathStart = rest.find_first_of("/?#");
  std::string_view authority = rest.substr(0, pathStart);
  std::string_view path = pathStart == std::string_view::npos ? std::string_view{} : rest.substr(pathStart);
  if (path.find_first_of("?#") != std::string_view::npos) return bad("it has a query or a fragment");
  if (authority.find('@') != std::string_view::npos) return bad("it holds a user name");
  std::string_view port;
  if (authority.starts_with('[')) {
    const size_t close = authority.find(']');
    if (close == std::string_view::npos) return bad("its IPv6 address is not closed");
    a.host = std::string(authority.substr(1, close - 1));
    const std::string_view after = authority.substr(close + 1);
    if (!after.empty() && !after.starts_with(':')) return bad("its port cannot be read");
    if (!after.empty()) port = after.substr(1);
  } else {
    const size_t colon = authority.rfind(':');
    a.host = std::string(authority.substr(0, colon));
    if (colon != std::string_view::npos) port = authority.substr(colon + 1);
  }
  if (a.host.empty()) return bad("it names no host");
  a.port = a.scheme == "https" ? 443 : 80;
  if (!port.empty()) {
    const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), a.port);
    if (ec != std::errc() || end != port.data() + port.size() || a.port < 1 || a.port > 65535) {
      return bad("its port cannot be read");
    }
  }
  while (path.ends_with('/')) path.remove_suffix(1);
  a.basePath = std::string(path);
  return a;
}

bool isLoopbackHost(std::string_view host) {
  std::string lower(host);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "localhost" || lower == "localhost." || lower == "::1" || lower == "0:0:0:0:0:0:0:1") return true;
  const auto v4 = ipv4(lower);
  return v4 && (*v4)[0] == 127;
}

Result<ServerAddress> permittedServer(const LocalModelSettings& settings) {
  Result<ServerAddress> address = parseServerUrl(settings.url);
  if (!address.ok()) return address;
  if (!settings.allowRemote && !isLoopbackHost(address.value().host)) {
    return Error{"refusing to send chat text to " + address.value().host +
                 ": not a loopback address (set ostler.local_model.allow_remote to allow it)"};
  }
  return address;
}

}  // namespace ostler
