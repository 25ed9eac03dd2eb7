#include <gtest/gtest.h>

#include <QNetworkAccessManager>
#include <QTemporaryDir>

#include "fakes/FakeHttpServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/HttpCache.h"
#include "platform/Job.h"
#include "support/TestKit.h"

using namespace vt;
using vt::test::FakeHttpServer;

TEST(Http, GetHeadPostRedirectsHeadersTimeoutsAndCancelling) {
  FakeHttpServer server;
  ManualClock clock;
  server.on("GET", "/hello", [](auto&, auto& reply) { reply.send(200, "hi", {{"X-Thing", "7"}}); });
  server.on("GET", "/old", [&](auto&, auto& reply) {
    reply.send(302, "", {{"Location", server.url("/hello").toString().toUtf8()}});
  });
  HttpClient http(clock, HttpClient::Session::ephemeral);
  auto r = test::runTask(http.get(server.url("/old?a=1&b=2")));
  EXPECT_EQ(r.body, "hi");
  EXPECT_EQ(r.header("x-thing"), "7");
  EXPECT_EQ(server.requests()[0].rawQuery, "a=1&b=2");
  EXPECT_TRUE(test::runTask(http.head(server.url("/hello"))).body.isEmpty());
  const Json body = {{"b", 1}, {"a", "x"}};
  auto missing = test::runTask(http.postJson(server.url("/nope"), body));
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.failure, HttpFailure::none) << "an answer, if not the one hoped for";
  EXPECT_EQ(server.requests().back().body, R"({"b":1,"a":"x"})");
  EXPECT_EQ(server.requests().back().header("Content-Type"), "application/json");
  const HttpRequest manual{.url = server.url("/old"), .followRedirects = false};
  EXPECT_EQ(test::runTask(http.send(manual)).status, 302);

  // Time limits run on the injected clock, and cancelling aborts.
  server.on("GET", "/slow", [](auto&, auto& reply) { reply.hold(); });
  const auto before = server.requests().size();
  std::optional<HttpResponse> timedOut, cancelled;
  auto job1 =
      Job::start([&](CancelToken t) -> QCoro::Task<> { timedOut = co_await http.get(server.url("/slow"), 8, t); });
  auto job2 =
      Job::start([&](CancelToken t) -> QCoro::Task<> { cancelled = co_await http.get(server.url("/slow"), 60, t); });
  ASSERT_TRUE(test::spinUntil([&] { return server.requests().size() == before + 2; }));
  clock.advance(7.9);
  test::settle(30);
  EXPECT_FALSE(timedOut);
  clock.advance(0.1);
  EXPECT_TRUE(test::spinUntil([&] { return timedOut && timedOut->failure == HttpFailure::timeout; }));
  job2.cancel();
  EXPECT_TRUE(test::spinUntil([&] { return cancelled && cancelled->failure == HttpFailure::cancelled; }));
}

TEST(HttpCache, SharedSessionAnswersRepeatsAndTheMemoryTierStaysWithinItsLimit) {
  FakeHttpServer server;
  server.on("GET", "/p.jpg", [](auto&, auto& reply) { reply.send(200, "JPEG", {{"Cache-Control", "max-age=3600"}}); });
  QTemporaryDir dir;
  auto* cache = new TieredNetworkCache(1000, 1'000'000, dir.path());
  sharedNetworkManager().setCache(cache);
  HttpClient shared(systemClock());
  test::runTask(shared.get(server.url("/p.jpg")));
  EXPECT_TRUE(test::runTask(shared.get(server.url("/p.jpg"))).fromCache);
  EXPECT_EQ(server.requests().size(), 1u);
  HttpClient ephemeral(systemClock(), HttpClient::Session::ephemeral);
  EXPECT_FALSE(test::runTask(ephemeral.get(server.url("/p.jpg"))).fromCache) << "an ephemeral session never uses it";
  for (int i = 0; i < 20; ++i) {
    QNetworkCacheMetaData meta;
    meta.setUrl(QUrl(QStringLiteral("http://h/%1").arg(i)));
    meta.setSaveToDisk(true);
    QIODevice* dev = cache->prepare(meta);
    dev->write(QByteArray(200, 'x'));
    cache->insert(dev);
    EXPECT_LE(cache->memoryBytes(), 1000);
  }
  EXPECT_FALSE(cache->inMemory(QUrl("http://h/0")));
  EXPECT_EQ(std::unique_ptr<QIODevice>(cache->data(QUrl("http://h/0")))->readAll().size(), 200) << "kept on disk";
  sharedNetworkManager().setCache(nullptr);
}
