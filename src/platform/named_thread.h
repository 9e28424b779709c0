// A thread with a name and an explicit stack size, for the long-lived
// threads of the process (the engine's loop), whose stack must not depend
// on the system's default.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include <pthread.h>

namespace ostler {

class NamedThread {
 public:
  // Starts `body` on a new thread named `name` (at most 15 characters show)
  // with a stack of `stackBytes`. `started()` tells whether it could.
  NamedThread(std::string name, size_t stackBytes, std::function<void()> body);
  // Joins the thread if it is still joinable.
  ~NamedThread();
  NamedThread(const NamedThread&) = delete;
  NamedThread& operator=(const NamedThread&) = delete;

  [[nodiscard]] bool started() const { return started_; }
  // Waits for the thread to finish.
  void join();

 private:
  static void* trampoline(void* self);

  std::string name_;
  std::function<void()> body_;
  pthread_t thread_{};
  bool started_ = false;
  bool joined_ = false;
};

// Names the calling thread, where the system allows it.
void setCurrentThreadName(const std::string& name);

}  // namespace ostler
