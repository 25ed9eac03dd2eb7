#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <QProcess>

#include "platform/Clock.h"
#include "platform/Process.h"
#include "platform/ProcessTable.h"
#include "support/TestKit.h"

using namespace vt;

TEST(RunCommand, MergesOutputPassesArgumentsAndEnvironmentAndFailsToStartCleanly) {
  auto r = test::runTask(runCommand("/bin/sh", {"-c", "echo out; echo err 1>&2; exit 3"}));
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output.size(), 8u);
  EXPECT_NE(r.output.find("err\n"), std::string::npos);
  EXPECT_FALSE(r.crashed);
  // Large output is read to the end.
  EXPECT_EQ(test::runTask(runCommand("/bin/sh", {"-c", "head -c 3000000 /dev/zero"})).output.size(), 3000000u);
  // Arguments are not split by a shell.
  EXPECT_EQ(test::runTask(runCommand("/bin/echo", {"a b", "$HOME"})).output, "a b $HOME\n");

  QProcessEnvironment env;
  env.insert("VT_PROBE", "value-42");
  EXPECT_EQ(test::runTask(runCommand("/bin/sh", {"-c", "printf %s \"$VT_PROBE\""}, env)).output, "value-42");
  auto missing = test::runTask(runCommand("/nonexistent/program", QStringList{}));
  EXPECT_EQ(missing.status, -1);
  EXPECT_FALSE(missing.output.empty());
}

TEST(ProcessExitWatch, ReportsAnExitOnceThroughAPidfdOrByPollingAndNeverAfterItIsGone) {
  for (const bool pidfd : {true, false}) {
    SCOPED_TRACE(pidfd ? "pidfd" : "polling");
    ProcessExitWatch::setPidfdAllowed(pidfd);
    ManualClock clock;
    const auto waitFor = [&](const int& calls) {
      return test::spinUntil([&] {
        clock.advance(ProcessExitWatch::kPollSeconds);
        return calls > 0;
      });
    };

    QProcess sleeper;
    sleeper.start("sleep", {"30"});
    ASSERT_TRUE(sleeper.waitForStarted());
    const int pid = static_cast<int>(sleeper.processId());
    int calls = 0;
    ProcessExitWatch watch(pid, clock, [&] { ++calls; });
    EXPECT_EQ(watch.usesPidfd(), pidfd);
    clock.advance(5);
    test::settle();
    EXPECT_EQ(calls, 0);
    sleeper.kill();
    ASSERT_TRUE(waitFor(calls));
    clock.advance(5);
    test::settle();
    EXPECT_EQ(calls, 1);

    // A pid that is already gone is reported too.
    int goneCalls = 0;
    ProcessExitWatch gone(pid, clock, [&] { ++goneCalls; });
    EXPECT_TRUE(waitFor(goneCalls));

    // A watch destroyed (or cancelled) before the exit calls nothing.
    QProcess second;
    second.start("sleep", {"30"});
    ASSERT_TRUE(second.waitForStarted());
    int lateCalls = 0;
    std::make_unique<ProcessExitWatch>(static_cast<int>(second.processId()), clock, [&] { ++lateCalls; }).reset();
    ProcessExitWatch cancelled(static_cast<int>(second.processId()), clock, [&] { ++lateCalls; });
    cancelled.cancel();
    second.kill();
    second.waitForFinished();
    clock.advance(5);
    test::settle(50);
    EXPECT_EQ(lateCalls, 0);
    EXPECT_EQ(clock.pendingTimers(), 0u);
  }
  ProcessExitWatch::setPidfdAllowed(true);
}

TEST(ProcessTable, AZombieNoLongerCountsAsRunning) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_GT(child, 0);
  // Not reaped yet: the child stays a zombie until waitpid below.
  EXPECT_TRUE(test::spinUntil([&] { return !processExists(child); }));
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(processExists(child));
  EXPECT_TRUE(processExists(static_cast<int>(::getpid())));
}
