// One unit of model work at a time within this process, admitted in the
// order of arrival. The model is a scarce resource of the whole machine:
// two summaries at once would each run at half speed and double the memory,
// and a chat's passes must not overtake one another. A caller that has to
// wait sleeps on a condition, holding no processor.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

namespace ostler {

class Tier1Serializer {
 public:
  Tier1Serializer() = default;
  Tier1Serializer(const Tier1Serializer&) = delete;
  Tier1Serializer& operator=(const Tier1Serializer&) = delete;

  // The one instance of the process.
  [[nodiscard]] static Tier1Serializer& shared();

  // Waits until every caller that arrived earlier has released, then holds.
  void acquire();
  // Hands the hold to the longest-waiting caller, or frees it.
  void release();
  // The callers parked now.
  [[nodiscard]] uint64_t waiting();

  // Runs `work` holding the serializer, and gives it up whether `work`
  // returns or throws; hands on what `work` gives.
  template <typename Work>
  decltype(auto) run(Work&& work) {
    acquire();
    struct Releaser {
      Tier1Serializer* self;
      ~Releaser() { self->release(); }
    } releaser{this};
    return std::forward<Work>(work)();
  }

 private:
  std::mutex mutex_;
  std::condition_variable turn_;
  // Tickets handed out in arrival order; the holder is `serving_`, and the
  // serializer is busy while `serving_` is below `next_`. Waiters are those
  // between, parked first in, first out.
  uint64_t next_ = 0;
  uint64_t serving_ = 0;
};

}  // namespace ostler
