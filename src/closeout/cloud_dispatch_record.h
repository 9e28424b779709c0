// The proof that a cloud run took place, kept in the chat's closeout store
// whether the run succeeded or not: with the cloud session's id, the run's
// own transcript can be found and priced even after a failure.
#pragma once

#include <optional>
#include <string>

#include "transcript/iso8601.h"

namespace ostler {

struct CloudDispatchRecord {
  std::optional<std::string> sessionId;  // the cloud run's session; absent without a readable envelope
  std::string requestedModel;            // the command-line id of the model asked for
  InstantMs timestamp = 0;               // when the launch began
  std::string cwd;                       // the run's working directory, the repository root
  bool dispatchFailed = false;
  std::optional<InstantMs> endTime;               // when the outcome was known
  std::optional<std::string> rawStdout;           // kept for failures only
  std::optional<std::string> rawStderr;           // kept for failures only
  std::optional<bool> reconstructed;              // rebuilt after the fact rather than recorded live
  std::optional<double> counterfactualResumeUsd;  // what resuming the chat directly would have cost

  friend bool operator==(const CloudDispatchRecord&, const CloudDispatchRecord&) = default;
};

}  // namespace ostler
