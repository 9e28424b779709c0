// Runs `produce(i)` for i = 0..count-1 on worker threads and on the
// consumer's, at most `window` items ahead of the consumer and, when items
// are given sizes, at most `aheadBudget` of size made or being made ahead of
// it (one item always may be), and hands the results back strictly in index
// order. The order in which results are folded is thus fixed, whatever the
// order in which they were made. `produce` must be safe to call from several
// threads at once.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/threads.h"

namespace ostler {

template <typename T>
class OrderedWork {
 public:
  // With `threads` 0 every item is made on the consumer's thread.
  OrderedWork(size_t count, std::function<T(size_t)> produce, size_t threads, size_t window,
              std::vector<uint64_t> sizes = {}, uint64_t aheadBudget = UINT64_MAX)
      : count_(count),
        produce_(std::move(produce)),
        window_(window == 0 ? 1 : window),
        sizes_(std::move(sizes)),
        aheadBudget_(aheadBudget),
        slots_(count) {
    for (size_t t = 0; t < threads && t < count; ++t) workers_.emplace_back("ostler.reader", [this] { work(); });
  }

  OrderedWork(const OrderedWork&) = delete;
  OrderedWork& operator=(const OrderedWork&) = delete;

  ~OrderedWork() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    space_.notify_all();
    workers_.clear();  // joins
  }

  // The result of item `i`; items must be taken in order 0, 1, 2, ...
  // While item `i` is not ready the consumer makes the next item not yet
  // started, rather than wait, so that it is never idle while work remains.
  T take(size_t i) {
    std::unique_lock lock(mutex_);
    while (!slots_[i].has_value()) {
      if (mayStartNext()) {
        const size_t j = start();
        lock.unlock();
        T value = produce_(j);
        lock.lock();
        slots_[j] = std::move(value);
        continue;
      }
      ready_.wait(lock);
    }
    T value = std::move(*slots_[i]);
    slots_[i].reset();
    consumed_ = i + 1;
    ahead_ -= sizeOf(i);
    lock.unlock();
    space_.notify_all();
    return value;
  }

 private:
  [[nodiscard]] uint64_t sizeOf(size_t i) const { return i < sizes_.size() ? sizes_[i] : 0; }

  // Under the lock.
  [[nodiscard]] bool mayStartNext() const {
    if (next_ >= count_) return false;
    if (next_ == consumed_) return true;
    return next_ < consumed_ + window_ && ahead_ + sizeOf(next_) <= aheadBudget_;
  }
  size_t start() {
    ahead_ += sizeOf(next_);
    return next_++;
  }

  void work() {
    for (;;) {
      size_t i;
      {
        std::unique_lock lock(mutex_);
        space_.wait(lock, [&] { return stopping_ || next_ >= count_ || mayStartNext(); });
        if (stopping_ || next_ >= count_) return;
        i = start();
      }
      T value = produce_(i);
      {
        std::lock_guard lock(mutex_);
        slots_[i] = std::move(value);
      }
      ready_.notify_all();
    }
  }

  const size_t count_;
  std::function<T(size_t)> produce_;
  const size_t window_;
  const std::vector<uint64_t> sizes_;
  const uint64_t aheadBudget_;
  std::vector<std::optional<T>> slots_;
  std::vector<Thread> workers_;
  std::mutex mutex_;
  std::condition_variable ready_, space_;
  size_t next_ = 0;
  size_t consumed_ = 0;
  uint64_t ahead_ = 0;  // the sizes of items started and not yet taken
  bool stopping_ = false;
};

}  // namespace ostler
