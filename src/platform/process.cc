#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>

namespace ostler {
namespace {

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may only store to a lock-free atomic");

// Written to by the handler, so that a waiting thread wakes at once: the
// byte is never read, and the pipe stays readable once a stop was asked.
int wakePipe[2] = {-1, -1};

extern "C" void requestStop(int) {
  const int saved = errno;
  stopRequested.store(true, std::memory_order_release);
  if (wakePipe[1] >= 0) (void)!::write(wakePipe[1], "x", 1);
  errno = saved;
}

}  // namespace

std::optional<std::string> environmentVariable(const char* name) {
  const char* v = std::getenv(name);
  if (v == nullptr || *v == '\0') return std::nullopt;
  return std::string(v);
}

bool standardOutputIsTerminal() { return ::isatty(STDOUT_FILENO) != 0; }
bool standardErrorIsTerminal() { return ::isatty(STDERR_FILENO) != 0; }

void catchStopSignals() {
  if (wakePipe[0] < 0 && ::pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) wakePipe[0] = wakePipe[1] = -1;
  struct sigaction action = {};
  action.sa_handler = requestStop;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool stopSignalReceived() { return stopRequested.load(std::memory_order_acquire); }

bool waitForStopSignal(double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                                        std::isfinite(seconds) ? std::max(seconds, 0.0) : 0.0));
  while (!stopSignalReceived()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    if (left <= 0) break;
    if (wakePipe[0] < 0) {  // no pipe to wait on: short naps
      std::this_thread::sleep_for(std::chrono::milliseconds(std::min<int64_t>(left, 20)));
      continue;
    }
    pollfd wake = {wakePipe[0], POLLIN, 0};
    (void)::poll(&wake, 1, static_cast<int>(std::min<int64_t>(left, 1'000'000)));
  }
  return stopSignalReceived();
}

}  // namespace ostler
