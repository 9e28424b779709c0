#include "platform/threads.h"

#include <pthread.h>

#include <chrono>

namespace ostler {

struct Thread::State {
  std::string name;
  std::function<void()> body;
  pthread_t thread{};
  bool started = false;
  bool joined = false;

  static void* trampoline(void* self) {
    auto* s = static_cast<State*>(self);
    setCurrentThreadName(s->name);
    s->body();
    return nullptr;
  }
};

Thread::Thread(std::string name, std::function<void()> body, size_t stackBytes)
    : state_(std::make_unique<State>()) {
  state_->name = std::move(name);
  state_->body = std::move(body);
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return;
  if (stackBytes == 0 || pthread_attr_setstacksize(&attr, stackBytes) == 0)
    state_->started = pthread_create(&state_->thread, &attr, &State::trampoline, state_.get()) == 0;
  pthread_attr_destroy(&attr);
}

Thread::Thread(Thread&&) noexcept = default;

Thread::~Thread() { join(); }

bool Thread::started() const { return state_ && state_->started; }

void Thread::join() {
  if (!state_ || !state_->started || state_->joined) return;
  pthread_join(state_->thread, nullptr);
  state_->joined = true;
}

TaskGroup::TaskGroup(std::string name, std::vector<std::function<void()>> jobs) : remaining_(jobs.size()) {
  threads_.reserve(jobs.size());
  for (auto& job : jobs) {
    auto run = [this, job = std::move(job)] {
      job();
      std::lock_guard lock(mutex_);
      if (--remaining_ == 0) finished_.notify_all();
    };
    Thread& thread = threads_.emplace_back(name, run);
    if (!thread.started()) run();
  }
}

TaskGroup::~TaskGroup() {
  wait();
  threads_.clear();  // joins
}

bool TaskGroup::waitFor(double seconds) {
  std::unique_lock lock(mutex_);
  return finished_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return remaining_ == 0; });
}

void TaskGroup::wait() {
  std::unique_lock lock(mutex_);
  finished_.wait(lock, [this] { return remaining_ == 0; });
}

}  // namespace ostler
