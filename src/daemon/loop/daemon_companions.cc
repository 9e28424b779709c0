#include "daemon/loop/daemon_companions.h"

namespace ostler {

void ThreadQueue::async(std::function<void(std::stop_token)> job) {
  running_.reset();  // joins the job before, which has finished
  stop_ = std::stop_source();
  running_.emplace("ostler.recompute", [job = std::move(job), stop = stop_.get_token()] { job(stop); });
  // Without a thread of its own the job still runs, here.
  if (!running_->started()) job(stop_.get_token());
}

void ThreadQueue::stopAndWait() {
  stop_.request_stop();
  running_.reset();
}

}  // namespace ostler
