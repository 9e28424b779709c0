#include "platform/process.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace ostler {
namespace {

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may only store to a lock-free atomic");

extern "C" void requestStop(int) { stopRequested.store(true, std::memory_order_release); }

}  // namespace

std::optional<std::string> environmentVariable(const char* name) {
  const char* v = std::getenv(name);
  if (v == nullptr || *v == '\0') return std::nullopt;
  return std::string(v);
}

bool standardOutputIsTerminal() { return ::isatty(STDOUT_FILENO) != 0; }
bool standardErrorIsTerminal() { return ::isatty(STDERR_FILENO) != 0; }

void catchStopSignals() {
  struct sigaction action = {};
  action.sa_handler = requestStop;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool stopSignalReceived() { return stopRequested.load(std::memory_order_acquire); }

}  // namespace ostler
