// How lines make requests. Claude Code writes one API request as several
// lines under one `requestId`, each with the request's usage so far, and a
// resumed or forked chat copies earlier lines, ids and all, into a new file.
// Every reader that counts requests follows one rule: within a file, a run of
// consecutive lines with one id is one request, priced at its last line; a
// request whose id was counted before, in any file, is a repeat and counts
// nowhere; a line without an id is a request of its own.
//
// A file's open request is the reader's to keep (the live engine saves it
// with the file's state); the ids counted are the reading's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostler::RequestRuns {

enum class Start : uint8_t {
  kAlone,   // no id: a request of this one line
  kNew,     // the first line of a request not counted before
  kRepeat,  // the first line of a request counted before
};

// Whether a line of request `id` (empty: none) goes on with the open request.
[[nodiscard]] inline bool continues(const std::optional<std::string>& openId, std::string_view id) {
  return !id.empty() && openId && *openId == id;
}

// Opens the request of a line that does not go on with the open one: `id`
// becomes the open request, a repeat when `seen` (which takes it otherwise)
// already holds it.
template <typename Seen>
Start start(std::optional<std::string>& openId, bool& openIsRepeat, std::string_view id, Seen& seen) {
  if (id.empty()) {
    openId.reset();
    openIsRepeat = false;
    return Start::kAlone;
  }
  if (openId)
    openId->assign(id);
  else
    openId.emplace(id);
  openIsRepeat = !seen.insert(id);
  return openIsRepeat ? Start::kRepeat : Start::kNew;
}

}  // namespace ostler::RequestRuns
