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

namespace {

// An owner with one background job that asks a server and counts the answer.
struct Owner {
  explicit Owner(HttpClient& http, QUrl url, std::shared_ptr<int> calls) : calls(std::move(calls)) {
    jobs.start([this, &http, url](CancelToken token) -> QCoro::Task<> {
      co_await http.get(url, 60, token);
      if (!token.isCancelled()) ++*this->calls;
    });
  }
  std::shared_ptr<int> calls;
  JobScope jobs;  // last
};

// A server whose one route never answers.
struct SlowServer : test::FakeHttpServer {
  SlowServer() {
    on("GET", "/slow", [](const auto&, auto& reply) { reply.hold(); });
  }
  bool arrived() const { return requests().size() == 1; }
};

}  // namespace

TEST(JobScope, DestroyingTheOwnerClosesItsOpenRequestAndCallsNothingAfterwards) {
  SlowServer server;
  ManualClock clock;
  HttpClient http(clock, HttpClient::Session::ephemeral);
  auto calls = std::make_shared<int>(0);
  auto owner = std::make_unique<Owner>(http, server.url("/slow"), calls);
  ASSERT_TRUE(test::spinUntil([&] { return server.arrived(); }));
  EXPECT_EQ(owner->jobs.runningCount(), 1u);

  owner.reset();
  ASSERT_TRUE(test::spinUntil([&] { return server.abandonedRequests() == 1; })) << "the server saw the close";
  clock.advance(120);  // past the request's own time limit
  test::settle(50);
  EXPECT_EQ(*calls, 0) << "the job ended without touching its owner";
}

TEST(JobScope, CancellingAJobKillsItsChildProcessAndLaterJobsStillRun) {
  test::TestHome home;
  const std::string pidFile = home.file("pid");
  JobScope scope;
  std::optional<CommandResult> result;
  auto job = scope.start([&](CancelToken token) -> QCoro::Task<> {
    const QStringList args = {"-c", "echo $$ > \"$0\"; exec sleep 60", QString::fromStdString(pidFile)};
    result = co_await runCommand("/bin/sh", args, std::nullopt, token);
  });
  int pid = 0;
  ASSERT_TRUE(test::spinUntil([&] {
    auto text = readFile(pidFile);
    if (text && !text->empty()) pid = std::atoi(text->c_str());
    return pid > 0;
  }));
  ASSERT_TRUE(processExists(pid));

  scope.cancelAll();
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }));
  EXPECT_TRUE(result->crashed);
  EXPECT_FALSE(job.isRunning());
  EXPECT_TRUE(test::spinUntil([&] { return !processExists(pid); })) << "the child went with its job";

  bool ran = false;
  scope.start([&](CancelToken token) -> QCoro::Task<> {
    ran = !token.isCancelled();
    co_return;
  });
  EXPECT_TRUE(ran);
}

TEST(HttpClient, ARequestWhoseClientGoesEndsWithoutTouchingIt) {
  SlowServer server;
  ManualClock clock;
  auto http = std::make_unique<HttpClient>(clock, HttpClient::Session::ephemeral);
  std::optional<HttpResponse> result;
  auto job = Job::start(
      [&](CancelToken token) -> QCoro::Task<> { result = co_await http->get(server.url("/slow"), 30, token); });
  ASSERT_TRUE(test::spinUntil([&] { return server.arrived(); }));
  http.reset();
  ASSERT_TRUE(test::spinUntil([&] { return server.abandonedRequests() == 1; }));
  clock.advance(60);  // the request's timer fires into nothing
  test::settle(50);
  ASSERT_TRUE(result.has_value()) << "the request ended with its client";
  EXPECT_NE(result->failure, HttpFailure::none);
  EXPECT_FALSE(job.isRunning());
}
