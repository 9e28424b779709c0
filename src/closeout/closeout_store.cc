#include "closeout/closeout_store.h"

#include <utility>

#include "platform/process.h"
#include "platform/sha256.h"

namespace ostler {
namespace {

constexpr std::string_view kFileName = "store.json";

// One folder name, so that `{base}/{sessionId}` stays inside `base`.
bool isFolderName(std::string_view sessionId) {
  return !sessionId.empty() && sessionId != "." && sessionId != ".." &&
         sessionId.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

// A folder made by another user is not ours to read, fill or remove.
bool ownedByAnother(FileSystem& fs, const std::string& dir) {
  auto info = fs.stat(dir);
  return info && !info.value().ownedByUser;
}

template <typename T>
void appendTo(std::optional<std::vector<T>>& list, std::span<const T> items) {
  if (!list) list.emplace();
  list->insert(list->end(), items.begin(), items.end());
}

}  // namespace

std::string CloseoutChunk::hash(std::string_view sourceText) { return sha256Hex(sourceText); }

std::string CloseoutChunk::leafIdentityHash() const {
  if (pieceCount < 2) return contentHash;
  return contentHash + "#" + std::to_string(pieceIndex) + "of" + std::to_string(pieceCount);
}

CloseoutStoreState CloseoutStoreState::fresh(std::string sessionId) {
  CloseoutStoreState state;
  state.sessionId = std::move(sessionId);
  return state;
}

int64_t CloseoutStoreState::treeCoveredChunkCount() const {
  if (tree.levels.empty()) return chunks.empty() ? 0 : 1;
  int64_t covered = 0;
  for (const CloseoutTree::Node& node : tree.levels.front().nodes)
    covered += static_cast<int64_t>(node.childHashes.size());
  return covered;
}

bool CloseoutStoreState::isDirty() const { return treeCoveredChunkCount() < static_cast<int64_t>(chunks.size()); }

int64_t CloseoutStoreState::degradedNodeCount() const {
  int64_t count = 0;
  for (const CloseoutTree::Level& level : tree.levels)
    for (const CloseoutTree::Node& node : level.nodes) count += node.degraded ? 1 : 0;
  return count;
}

void CloseoutStoreState::appendDispatchRecords(std::span<const CloudDispatchRecord> records) {
  dispatchRecords.insert(dispatchRecords.end(), records.begin(), records.end());
}

void CloseoutStoreState::appendCostRecords(std::span<const CostRecord> records) { appendTo(costRecords, records); }

void CloseoutStoreState::appendPricingFailures(std::span<const CloseoutPricingFailure> failures) {
  appendTo(pricingFailures, failures);
}

namespace CloseoutStore {

std::string defaultBaseDirectory(std::string_view home, const std::optional<std::string>& xdgDataHome) {
  // An XDG base directory counts only when absolute.
  std::string data = xdgDataHome && xdgDataHome->starts_with('/') ? *xdgDataHome : std::string(home) + "/.local/share";
  return data + "/Ostler/closeout";
}

std::string defaultBaseDirectory() {
  return defaultBaseDirectory(environmentVariable("HOME").value_or(""), environmentVariable("XDG_DATA_HOME"));
}

std::string directory(std::string_view sessionId, std::string_view base) { return joinPath(base, sessionId); }

std::optional<CloseoutStoreState> load(std::string_view sessionId, std::string_view base, FileSystem& fs) {
  if (!isFolderName(sessionId)) return std::nullopt;
  const std::string dir = directory(sessionId, base);
  if (ownedByAnother(fs, dir)) return std::nullopt;
  auto bytes = readWholeFile(fs, joinPath(dir, kFileName));
  if (!bytes) return std::nullopt;
  auto state = CloseoutStoreState::decode(bytes.value());
  if (state && state.value().schemaVersion == kCurrentSchemaVersion && state.value().sessionId == sessionId)
    return std::move(state).value();
  (void)removeTree(fs, dir);
  return std::nullopt;
}

Status save(const CloseoutStoreState& state, std::string_view base, FileSystem& fs) {
  if (!isFolderName(state.sessionId))
    return Error{"cannot save a closeout store for session id \"" + state.sessionId + "\""};
  const std::string dir = directory(state.sessionId, base);
  if (Status made = fs.makeDirectories(dir, 0700); !made) return made;
  if (ownedByAnother(fs, dir)) return fileError("refusing", dir, "it belongs to another user");
  auto encoded = state.encodedJSON();
  if (!encoded) return encoded.error();
  auto written = writeWholeFile(fs, joinPath(dir, kFileName), encoded.value());
  if (!written) return written.error();
  return {};
}

void remove(std::string_view sessionId, std::string_view base, FileSystem& fs) {
  if (!isFolderName(sessionId)) return;
  const std::string dir = directory(sessionId, base);
  if (ownedByAnother(fs, dir)) return;
  (void)removeTree(fs, dir);
}

}  // namespace CloseoutStore
}  // namespace ostler
