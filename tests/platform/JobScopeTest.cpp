// Jobs end with their owner: open requests are closed, child processes killed, the owner left alone.
#include <gtest/gtest.h>

#include <memory>

#include "fakes/FakeHttpServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "platform/Process.h"
#include "platform/ProcessTable.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;

TEST(JobScope, DestroyingTheScopeOrTheClientClosesTheOpenRequestAndCallsNothingAfterwards) {
  test::FakeHttpServer server;
  server.on("GET", "/slow", [](const auto&, auto& reply) { reply.hold(); });
  ManualClock clock;
  auto http = std::make_unique<HttpClient>(clock, HttpClient::Session::ephemeral);
  auto scope = std::make_unique<JobScope>();
  int calls = 0;
  scope->start([&](CancelToken token) -> QCoro::Task<> {
    co_await http->get(server.url("/slow"), 60, token);
    if (!token.isCancelled()) ++calls;
  });
  ASSERT_TRUE(test::spinUntil([&] { return server.requests().size() == 1; }));
  scope.reset();
  ASSERT_TRUE(test::spinUntil([&] { return server.abandonedRequests() == 1; })) << "the server saw the close";

  // A request whose client goes ends as a failure, and its timer fires into nothing.
  std::optional<HttpResponse> result;
  auto job = Job::start(
      [&](CancelToken token) -> QCoro::Task<> { result = co_await http->get(server.url("/slow"), 30, token); });
  ASSERT_TRUE(test::spinUntil([&] { return server.requests().size() == 2; }));
  http.reset();
  ASSERT_TRUE(test::spinUntil([&] { return server.abandonedRequests() == 2; }));
  clock.advance(120);
  test::settle(50);
  EXPECT_EQ(calls, 0);
  EXPECT_NE(result.value_or(HttpResponse{}).failure, HttpFailure::none) << "the request ended with its client";
}

TEST(JobScope, CancellingAJobKillsItsChildProcess) {
  test::TestHome home;
  const std::string pidFile = home.file("pid");
  JobScope scope;
  std::optional<CommandResult> result;
  scope.start([&](CancelToken token) -> QCoro::Task<> {
    const QStringList args = {"-c", "echo $$ > \"$0\"; exec sleep 60", QString::fromStdString(pidFile)};
    result = co_await runCommand("/bin/sh", args, std::nullopt, token);
  });
  int pid = 0;
  ASSERT_TRUE(test::spinUntil([&] { return (pid = std::atoi(readFile(pidFile).value_or("0").c_str())) > 0; }));
  scope.cancelAll();
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }));
  EXPECT_TRUE(result->crashed);
  EXPECT_TRUE(test::spinUntil([&] { return !processExists(pid); })) << "the child went with its job";
}
