#include "daemon/state/persisted_state_codec.h"

#include <algorithm>
#include <exception>

#include "daemon/state/json_record.h"

namespace ostler {

// Each record's keys, in byte order. Of a file's record, the image figures
// are required, and the figures of the open request came later: missing,
// they keep the defaults of a new file.
template <typename Io>
void describe(Io& io, RecordOf<FileMediaState> auto& m) {
  io.integer("nonImageStreak", m.nonImageStreak);
  io.integer("openContextTokens", m.openContextTokens, Presence::kDefaulted);
  io.number("openCostUSD", m.openCostUSD, Presence::kDefaulted);
  io.boolean("openCountsForToday", m.openCountsForToday, Presence::kDefaulted);
  io.string("openFamily", m.openFamily);
  io.boolean("openIsDuplicate", m.openIsDuplicate, Presence::kDefaulted);
  io.boolean("openIsStub", m.openIsStub, Presence::kDefaulted);
  io.integer("openOutputTokens", m.openOutputTokens, Presence::kDefaulted);
  io.string("openRequestId", m.openRequestId);
  io.boolean("openTurnCounted", m.openTurnCounted, Presence::kDefaulted);
  io.integer("pendingImageCount", m.pendingImageCount);
  io.integer("pendingImageTokens", m.pendingImageTokens);
  io.integer("runImageCount", m.runImageCount);
  io.instant("runLastImageAt", m.runLastImageAt);
  io.integer("runTokensSoFar", m.runTokensSoFar);
  io.number("runUsdSoFar", m.runUsdSoFar);
  io.string("sessionId", m.sessionId);
}

template <typename Io>
void describe(Io& io, RecordOf<SetupTaxCapture> auto& c) {
  io.integer("cache1h", c.cache1h);
  io.integer("cache5m", c.cache5m);
  io.integer("cacheRead", c.cacheRead);
  io.integer("input", c.input);
  io.string("model", c.model);
  io.integer("output", c.output);
  io.string("requestId", c.requestId);
}

template <typename Io>
void describe(Io& io, RecordOf<SessionLiveState> auto& s) {
  io.string("aiTitle", s.aiTitle);
  io.instant("contextTurnAt", s.contextTurnAt);
  io.string("customTitle", s.customTitle);
  io.string("firstUserMessage", s.firstUserMessage);
  io.instant("lastActivity", s.lastActivity);
  io.instant("lastCacheWriteAt", s.lastCacheWriteAt);
  io.boolean("lastCacheWriteWasEphemeral1h", s.lastCacheWriteWasEphemeral1h);
  io.integer("lastContextTokens", s.lastContextTokens);
  io.string("lastModel", s.lastModel);
  io.string("project", s.project);
  io.string("projectDirPath", s.projectDirPath);
  io.record("setupTax", s.setupTax);
  io.instant("setupTaxAt", s.setupTaxAt);
}

template <typename Io>
void describe(Io& io, RecordOf<BurnEvent> auto& b) {
  io.number("costUSD", b.costUSD);
  io.boolean("isFableFamily", b.isFableFamily);
  io.instant("timestamp", b.timestamp);
  io.integer("tokens", b.tokens);
}

template <typename Io>
void describe(Io& io, RecordOf<CutoffObservation> auto& w) {
  io.integer("tokens", w.tokens);
  io.number("valueUSD", w.valueUSD);
}

template <typename Io>
void describe(Io& io, RecordOf<WindowScan::ShapeFacts> auto& f) {
  io.instant("latestResetInstant", f.latestResetInstant);
  io.string("latestResetPhrase", f.latestResetPhrase);
  io.record("wall", f.wall);
}

template <typename Io>
void describe(Io& io, RecordOf<WindowScan::Walls> auto& w) {
  io.record("session", w.session);
  io.record("week", w.week);
  io.record("weekTopModel", w.weekTopModel);
}

// The whole state, from the engine's own fields or into a copy. Version
// and root are read like any other key: a file of another version or root
// is refused after reading, whatever else it holds.
template <typename Io, typename State>
  requires RecordOf<State, PersistedState> || RecordOf<State, PersistedStateView>
void describe(Io& io, State& s) {
  io.record("cachedWalls", s.cachedWalls);
  io.map("fileMediaState", s.fileMediaState);
  io.map("fileOffsets", s.fileOffsets);
  io.integer("newLinesSeen", s.newLinesSeen);
  io.integer("newLinesSkipped", s.newLinesSkipped);
  io.string("quotaLastEventAt", s.quotaLastEventAt);
  io.string("quotaResetsNote", s.quotaResetsNote);
  io.array("recentBurns", s.recentBurns);
  io.string("root", s.root);
  io.array("seenRequestIds", s.seenRequestIds);
  io.map("sessionState", s.sessionState);
  io.integer("stateVersion", s.stateVersion);
  io.map("subagentLastModel", s.subagentLastModel);
  io.instant("todayBoundary", s.todayBoundary);
  io.number("todaySpentUSD", s.todaySpentUSD);
  io.map("todayTokensByFamily", s.todayTokensByFamily);
  io.integer("todayTurns", s.todayTurns);
}

namespace PersistedStateCodec {
namespace {

static_assert(kPadding >= simdjson::SIMDJSON_PADDING);

// Pieces handed to a sink at a time: small enough to stay in the core's
// cache, large enough to take few writes.
constexpr size_t kPieceBytes = 256 << 10;

// Room for the whole text, so that it is built without reallocation: a
// generous guess from the sizes of the strings and the counts of records.
template <typename State>
size_t sizeGuess(const State& s) {
  size_t n = 4096 + s.root.size() + s.recentBurns.size() * 100;
  for (const auto& id : s.seenRequestIds) n += id.size() + 3;
  for (const auto& [path, offset] : s.fileOffsets) n += path.size() + 24;
  for (const auto& [path, m] : s.fileMediaState)
    n += path.size() + m.sessionId.size() + 520 + (m.openRequestId ? m.openRequestId->size() : 0);
  for (const auto& [id, st] : s.sessionState)
    n += id.size() + st.project.size() + st.projectDirPath.size() + st.lastModel.size() + 560 +
         (st.customTitle ? st.customTitle->size() : 0) + (st.aiTitle ? st.aiTitle->size() : 0) +
         (st.firstUserMessage ? st.firstUserMessage->size() : 0) +
         (st.setupTax ? st.setupTax->model.size() + (st.setupTax->requestId ? st.setupTax->requestId->size() : 0) : 0);
  for (const auto& [path, model] : s.subagentLastModel) n += path.size() + model.size() + 8;
  return n + n / 8;
}

template <typename State>
std::string encodeWhole(const State& s) {
  JsonWriter out(sizeGuess(s));
  RecordWriter::write(out, s);
  return std::move(out).take();
}

template <typename State>
bool encodeInPieces(const State& s, const Sink& sink) {
  JsonWriter out(std::min(sizeGuess(s), kPieceBytes), &sink);
  RecordWriter::write(out, s);
  return out.finish();
}

}  // namespace

std::string encode(const PersistedState& state) { return encodeWhole(state); }
std::string encode(const PersistedStateView& state) { return encodeWhole(state); }
bool encode(const PersistedState& state, const Sink& sink) { return encodeInPieces(state, sink); }
bool encode(const PersistedStateView& state, const Sink& sink) { return encodeInPieces(state, sink); }

std::optional<PersistedState> decode(std::string_view text, const std::string& expectedRoot, bool padded) {
  // A byte order mark is not JSON but is commonly allowed before it.
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  // The parser's buffers are the one allocation that can fail on a huge
  // file; the allocator's exception is the one thrown here.
  try {
    simdjson::dom::parser parser;
    simdjson::dom::element doc;
    if (parser.parse(text.data(), text.size(), !padded).get(doc) != simdjson::SUCCESS) return std::nullopt;
    PersistedState state;
    if (!RecordReader::read(doc, state)) return std::nullopt;
    if (state.stateVersion != PersistedState::kVersion || state.root != expectedRoot) return std::nullopt;
    return state;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace PersistedStateCodec
}  // namespace ostler
