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

TEST(Http, GetHeadPostRedirectsAndHeaders) {
  FakeHttpServer server;
  server.on("GET", "/hello", [](auto&, auto& reply) { reply.send(200, "hi", {{"X-Thing", "7"}}); });
  server.on("POST", "/echo", [](const FakeHttpServer::Request& req, FakeHttpServer::Reply& reply) {
    reply.send(201, req.body, {}, req.header("Content-Type").value_or(""));
  });
  server.on("GET", "/old", [&](auto&, auto& reply) {
    reply.send(302, "", {{"Location", server.url("/hello").toString().toUtf8()}});
  });
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);

  auto r = test::runTask(http.get(server.url("/hello?a=1&b=2")));
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.body, "hi");
  EXPECT_EQ(r.header("x-thing"), "7");
  auto h = test::runTask(http.head(server.url("/hello")));
  EXPECT_EQ(h.status, 200);
  EXPECT_TRUE(h.body.isEmpty());
  Json body;
  body["b"] = 1;
  body["a"] = "x";
  auto p = test::runTask(http.postJson(server.url("/echo"), body));
  EXPECT_EQ(p.status, 201);
  EXPECT_EQ(p.body, R"({"b":1,"a":"x"})");
  EXPECT_EQ(p.header("Content-Type"), "application/json");
  auto missing = test::runTask(http.get(server.url("/nope")));
  EXPECT_EQ(missing.status, 404);
  EXPECT_FALSE(missing.ok());
  EXPECT_EQ(missing.failure, HttpFailure::none);
  ASSERT_EQ(server.requests().size(), 4u);
  EXPECT_EQ(server.requests()[0].rawQuery, "a=1&b=2");
  EXPECT_EQ(server.requests()[1].method, "HEAD");

  auto moved = test::runTask(http.get(server.url("/old")));
  EXPECT_EQ(moved.body, "hi");
  EXPECT_EQ(moved.finalUrl.path(), "/hello");
  HttpRequest manual;
  manual.url = server.url("/old");
  manual.followRedirects = false;
  auto m = test::runTask(http.send(manual));
  EXPECT_EQ(m.status, 302);
}

TEST(Http, TimeoutRunsOnTheInjectedClockAndCancellingAborts) {
  FakeHttpServer server;
  server.on("GET", "/slow", [](auto&, auto& reply) { reply.hold(); });
  ManualClock clock;
  HttpClient http(clock, HttpClient::Session::ephemeral);

  std::optional<HttpResponse> timedOut, cancelled;
  auto job1 =
      Job::start([&](CancelToken t) -> QCoro::Task<> { timedOut = co_await http.get(server.url("/slow"), 8, t); });
  auto job2 =
      Job::start([&](CancelToken t) -> QCoro::Task<> { cancelled = co_await http.get(server.url("/slow"), 60, t); });
  ASSERT_TRUE(test::spinUntil([&] { return server.requests().size() == 2; }));
  clock.advance(7.9);
  test::settle(30);
  EXPECT_FALSE(timedOut);
  clock.advance(0.1);
  ASSERT_TRUE(test::spinUntil([&] { return timedOut.has_value(); }));
  EXPECT_EQ(timedOut->failure, HttpFailure::timeout);
  EXPECT_EQ(timedOut->status, 0);
  EXPECT_FALSE(timedOut->ok());

  job2.cancel();
  ASSERT_TRUE(test::spinUntil([&] { return cancelled.has_value(); }));
  EXPECT_EQ(cancelled->failure, HttpFailure::cancelled);

  auto refused = test::runTask(http.get(QUrl(QStringLiteral("http://127.0.0.1:%1/x").arg(test::freePort())), 5));
  EXPECT_EQ(refused.failure, HttpFailure::network);
  EXPECT_FALSE(refused.errorText.empty());
}

TEST(HttpCache, SharedSessionAnswersRepeatsFromTheMemoryTier) {
  FakeHttpServer server;
  int hits = 0;
  server.on("GET", "/poster.jpg", [&](auto&, auto& reply) {
    ++hits;
    reply.send(200, "JPEGDATA", {{"Cache-Control", "max-age=3600"}}, "image/jpeg");
  });
  QTemporaryDir dir;
  auto* cache = new TieredNetworkCache(48'000'000, 200'000'000, dir.path());
  sharedNetworkManager().setCache(cache);
  HttpClient shared(systemClock());
  test::runTask(shared.get(server.url("/poster.jpg")));
  auto second = test::runTask(shared.get(server.url("/poster.jpg")));
  EXPECT_EQ(second.body, "JPEGDATA");
  EXPECT_TRUE(second.fromCache);
  EXPECT_EQ(hits, 1);
  EXPECT_TRUE(cache->inMemory(server.url("/poster.jpg")));

  // An ephemeral session never uses the cache.
  HttpClient ephemeral(systemClock(), HttpClient::Session::ephemeral);
  EXPECT_FALSE(test::runTask(ephemeral.get(server.url("/poster.jpg"))).fromCache);
  EXPECT_EQ(hits, 2);
  sharedNetworkManager().setCache(nullptr);
}

TEST(HttpCache, MemoryTierStaysWithinItsLimitAndTheDiskKeepsTheRest) {
  QTemporaryDir dir;
  TieredNetworkCache cache(1000, 1'000'000, dir.path());
  for (int i = 0; i < 20; ++i) {
    QNetworkCacheMetaData meta;
    meta.setUrl(QUrl(QStringLiteral("http://h/%1").arg(i)));
    meta.setSaveToDisk(true);
    QIODevice* dev = cache.prepare(meta);
    ASSERT_NE(dev, nullptr);
    dev->write(QByteArray(200, 'x'));
    cache.insert(dev);
    EXPECT_LE(cache.memoryBytes(), 1000);
  }
  EXPECT_FALSE(cache.inMemory(QUrl("http://h/0")));
  EXPECT_TRUE(cache.inMemory(QUrl("http://h/19")));
  std::unique_ptr<QIODevice> back(cache.data(QUrl("http://h/0")));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->readAll().size(), 200);
}
