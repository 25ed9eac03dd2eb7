#include <gtest/gtest.h>

#include <QElapsedTimer>
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
  clock.schedule(5, record(5));
  clock.schedule(1, [&] {
    fired.push_back({1, clock.now()});
    clock.schedule(2, record(3));  // scheduled from a callback, fires in the same advance when due
  });
  clock.cancelTimer(clock.schedule(4, record(4)));
  clock.schedule(1, record(2));

  clock.advance(2.5);
  EXPECT_EQ(fired.size(), 2u);
  clock.advance(10);
  EXPECT_EQ(fired, (std::vector<std::pair<int, Date>>{{1, 1001}, {2, 1001}, {3, 1003}, {5, 1005}}));
  EXPECT_EQ(clock.now(), 1012.5);
  EXPECT_EQ(clock.pendingTimers(), 0u);
}

TEST(ManualClock, RunsAHeartbeatInstantlyAndACancelledSleepDisarmsItsTimer) {
  ManualClock clock;
  std::vector<Date> times;
  const Date start = clock.now();
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> {
    if (!co_await clock.sleep(180, token)) co_return;
    do {
      times.push_back(clock.now() - start);
    } while (co_await clock.sleep(900, token));
  });
  clock.advance(179.9);
  EXPECT_TRUE(times.empty());
  clock.advance(0.1 + 2 * 900);
  EXPECT_EQ(times, (std::vector<Date>{180, 1080, 1980}));
  job.cancel();
  EXPECT_FALSE(job.isRunning());
  EXPECT_EQ(clock.pendingTimers(), 0u);
}

TEST(Job, CancellationWakesASleepingJobAtOnce) {
  // On the real clock: an hour-long sleep must end as soon as the job is cancelled.
  std::optional<bool> slept;
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> { slept = co_await systemClock().sleep(3600, token); });
  test::settle(20);
  EXPECT_FALSE(slept);
  QElapsedTimer t;
  t.start();
  job.cancel();
  EXPECT_TRUE(test::spinUntil([&] { return !job.isRunning(); }, 2000));
  EXPECT_LT(t.elapsed(), 500);
  EXPECT_EQ(slept, false);

  // A sleep that starts after cancellation returns at once.
  auto late = Job::start([&](CancelToken token) -> QCoro::Task<> {
    token.cancel();
    slept = co_await systemClock().sleep(3600, token);
  });
  EXPECT_FALSE(late.isRunning());
}

TEST(Job, ChildTokensFollowTheParentAndJobsCanBeAwaited) {
  ManualClock clock;
  CancelToken parent;
  int finishedSleeps = 0;
  const auto sleeper = [&](double s) {
    return [&, s](CancelToken t) -> QCoro::Task<> {
      if (co_await clock.sleep(s, t)) ++finishedSleeps;
    };
  };
  auto a = Job::start(sleeper(10), parent);
  auto b = Job::start(sleeper(5));
  bool waited = false;
  auto watcher = Job::start([&](CancelToken) -> QCoro::Task<> {
    co_await b.finished();
    waited = true;
  });
  clock.advance(5);
  EXPECT_TRUE(waited);
  parent.cancel();
  EXPECT_TRUE(a.isCancelled());
  EXPECT_FALSE(a.isRunning());
  EXPECT_EQ(finishedSleeps, 1);
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
  other.cancel();  // after the wait ended: no effect, no crash
  EXPECT_EQ(results, (std::vector<int>{0, 1}));
}

TEST(Background, HandsTheValueBackToTheMainThread) {
  auto* mainThread = QThread::currentThread();
  QThread* worker = nullptr;
  const int value = test::runTask([&]() -> QCoro::Task<int> {
    const int v = co_await runInBackground([&] {
      worker = QThread::currentThread();
      return 42;
    });
    EXPECT_EQ(QThread::currentThread(), mainThread);
    co_return v;
  }());
  EXPECT_EQ(value, 42);
  EXPECT_NE(worker, mainThread);
}
