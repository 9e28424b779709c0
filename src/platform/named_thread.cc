#include "platform/named_thread.h"

namespace ostler {

NamedThread::NamedThread(std::string name, size_t stackBytes, std::function<void()> body)
    : name_(std::move(name)), body_(std::move(body)) {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return;
  if (pthread_attr_setstacksize(&attr, stackBytes) == 0)
    started_ = pthread_create(&thread_, &attr, &NamedThread::trampoline, this) == 0;
  pthread_attr_destroy(&attr);
}

NamedThread::~NamedThread() { join(); }

void NamedThread::join() {
  if (!started_ || joined_) return;
  pthread_join(thread_, nullptr);
  joined_ = true;
}

void* NamedThread::trampoline(void* self) {
  auto* t = static_cast<NamedThread*>(self);
  setCurrentThreadName(t->name_);
  t->body_();
  return nullptr;
}

}  // namespace ostler
