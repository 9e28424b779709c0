#include "daemon/persisted_state.h"

#include <openssl/evp.h>
#include <simdjson.h>

#include <filesystem>

#include <fmt/format.h>

#include "daemon/atomic_file.h"
#include "daemon/persisted_state_codec.h"

namespace ostler {
namespace {

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

}  // namespace

namespace PersistedStateIO {

std::string defaultPath(const std::string& root) {
  return std::string(kScratchDirectory) + "/state-" + sha256Hex(root) + ".json";
}

namespace {

template <typename State>
Result<int64_t> saveState(const State& state, const std::string& path) {
  std::filesystem::path dir = std::filesystem::path(path).parent_path();
  if (!dir.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) return Error{"cannot create " + dir.string() + ": " + ec.message()};
  }
  // Written as it is encoded: the text runs to megabytes.
  AtomicFile::Replacement file(path);
  if (file.ok())
    (void)PersistedStateCodec::encode(state, [&file](std::string_view piece) { return file.append(piece); });
  return file.commit();
}

}  // namespace

Result<int64_t> save(const PersistedState& state, const std::string& path) { return saveState(state, path); }
Result<int64_t> save(const PersistedStateView& state, const std::string& path) { return saveState(state, path); }

std::optional<PersistedState> load(const std::string& path, const std::string& expectedRoot) {
  try {
    simdjson::padded_string text;
    if (simdjson::padded_string::load(path).get(text) != simdjson::SUCCESS) return std::nullopt;
    return PersistedStateCodec::decode(text, expectedRoot, /*padded=*/true);
  } catch (const std::exception&) {  // out of memory on a huge file
    return std::nullopt;
  }
}

}  // namespace PersistedStateIO
}  // namespace ostler
