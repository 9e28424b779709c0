#include "daemon/state/persisted_state.h"

#include "daemon/state/persisted_state_codec.h"
#include "platform/sha256.h"

namespace ostler {
namespace {

// The parent folder of `path`, empty when it names none.
std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  return slash == 0 ? "/" : path.substr(0, slash);
}

template <typename State>
Result<uint64_t> saveState(FileSystem& fs, const State& state, const std::string& path) {
  if (const std::string dir = parentOf(path); !dir.empty())
    if (Status made = fs.makeDirectories(dir); !made) return made.error();
  auto replacement = fs.replace(path);
  if (!replacement) return replacement.error();
  FileReplacement& file = *replacement.value();
  // Written as it is encoded: the text runs to megabytes.
  Status written;
  (void)PersistedStateCodec::encode(state, [&](std::string_view piece) {
    written = file.append(piece);
    return written.ok();
  });
  if (!written) return written.error();
  return file.commit();
}

}  // namespace

namespace PersistedStateIO {

std::string defaultPath(const std::string& root) {
  return std::string(kScratchDirectory) + "/state-" + sha256Hex(root) + ".json";
}

Result<uint64_t> save(FileSystem& fs, const PersistedState& state, const std::string& path) {
  return saveState(fs, state, path);
}
Result<uint64_t> save(FileSystem& fs, const PersistedStateView& state, const std::string& path) {
  return saveState(fs, state, path);
}

std::optional<PersistedState> load(FileSystem& fs, const std::string& path, const std::string& expectedRoot) {
  // Saved states run to megabytes; one of hundreds is no state of ours.
  auto text = readWholeFile(fs, path, uint64_t{256} << 20, PersistedStateCodec::kPadding);
  if (!text) return std::nullopt;
  const std::string_view bytes(text.value().data(), text.value().size() - PersistedStateCodec::kPadding);
  return PersistedStateCodec::decode(bytes, expectedRoot, /*padded=*/true);
}

}  // namespace PersistedStateIO
}  // namespace ostler
