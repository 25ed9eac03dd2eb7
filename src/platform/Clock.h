#pragma once

#include <coroutine>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "platform/Date.h"

class QTimer;

namespace vt {

// Every timer and sleep of the application goes through a Clock, so that tests
// can run a 900-second heartbeat in microseconds with a ManualClock.
// Callbacks run on the main thread.
class Clock {
 public:
  using TimerId = uint64_t;

  virtual ~Clock() = default;
  virtual Date now() const = 0;
  // Runs `fn` once, `delaySeconds` from now. Returns an id for cancelTimer.
  virtual TimerId schedule(double delaySeconds, std::function<void()> fn) = 0;
  virtual void cancelTimer(TimerId id) = 0;

  // Suspends the calling job for `seconds`. Returns false when the token was
  // cancelled (the sleep then ends at once, also when it had not begun).
  QCoro::Task<bool> sleep(double seconds, CancelToken token = CancelToken::none());

  // Awaitable behind sleep(); usable directly where a Task is not wanted.
  struct SleepAwaiter {
    Clock& clock;
    double delay;
    CancelToken token;
    TimerId timer = 0;
    CancelToken::CallbackId cancelCallback = 0;
    bool cancelled = false;

    bool await_ready() {
      cancelled = token.isCancelled();
      return cancelled;
    }
    void await_suspend(std::coroutine_handle<> h);
    bool await_resume() const { return !cancelled; }
  };
};

// The real clock: wall time and QTimer.
class SystemClock final : public Clock {
 public:
  SystemClock();
  ~SystemClock() override;
  Date now() const override;
  TimerId schedule(double delaySeconds, std::function<void()> fn) override;
  void cancelTimer(TimerId id) override;

 private:
  TimerId nextId_ = 1;
  std::map<TimerId, QTimer*> timers_;
};

// Virtual time for tests: nothing fires until advance() moves the clock past
// the deadline. Timers fire in deadline order (then in scheduling order), each
// with now() set to its own deadline.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(Date start = 700000000.0) : now_(start) {}
  Date now() const override { return now_; }
  TimerId schedule(double delaySeconds, std::function<void()> fn) override;
  void cancelTimer(TimerId id) override;

  // Moves time forward by `seconds`, firing every timer that falls due,
  // including timers scheduled by the callbacks themselves.
  void advance(double seconds);
  size_t pendingTimers() const { return timers_.size(); }

 private:
  struct Key {
    Date deadline;
    TimerId id;
    bool operator<(const Key& o) const { return deadline != o.deadline ? deadline < o.deadline : id < o.id; }
  };
  Date now_;
  TimerId nextId_ = 1;
  std::map<Key, std::function<void()>> timers_;
  std::map<TimerId, Key> keys_;
};

// The process-wide real clock.
Clock& systemClock();

}  // namespace vt
