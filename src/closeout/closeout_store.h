// Everything the closeout pipeline knows about one chat, in one JSON file
// per session: how far the transcript has been read, the summary of each
// piece, the tree that reduces them to one, the latest prepared handoff, and
// every failure and cloud run with its cost. It is the pipeline's only
// memory: a pass resumes from what the store holds, and a growing
// transcript only adds to it.
//
// The pipeline changes a `CloseoutStoreState` as a value and never touches
// the file; its callers load and save. The file is not locked: callers that
// may race re-read the lists that hold money just before saving, and the
// atomic replacement keeps every reader on a whole file.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "closeout/checks.h"
#include "closeout/closeout_document.h"
#include "closeout/closeout_failure_kind.h"
#include "closeout/closeout_tree.h"
#include "closeout/cloud_dispatch_record.h"
#include "platform/file_system.h"
#include "platform/result.h"

namespace ostler {

// One summarised piece of the transcript. A macro chunk (whole lines, at
// least a word budget of them) may be cut into several pieces; all of them
// share its bytes and its hash.
struct CloseoutChunk {
  int64_t index = 0;           // position in the store's chunks, from 0
  int64_t byteStart = 0;       // first byte of the macro chunk
  int64_t byteEnd = 0;         // the line feed that ends the macro chunk
  int64_t measuredTokens = 0;  // the model's token measure of the piece's source text
  std::string summary;
  std::string contentHash;  // hash of the macro chunk's whole chunkable text
  int64_t pieceIndex = 1;   // place among the macro chunk's outcomes, from 1
  int64_t pieceCount = 1;   // the macro chunk's outcomes, failures included

  // The hash of a piece's source text: SHA-256 of its UTF-8 bytes in
  // lowercase hexadecimal, the same function as `CloseoutTree::hash`.
  [[nodiscard]] static std::string hash(std::string_view sourceText);

  // The chunk's identity as a leaf of the tree: `contentHash` alone for a
  // macro chunk of one piece, else "{contentHash}#{pieceIndex}of{pieceCount}",
  // since its pieces share the hash.
  [[nodiscard]] std::string leafIdentityHash() const;

  friend bool operator==(const CloseoutChunk&, const CloseoutChunk&) = default;
};

// A piece that gave no summary; its text is passed over for good.
struct CloseoutChunkFailure {
  int64_t byteStart = 0;
  int64_t byteEnd = 0;
  std::string contentHash;
  CloseoutFailureKind kind = CloseoutFailureKind::kOther;
  int64_t pieceIndex = 1;
  int64_t pieceCount = 1;

  friend bool operator==(const CloseoutChunkFailure&, const CloseoutChunkFailure&) = default;
};

// The handoff prepared ahead of any click.
struct CloseoutBakedArtifact {
  CloseoutDocument document;
  Checks::Verdict verdict;
  int64_t sourceTailOffset = 0;  // the tail offset it was made from

  friend bool operator==(const CloseoutBakedArtifact&, const CloseoutBakedArtifact&) = default;
};

struct CloseoutGenerationFailure {
  CloseoutFailureKind kind = CloseoutFailureKind::kOther;
  std::string reason;

  friend bool operator==(const CloseoutGenerationFailure&, const CloseoutGenerationFailure&) = default;
};

// A cloud run that could not be priced.
struct CloseoutPricingFailure {
  std::string sessionId;  // the cloud run's session
  std::string reason;

