// The text of the saved engine state: one compact JSON object, every record's
// keys in byte order, optional keys left out when unset, instants as seconds
// since 2001. Both directions follow one description of each record (see
// json_record.h); the file holds tens of thousands of request ids and burns,
// and both directions sit on the path to the daemon's first feed, so the
// text is written as it is encoded and read with a fast parser.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "daemon/state/persisted_state.h"

namespace ostler::PersistedStateCodec {

// The JSON text of `state`. Strings that are not valid UTF-8 (an odd path
// name) have each ill-formed sequence replaced by U+FFFD rather than failing
// the save. Doubles are written in their shortest exact form, a whole one
// with ".0" so that it reads back as a double; NaN and infinities, which JSON
// cannot hold, are written as null and so fail the next load.
[[nodiscard]] std::string encode(const PersistedState& state);
[[nodiscard]] std::string encode(const PersistedStateView& state);

// The same text handed to `sink` in pieces of a few hundred kilobytes, so
// that megabytes of it are never held at once. Returns false once the sink
// refused a piece, whose rest is then dropped.
using Sink = std::function<bool(std::string_view piece)>;
[[nodiscard]] bool encode(const PersistedState& state, const Sink& sink);
[[nodiscard]] bool encode(const PersistedStateView& state, const Sink& sink);

// Readable bytes a caller that says `padded` guarantees behind the text.
inline constexpr size_t kPadding = 64;

// The state in `text` when it is one JSON object of version 3 for
// `expectedRoot` with every required key present and of its type; nothing
// otherwise. A null reads as a missing key; of a key given twice the last
// counts; unknown keys are ignored. When `padded` is true the caller
// guarantees kPadding readable bytes after `text`.
//
// Integer literals past 64 bits and deeper nesting than 1,024 levels, which
// this writer never produces, fail the whole text: a cold start.
[[nodiscard]] std::optional<PersistedState> decode(std::string_view text, const std::string& expectedRoot,
                                                   bool padded = false);

}  // namespace ostler::PersistedStateCodec
