#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <map>
#include <memory>
#include <optional>

#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "platform/Job.h"
#include "support/TestKit.h"

namespace vt::test {

// Virtual time for flows that pause between requests. It wraps a ManualClock
// and counts every timer shorter than `pauseLimit` as a pause (request time
// limits are longer), so drive() below moves time on only while the flow
// sleeps, never while a request is in flight: virtual time stays exact
// however slow the machine is.
class PauseClock final : public Clock {
 public:
  explicit PauseClock(double pauseLimit = 15) : pauseLimit_(pauseLimit) {}
  Date now() const override { return manual.now(); }
  TimerId schedule(double delay, std::function<void()> fn) override {
    auto slot = std::make_shared<TimerId>(0);
    const TimerId id = manual.schedule(delay, [this, slot, fn = std::move(fn)] {
      pending_.erase(*slot);
      fn();
    });
    *slot = id;
    pending_[id] = delay;
    if (delay < pauseLimit_) pauses.push_back(delay);
    return id;
  }
  void cancelTimer(TimerId id) override {
    pending_.erase(id);
    manual.cancelTimer(id);
  }
  std::optional<double> sleeping() const {
    for (const auto& [id, delay] : pending_)
      if (delay < pauseLimit_) return delay;
    return std::nullopt;
  }

  ManualClock manual;
  std::vector<double> pauses;  // every pause asked for, in order

 private:
  double pauseLimit_;
  std::map<TimerId, double> pending_;
};

// Runs a task to its end on the event loop, sleeping through its pauses in
// virtual time. A flow that doesn't end within `limitMs` of real time fails
// the test and is cancelled.
template <class T>
T drive(PauseClock& clock, QCoro::Task<T> task, int limitMs = 10000) {
  std::optional<T> out;
  auto job = Job::start([&](CancelToken) -> QCoro::Task<> {
    auto value = co_await std::move(task);
    out.emplace(std::move(value));
  });
  QElapsedTimer guard;
  guard.start();
  while (!out) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    if (out) break;
    if (auto pause = clock.sleeping()) clock.manual.advance(*pause);
    if (guard.elapsed() > limitMs) {
      ADD_FAILURE() << "the flow did not end";
      job.cancel();
      spinUntil([&] { return out.has_value(); }, 2000);
      break;
    }
  }
  return std::move(*out);
}

}  // namespace vt::test