  friend bool operator==(const CloseoutPricingFailure&, const CloseoutPricingFailure&) = default;
};

namespace CloseoutStore {
inline constexpr int64_t kCurrentSchemaVersion = 6;
}  // namespace CloseoutStore

// The whole store of one chat. Its lists only grow, the tree changes only
// by extension, and the artifact is replaced by each newer one.
struct CloseoutStoreState {
  int64_t schemaVersion = CloseoutStore::kCurrentSchemaVersion;
  std::string sessionId;
  int64_t tailOffset = 0;  // the first transcript byte that no closed macro chunk covers
  std::vector<CloseoutChunk> chunks;
  CloseoutTree::Tree tree;
  std::vector<CloseoutChunkFailure> failures;
  std::vector<CloseoutReduceFailure> reduceFailures;
  std::vector<CloudDispatchRecord> dispatchRecords;
  std::optional<CloseoutBakedArtifact> bakedArtifact;
  std::vector<CloseoutGenerationFailure> generationFailures;
  std::optional<int64_t> lastGenerationAttemptTailOffset;  // one tail, one attempt at a bake
  std::optional<std::vector<CostRecord>> costRecords;
  std::optional<std::vector<CloseoutPricingFailure>> pricingFailures;

  // A new store: the session's id, offset 0, nothing else.
  [[nodiscard]] static CloseoutStoreState fresh(std::string sessionId);

  // How many chunks the tree covers: the children of level 0, or without
  // levels 1 when there are chunks (one chunk is its own root) and 0 when
  // there are none.
  [[nodiscard]] int64_t treeCoveredChunkCount() const;
  // The tree covers fewer chunks than there are.
  [[nodiscard]] bool isDirty() const;
  // Nodes marked degraded, over all levels.
  [[nodiscard]] int64_t degradedNodeCount() const;

  // Add to the end of their lists; an absent list becomes an empty one first.
  void appendDispatchRecords(std::span<const CloudDispatchRecord> records);
  void appendCostRecords(std::span<const CostRecord> records);
  void appendPricingFailures(std::span<const CloseoutPricingFailure> failures);

  // Compact JSON, keys the field names in field order, absent optionals left
  // out, instants as seconds since 2001-01-01 00:00:00 UTC. Fails on a
  // figure without a JSON form (NaN or infinite).
  [[nodiscard]] Result<std::string> encodedJSON() const;
  // Keys in any order; unknown keys ignored, null read as absent. Fails on
  // bytes that are not such an object, lack a required field or hold a
  // field of the wrong type. The schema version is read, not judged.
  [[nodiscard]] static Result<CloseoutStoreState> decode(std::string_view bytes);

  friend bool operator==(const CloseoutStoreState&, const CloseoutStoreState&) = default;
};

// The store's file: `{base}/{sessionId}/store.json`. A session id must name
// one folder: an empty one, "." or "..", or one holding a slash or a NUL, is
// no store at all, so that nothing outside `base` is ever read or removed.
namespace CloseoutStore {

// "$XDG_DATA_HOME/Ostler/closeout", or "~/.local/share/Ostler/closeout" when
// that is unset or not absolute, for the given home and XDG_DATA_HOME.
[[nodiscard]] std::string defaultBaseDirectory(std::string_view home, const std::optional<std::string>& xdgDataHome);
// The same for the process's own environment.
[[nodiscard]] std::string defaultBaseDirectory();

// `base` joined with `sessionId`.
[[nodiscard]] std::string directory(std::string_view sessionId, std::string_view base);

// The session's store, or nothing when there is none. A store that cannot
// be read is left alone. One that does not decode, or whose schema version
// is not the current one, or that belongs to another session, is removed
// with its folder (a failure to remove is ignored): old and damaged stores
// are thrown away, never migrated, and the session starts again from
// offset 0. A folder that belongs to another user is passed over untouched.
[[nodiscard]] std::optional<CloseoutStoreState> load(std::string_view sessionId, std::string_view base, FileSystem& fs);

// Writes `state` under its own session id, making the folder and any
// missing one above it (mode 0700), and replacing `store.json` atomically so
// that a reader sees the old file or the new one. Fails with the underlying
// error, on a folder of another user, and on an invalid session id.
[[nodiscard]] Status save(const CloseoutStoreState& state, std::string_view base, FileSystem& fs);

// Removes the session's folder and everything in it; failures are ignored,
// and a folder of another user is left alone.
void remove(std::string_view sessionId, std::string_view base, FileSystem& fs);

}  // namespace CloseoutStore
}  // namespace ostler
