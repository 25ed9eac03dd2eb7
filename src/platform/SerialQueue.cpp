#include "platform/SerialQueue.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vt {

SerialQueue::SerialQueue(bool lowPriority) : thread_([this, lowPriority] { loop(lowPriority); }) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  cv_.notify_all();
  thread_.join();
}

void SerialQueue::post(std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    ++posted_;
  }
  cv_.notify_one();
}

void SerialQueue::drain() {
  std::unique_lock lock(mutex_);
  const auto target = posted_;
  idle_.wait(lock, [&] { return done_ >= target; });
}

void SerialQueue::loop(bool lowPriority) {
  if (lowPriority) ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), 10);
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock lock(mutex_);
      cv_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty()) return;  // stopping, and everything posted has run
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();
    {
      std::lock_guard lock(mutex_);
      ++done_;
    }
    idle_.notify_all();
  }
}

}  // namespace vt
