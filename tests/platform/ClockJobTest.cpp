#include <gtest/gtest.h>

#include <vector>

#include "platform/Background.h"
#include "platform/Clock.h"
#include "platform/Job.h"
#include "support/TestKit.h"

using namespace vt;

TEST(ManualClock, FiresTimersInDeadlineOrderWithTheirOwnNow) {
  ManualClock clock(1000);
  std::vector<std::pair<int, Date>> fired;
  const auto record = [&](int id) { return [&, id] { fired.push_back({id, clock.now()}); }; };
  clock.schedule(1, [&] {
    fired.push_back({1, clock.now()});
    clock.schedule(2, record(3));  // scheduled from a callback, fires in the same advance when due
  });
  clock.cancelTimer(clock.schedule(4, record(4)));
  clock.schedule(1, record(2));
  clock.advance(12.5);
  EXPECT_EQ(fired, (std::vector<std::pair<int, Date>>{{1, 1001}, {2, 1001}, {3, 1003}}));
  EXPECT_EQ(clock.pendingTimers(), 0u);
}

TEST(Job, CancellationWakesAnHourLongRealSleepAtOnceAndReachesChildTokensAndWaiters) {
  std::optional<bool> slept;
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> { slept = co_await systemClock().sleep(3600, token); });
  test::settle(20);
  job.cancel();
  EXPECT_TRUE(test::spinUntil([&] { return !job.isRunning(); }, 500));
  EXPECT_EQ(slept, false);
  ManualClock clock;
  CancelToken parent;
  int beats = 0;
  const auto heartbeat = [&](CancelToken t) -> QCoro::Task<> {
    while (co_await clock.sleep(900, t)) ++beats;
  };
  auto child = Job::start(heartbeat, parent);
  bool waited = false;
  auto watcher = Job::start([&](CancelToken) -> QCoro::Task<> {
    co_await child.finished();
    waited = true;
  });
  clock.advance(1800);
  EXPECT_EQ(beats, 2) << "a heartbeat runs at once on the manual clock";
  parent.cancel();
  EXPECT_TRUE(child.isCancelled());
  EXPECT_TRUE(waited);
  EXPECT_EQ(clock.pendingTimers(), 0u) << "the cancelled sleep disarmed its timer";
}

TEST(Completion, WaitEndsOnFireOrCancel) {
  Completion done;
  CancelToken token, other;
  std::vector<int> results;
  auto j1 = Job::start([&](CancelToken) -> QCoro::Task<> { results.push_back(co_await done.wait(token) ? 1 : 0); });
  auto j2 = Job::start([&](CancelToken) -> QCoro::Task<> { results.push_back(co_await done.wait(other) ? 1 : 0); });
  token.cancel();
  EXPECT_EQ(results, std::vector<int>{0});
  done.fire();
  EXPECT_EQ(results, (std::vector<int>{0, 1}));
}

TEST(Background, RunsOnAWorkerAndHandsTheValueBackToTheMainThread) {
  auto* mainThread = QThread::currentThread();
  const auto [worker, after] = test::runTask([]() -> QCoro::Task<std::pair<QThread*, QThread*>> {
    const auto work = [] { return QThread::currentThread(); };
    QThread* worker = co_await runInBackground(work);
    co_return std::pair<QThread*, QThread*>(worker, QThread::currentThread());
  }());
  EXPECT_NE(worker, mainThread);
  EXPECT_EQ(after, mainThread);
}
