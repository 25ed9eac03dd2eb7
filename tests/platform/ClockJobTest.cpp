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
  clock.schedule(5, [&] { fired.push_back({5, clock.now()}); });
  clock.schedule(1, [&] {
    fired.push_back({1, clock.now()});
    // A timer scheduled from a callback fires in the same advance when due.
    clock.schedule(2, [&] { fired.push_back({3, clock.now()}); });
  });
  const auto cancelled = clock.schedule(4, [&] { fired.push_back({4, clock.now()}); });
  clock.schedule(1, [&] { fired.push_back({2, clock.now()}); });
  clock.cancelTimer(cancelled);

  clock.advance(2.5);
  ASSERT_EQ(fired.size(), 2u);
  clock.advance(10);
  ASSERT_EQ(fired.size(), 4u);
  EXPECT_EQ(fired[0], (std::pair<int, Date>{1, 1001}));
  EXPECT_EQ(fired[1], (std::pair<int, Date>{2, 1001}));
  EXPECT_EQ(fired[2], (std::pair<int, Date>{3, 1003}));
  EXPECT_EQ(fired[3], (std::pair<int, Date>{5, 1005}));
  EXPECT_EQ(clock.now(), 1012.5);
  EXPECT_EQ(clock.pendingTimers(), 0u);
}

TEST(ManualClock, RunsAHeartbeatOfNineHundredSecondsInstantly) {
  ManualClock clock;
  int beats = 0;
  std::vector<Date> times;
  const Date start = clock.now();
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> {
    if (!co_await clock.sleep(180, token)) co_return;
    while (true) {
      ++beats;
      times.push_back(clock.now() - start);
      if (!co_await clock.sleep(900, token)) co_return;
    }
  });
  QElapsedTimer real;
  real.start();
  clock.advance(179.9);
  EXPECT_EQ(beats, 0);
  clock.advance(0.1);
  EXPECT_EQ(beats, 1);
  clock.advance(4 * 900);
  EXPECT_EQ(beats, 5);
  EXPECT_EQ(times, (std::vector<Date>{180, 1080, 1980, 2880, 3780}));
  EXPECT_LT(real.elapsed(), 1000);
  EXPECT_TRUE(job.isRunning());
  job.cancel();
  EXPECT_FALSE(job.isRunning());
  EXPECT_EQ(clock.pendingTimers(), 0u) << "a cancelled sleep must disarm its timer";
}

TEST(Job, CancellationWakesASleepingJobAtOnce) {
  // On the real clock: an hour-long sleep must end as soon as the job is cancelled.
  bool sleptFully = true;
  bool after = false;
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> {
    sleptFully = co_await systemClock().sleep(3600, token);
    after = true;
  });
  EXPECT_TRUE(job.isRunning());
  test::settle(20);
  EXPECT_FALSE(after);
  QElapsedTimer t;
  t.start();
  job.cancel();
  EXPECT_TRUE(test::spinUntil([&] { return !job.isRunning(); }, 2000));
  EXPECT_LT(t.elapsed(), 500);
  EXPECT_FALSE(sleptFully);
  EXPECT_TRUE(after);

  // A sleep that starts after cancellation returns at once.
  bool second = true;
  auto late = Job::start([&](CancelToken token) -> QCoro::Task<> {
    token.cancel();
    second = co_await systemClock().sleep(3600, token);
  });
  EXPECT_FALSE(late.isRunning());
  EXPECT_FALSE(second);
}

TEST(Job, ChildTokensFollowTheParentAndJobsCanBeAwaited) {
  ManualClock clock;
  CancelToken parent;
  int finishedSleeps = 0;
  auto a = Job::start(
      [&](CancelToken t) -> QCoro::Task<> {
        if (co_await clock.sleep(10, t)) ++finishedSleeps;
      },
      parent);
  auto b = Job::start([&](CancelToken t) -> QCoro::Task<> {
    if (co_await clock.sleep(5, t)) ++finishedSleeps;
  });
  bool waited = false;
  auto watcher = Job::start([&](CancelToken) -> QCoro::Task<> {
    co_await b.finished();
    waited = true;
  });
  clock.advance(5);
  EXPECT_TRUE(waited);
  EXPECT_EQ(finishedSleeps, 1);
  parent.cancel();
  EXPECT_FALSE(a.isRunning());
  EXPECT_TRUE(a.isCancelled());
  EXPECT_EQ(finishedSleeps, 1);
  EXPECT_FALSE(watcher.isRunning());
}

TEST(Completion, WaitEndsOnFireOrCancel) {
  Completion done;
  CancelToken token;
  std::vector<int> results;
  auto j1 = Job::start([&](CancelToken) -> QCoro::Task<> { results.push_back(co_await done.wait(token) ? 1 : 0); });
  CancelToken other;
  auto j2 = Job::start([&](CancelToken) -> QCoro::Task<> { results.push_back(co_await done.wait(other) ? 1 : 0); });
  token.cancel();
  EXPECT_EQ(results, std::vector<int>{0});
  done.fire();
  EXPECT_EQ(results, (std::vector<int>{0, 1}));
  other.cancel();  // after the wait ended: no effect, no crash
  EXPECT_EQ(results.size(), 2u);
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
