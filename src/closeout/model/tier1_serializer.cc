#include "closeout/model/tier1_serializer.h"

namespace ostler {

Tier1Serializer& Tier1Serializer::shared() {
  static Tier1Serializer instance;
  return instance;
}

void Tier1Serializer::acquire() {
  std::unique_lock lock(mutex_);
  const uint64_t ticket = next_++;
  turn_.wait(lock, [&] { return serving_ == ticket; });
}

void Tier1Serializer::release() {
  {
    const std::lock_guard lock(mutex_);
    ++serving_;
  }
  // Every waiter wakes to compare its ticket; only the next one goes on.
  // Waiters are the few passes of a handful of chats, so this costs nothing.
  turn_.notify_all();
}

uint64_t Tier1Serializer::waiting() {
  const std::lock_guard lock(mutex_);
  return next_ - serving_ - (next_ > serving_ ? 1 : 0);
}

}  // namespace ostler
