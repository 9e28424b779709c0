// A failure that the daemon retries on its own, said on its log when it
// begins and when it ends rather than at every retry: a feed that cannot be
// written would otherwise fill the log once a second.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "platform/result.h"

namespace ostler::Daemon {

class FailureNotice {
 public:
  FailureNotice() = default;  // says nothing
  // `retrying` ends the line that says the failure ("; trying again every
  // second"); `recovered` is the whole line said once it is over.
  FailureNotice(std::FILE* log, std::string retrying, std::string recovered)
      : log_(log), retrying_(std::move(retrying)), recovered_(std::move(recovered)) {}

  // Takes the outcome of one more try. A failure is said again only when it
  // changes its reason.
  void update(const Status& outcome) {
    if (outcome.ok()) {
      if (failing_ && log_ != nullptr) say(recovered_);
      failing_.reset();
      return;
    }
    if (failing_ == outcome.error().message) return;
    failing_ = outcome.error().message;
    if (log_ != nullptr) say(*failing_ + retrying_);
  }

  [[nodiscard]] bool failing() const { return failing_.has_value(); }

 private:
  void say(const std::string& line) const {
    std::fprintf(log_, "ostlerd: %s\n", line.c_str());
    std::fflush(log_);
  }

  std::FILE* log_ = nullptr;
  std::string retrying_;
  std::string recovered_;
  std::optional<std::string> failing_;  // the message last said
};

}  // namespace ostler::Daemon
