// Every thread of the process is started here and joined here; none is ever
// detached. When the code that started a thread is done, the thread is done,
// so a process ends only after all it started has ended, with nothing left
// running while static objects are destroyed.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ostler {

// A thread with a name, joined when the object goes.
class Thread {
 public:
  // Starts `body` on a new thread named `name` (the system shows at most 15
  // characters), with a stack of `stackBytes` (0: the system's default).
  // `started()` tells whether the system gave a thread.
  Thread(std::string name, std::function<void()> body, size_t stackBytes = 0);
  ~Thread();  // joins
  Thread(Thread&&) noexcept;
  Thread& operator=(Thread&&) = delete;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  [[nodiscard]] bool started() const;
  // Waits until the body has returned; at once when it never started.
  void join();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A few jobs at once, each on a thread of its own, for the heavy passes: each
// job writes only its own result, and what one hands to another goes through
// a lock of its own, which holds because no job ever waits for a free thread.
// A job whose thread the system refuses runs on the caller's thread instead.
class TaskGroup {
 public:
  TaskGroup(std::string name, std::vector<std::function<void()>> jobs);
  ~TaskGroup();  // waits for every job: none is abandoned
  TaskGroup(const TaskGroup&) = delete;
  TaskGroup& operator=(const TaskGroup&) = delete;

  // Waits up to `seconds`; true once every job has finished.
  [[nodiscard]] bool waitFor(double seconds);
  void wait();

 private:
  std::mutex mutex_;
  std::condition_variable finished_;
  size_t remaining_ = 0;
  std::vector<Thread> threads_;
};

// Names the calling thread, where the system allows it.
void setCurrentThreadName(const std::string& name);

}  // namespace ostler
