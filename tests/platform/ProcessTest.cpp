#include <gtest/gtest.h>

#include <QElapsedTimer>

#include "platform/Job.h"
#include "platform/Process.h"
#include "support/TestKit.h"

using namespace vt;

TEST(RunCommand, MergesOutputAndReportsStatus) {
  auto r = test::runTask(runCommand("/bin/sh", {"-c", "echo out; echo err 1>&2; exit 3"}));
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.output.find("out\n"), std::string::npos);
  EXPECT_NE(r.output.find("err\n"), std::string::npos);
  EXPECT_FALSE(r.crashed);

  // Large output is read to the end.
  auto big = test::runTask(runCommand("/bin/sh", {"-c", "head -c 3000000 /dev/zero"}));
  EXPECT_EQ(big.status, 0);
  EXPECT_EQ(big.output.size(), 3000000u);

  // Arguments are not split by a shell.
  auto args = test::runTask(runCommand("/bin/echo", {"a b", "$HOME"}));
  EXPECT_EQ(args.output, "a b $HOME\n");
}

TEST(RunCommand, PassesTheEnvironmentAndFailsToStartCleanly) {
  QProcessEnvironment env;
  env.insert("VT_PROBE", "value-42");
  auto r = test::runTask(runCommand("/bin/sh", {"-c", "printf %s \"$VT_PROBE\""}, env));
  EXPECT_EQ(r.output, "value-42");

  auto missing = test::runTask(runCommand("/nonexistent/program", QStringList{}));
  EXPECT_EQ(missing.status, -1);
  EXPECT_FALSE(missing.output.empty());
}

TEST(RunCommand, CancellationKillsTheChild) {
  std::optional<CommandResult> result;
  auto job = Job::start([&](CancelToken t) -> QCoro::Task<> {
    auto r = co_await runCommand(QStringLiteral("/bin/sleep"), QStringList() << QStringLiteral("30"), std::nullopt, t);
    result = r;
  });
  test::settle(50);
  QElapsedTimer timer;
  timer.start();
  job.cancel();
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }, 5000));
  EXPECT_LT(timer.elapsed(), 3000);
  EXPECT_TRUE(result->crashed);
}
