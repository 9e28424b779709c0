// A thread-safe shelf of spent objects whose storage can serve again, so that
// a pipeline that makes and drops many large buffers keeps reusing the same
// few instead of leaving the allocator to fragment.
#pragma once

#include <mutex>
#include <utility>
#include <vector>

namespace ostler {

template <typename T>
class Recycler {
 public:
  // A spent object, or a new one when the shelf is empty.
  T take() {
    std::lock_guard lock(mutex_);
    if (shelf_.empty()) return T{};
    T value = std::move(shelf_.back());
    shelf_.pop_back();
    return value;
  }

  // Keeps a few spent objects; past that they are freed, so that a run
  // whose objects were not made here does not hoard them all.
  void give(T value) {
    std::lock_guard lock(mutex_);
    if (shelf_.size() < kShelfSize) shelf_.push_back(std::move(value));
  }

  static constexpr size_t kShelfSize = 32;

 private:
  std::mutex mutex_;
  std::vector<T> shelf_;
};

}  // namespace ostler
