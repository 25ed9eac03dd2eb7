#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace vt {

// A serial queue on a thread of its own: jobs run one at a time in the order
// they were posted. Low priority queues run below the interface and the
// network jobs. The thread lives as long as the queue.
class SerialQueue {
 public:
  explicit SerialQueue(bool lowPriority = true);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  void post(std::function<void()> job);
  // Blocks until every job posted so far has run (tests, tools).
  void drain();

 private:
  void loop(bool lowPriority);

  std::mutex mutex_;
  std::condition_variable cv_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> jobs_;
  uint64_t posted_ = 0;
  uint64_t done_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace vt
