#include "platform/Clock.h"

#include <QCoreApplication>
#include <QTimer>
#include <algorithm>
#include <cmath>

namespace vt {

void Clock::SleepAwaiter::await_suspend(std::coroutine_handle<> h) {
  // Each path clears the other before resuming: the awaiter lives in the
  // coroutine frame, which may be gone once the coroutine runs on.
  timer = clock.schedule(delay, [this, h] {
    timer = 0;
    token.removeCallback(cancelCallback);
    h.resume();
  });
  cancelCallback = token.onCancel([this, h] {
    cancelCallback = 0;
    cancelled = true;
    clock.cancelTimer(timer);
    h.resume();
  });
}

QCoro::Task<bool> Clock::sleep(double seconds, CancelToken token) {
  // A named awaiter: gcc 12 mishandles aggregate temporaries in co_await.
  SleepAwaiter awaiter{*this, seconds, std::move(token)};
  const bool completed = co_await awaiter;
  co_return completed;
}

SystemClock::SystemClock() = default;

SystemClock::~SystemClock() {
  for (auto& [id, timer] : timers_) delete timer;
}

Date SystemClock::now() const { return wallClockNow(); }

Clock::TimerId SystemClock::schedule(double delaySeconds, std::function<void()> fn) {
  const auto id = nextId_++;
  auto* timer = new QTimer();
  timer->setSingleShot(true);
  timer->setTimerType(delaySeconds < 30 ? Qt::PreciseTimer : Qt::CoarseTimer);
  // QTimer counts in int milliseconds; nothing here waits 24 days.
  const double ms = std::isfinite(delaySeconds) ? std::clamp(delaySeconds * 1000.0, 0.0, 2.0e9) : 0.0;
  timer->setInterval(static_cast<int>(ms));
  QObject::connect(timer, &QTimer::timeout, timer, [this, id, fn = std::move(fn)] {
    auto it = timers_.find(id);
    if (it == timers_.end()) return;
    it->second->deleteLater();
    timers_.erase(it);
    fn();
  });
  timers_.emplace(id, timer);
  timer->start();
  return id;
}

void SystemClock::cancelTimer(TimerId id) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  it->second->stop();
  it->second->deleteLater();
  timers_.erase(it);
}

Clock::TimerId ManualClock::schedule(double delaySeconds, std::function<void()> fn) {
  const auto id = nextId_++;
  const double delay = std::isfinite(delaySeconds) ? std::max(0.0, delaySeconds) : 0.0;
  const Key key{now_ + delay, id};
  timers_.emplace(key, std::move(fn));
  keys_.emplace(id, key);
  return id;
}

void ManualClock::cancelTimer(TimerId id) {
  auto it = keys_.find(id);
  if (it == keys_.end()) return;
  timers_.erase(it->second);
  keys_.erase(it);
}

void ManualClock::advance(double seconds) {
  const Date target = now_ + std::max(0.0, seconds);
  while (!timers_.empty() && timers_.begin()->first.deadline <= target) {
    auto node = timers_.extract(timers_.begin());
    keys_.erase(node.key().id);
    now_ = std::max(now_, node.key().deadline);
    node.mapped()();
    // Let work that a resumed job posted to the event loop run before the
    // next timer, as it would in real time.
    if (QCoreApplication::instance()) QCoreApplication::processEvents();
  }
  now_ = target;
}

Clock& systemClock() {
  static SystemClock clock;
  return clock;
}

}  // namespace vt
