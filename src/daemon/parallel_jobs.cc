#include "daemon/parallel_jobs.h"

#include <chrono>

namespace ostler {

ParallelJobs::ParallelJobs(std::vector<std::function<void()>> jobs) : remaining_(jobs.size()) {
  threads_.reserve(jobs.size());
  for (auto& job : jobs) {
    threads_.emplace_back([this, job = std::move(job)] {
      job();
      std::lock_guard lock(mutex_);
      if (--remaining_ == 0) finished_.notify_all();
    });
  }
}

ParallelJobs::~ParallelJobs() {
  wait();
  for (auto& t : threads_) t.join();
}

bool ParallelJobs::waitFor(double seconds) {
  std::unique_lock lock(mutex_);
  return finished_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return remaining_ == 0; });
}

void ParallelJobs::wait() {
  std::unique_lock lock(mutex_);
  finished_.wait(lock, [this] { return remaining_ == 0; });
}

}  // namespace ostler
