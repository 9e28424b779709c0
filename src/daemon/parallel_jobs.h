// A handful of jobs run at once, each on a thread of its own, for the heavy
// passes of the daemon (the initial pass, the recompute). Each job writes
// only its own result; what one job hands to another goes through a lock of
// its own (the gathered lines do), which holds because every job has a
// thread and none waits for a free one.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ostler {

class ParallelJobs {
 public:
  // Starts every job at once.
  explicit ParallelJobs(std::vector<std::function<void()>> jobs);
  // Waits for every job: a job is never abandoned.
  ~ParallelJobs();
  ParallelJobs(const ParallelJobs&) = delete;
  ParallelJobs& operator=(const ParallelJobs&) = delete;

  // Waits up to `seconds`; true once every job has finished.
  bool waitFor(double seconds);
  // Waits until every job has finished.
  void wait();

 private:
  std::mutex mutex_;
  std::condition_variable finished_;
  size_t remaining_ = 0;
  std::vector<std::thread> threads_;
};

}  // namespace ostler
