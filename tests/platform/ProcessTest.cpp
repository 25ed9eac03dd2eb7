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
  QProcessEnvironment env;
  env.insert("VT_PROBE", "value-42");
  const QStringList script = {"-c", "echo \"$VT_PROBE\"; echo err 1>&2; head -c 3000000 /dev/zero; exit 3"};
  auto r = test::runTask(runCommand("/bin/sh", script, env));
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output.size(), 3000013u) << "value-42, err and large output, read to the end";
  EXPECT_EQ(test::runTask(runCommand("/bin/echo", {"a b", "$HOME"})).output, "a b $HOME\n") << "no shell splits";
  EXPECT_EQ(test::runTask(runCommand("/nonexistent/program", QStringList{})).status, -1);
}

TEST(ProcessExitWatch, ReportsAnExitOnceThroughAPidfdOrByPollingAndNothingOnceCancelled) {
  for (const bool pidfd : {true, false}) {
    ProcessExitWatch::setPidfdAllowed(pidfd);
    ManualClock clock;
    QProcess sleeper;
    sleeper.start("sleep", {"30"});
    ASSERT_TRUE(sleeper.waitForStarted());
    int calls = 0, cancelledCalls = 0;
    ProcessExitWatch watch(static_cast<int>(sleeper.processId()), clock, [&] { ++calls; });
    EXPECT_EQ(watch.usesPidfd(), pidfd);
    ProcessExitWatch cancelled(static_cast<int>(sleeper.processId()), clock, [&] { ++cancelledCalls; });
    cancelled.cancel();
    sleeper.kill();
    ASSERT_TRUE(test::spinUntil([&] { return clock.advance(ProcessExitWatch::kPollSeconds), calls > 0; }));
    clock.advance(5);
    test::settle(50);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(cancelledCalls, 0);
  }
  ProcessExitWatch::setPidfdAllowed(true);
}

TEST(ProcessTable, AZombieNoLongerCountsAsRunning) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_GT(child, 0);
  EXPECT_TRUE(test::spinUntil([&] { return !processExists(child); }));
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(processExists(child));
}
