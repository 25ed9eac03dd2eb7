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

namespace {

QByteArray sampleBytes(int n) {
  QByteArray b(n, '\0');
  for (int i = 0; i < n; ++i) b[i] = static_cast<char>(i * 7 + 3);
  return b;
}

// A file server route that honours Range, as CDNs do.
void serveFile(FakeHttpServer& server, const QString& path, const QByteArray& content) {
  server.on("GET", path, [content](const FakeHttpServer::Request& req, FakeHttpServer::Reply& reply) {
    auto range = req.header("Range");
    if (!range) {
      reply.send(200, content, {{"Accept-Ranges", "bytes"}}, "application/octet-stream");
      return;
    }
    const auto spec = range->mid(6).split('-');
    const qint64 first = spec[0].toLongLong();
    const qint64 last = spec.size() > 1 && !spec[1].isEmpty()
                            ? std::min<qint64>(spec[1].toLongLong(), content.size() - 1)
                            : content.size() - 1;
    const QByteArray cr = "bytes " + QByteArray::number(first) + "-" + QByteArray::number(last) + "/" +
                          QByteArray::number(content.size());
    reply.send(206, content.mid(first, last - first + 1), {{"Content-Range", cr}}, "application/octet-stream");
  });
}

}  // namespace

TEST(Http, GetHeadPostAndHeaders) {
  FakeHttpServer server;
  server.on("GET", "/hello", [](auto&, auto& reply) { reply.send(200, "hi", {{"X-Thing", "7"}}); });
  server.on("POST", "/echo", [](const FakeHttpServer::Request& req, FakeHttpServer::Reply& reply) {
    reply.send(201, req.body, {}, req.header("Content-Type").value_or(""));
  });
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);

  auto r = test::runTask(http.get(server.url("/hello?a=1&b=2")));
  EXPECT_TRUE(r.ok());
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, "hi");
  EXPECT_EQ(r.header("x-thing"), "7");

  auto h = test::runTask(http.head(server.url("/hello")));
  EXPECT_EQ(h.status, 200);
  EXPECT_TRUE(h.body.isEmpty());
  EXPECT_EQ(h.header("Content-Length"), "2");

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
  EXPECT_EQ(server.requests()[2].body, R"({"b":1,"a":"x"})");
}

TEST(Http, FollowsRedirectsUnlessAskedNotTo) {
  FakeHttpServer server;
  server.on("GET", "/old", [&](auto&, auto& reply) {
    reply.send(302, "", {{"Location", server.url("/new").toString().toUtf8()}});
  });
  server.on("GET", "/new", [](auto&, auto& reply) { reply.send(200, "arrived"); });
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);

  auto r = test::runTask(http.get(server.url("/old")));
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, "arrived");
  EXPECT_EQ(r.finalUrl.path(), "/new");

  HttpRequest manual;
  manual.url = server.url("/old");
  manual.followRedirects = false;
  auto m = test::runTask(http.send(manual));
  EXPECT_EQ(m.status, 302);
  EXPECT_EQ(m.header("Location"), server.url("/new").toString().toUtf8());
}

TEST(Http, RangedReadsReturnExactlyTheAskedBytes) {
  FakeHttpServer server;
  const auto content = sampleBytes(1 << 20);
  serveFile(server, "/file.mkv", content);
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);

  auto head = test::runTask(http.getRange(server.url("/file.mkv"), 0, 1023));
  EXPECT_EQ(head.status, 206);
  EXPECT_EQ(head.body, content.left(1024));
  auto tail = test::runTask(http.getRange(server.url("/file.mkv"), content.size() - 100, std::nullopt));
  EXPECT_EQ(tail.status, 206);
  EXPECT_EQ(tail.body, content.right(100));
  EXPECT_EQ(tail.header("Content-Range"), "bytes 1048476-1048575/1048576");
  auto requests = server.requestsTo("/file.mkv");
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].header("Range"), "bytes=0-1023");
  EXPECT_EQ(requests[1].header("Range"), "bytes=1048476-");
}

TEST(Http, TimeoutRunsOnTheInjectedClock) {
  FakeHttpServer server;
  server.on("GET", "/slow", [](auto&, auto& reply) { reply.hold(); });
  ManualClock clock;
  HttpClient http(clock, HttpClient::Session::ephemeral);

  std::optional<HttpResponse> result;
  auto job = Job::start([&](CancelToken t) -> QCoro::Task<> { result = co_await http.get(server.url("/slow"), 8, t); });
  ASSERT_TRUE(test::spinUntil([&] { return server.requests().size() == 1; }));
  clock.advance(7.9);
  test::settle(30);
  EXPECT_FALSE(result);
  clock.advance(0.1);
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }));
  EXPECT_EQ(result->failure, HttpFailure::timeout);
  EXPECT_EQ(result->status, 0);
  EXPECT_FALSE(result->ok());
}

TEST(Http, CancellationAndRefusedConnectionsAreFailuresNotCrashes) {
  FakeHttpServer server;
  server.on("GET", "/slow", [](auto&, auto& reply) { reply.hold(); });
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);

  std::optional<HttpResponse> result;
  auto job =
      Job::start([&](CancelToken t) -> QCoro::Task<> { result = co_await http.get(server.url("/slow"), 60, t); });
  ASSERT_TRUE(test::spinUntil([&] { return server.requests().size() == 1; }));
  job.cancel();
  ASSERT_TRUE(test::spinUntil([&] { return result.has_value(); }));
  EXPECT_EQ(result->failure, HttpFailure::cancelled);

  quint16 freePort;
  {
    FakeHttpServer gone;
    freePort = gone.port();
  }
  auto refused = test::runTask(http.get(QUrl(QStringLiteral("http://127.0.0.1:%1/x").arg(freePort)), 5));
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
  auto first = test::runTask(shared.get(server.url("/poster.jpg")));
  auto second = test::runTask(shared.get(server.url("/poster.jpg")));
  EXPECT_EQ(first.body, "JPEGDATA");
  EXPECT_EQ(second.body, "JPEGDATA");
  EXPECT_TRUE(second.fromCache);
  EXPECT_EQ(hits, 1);
  EXPECT_TRUE(cache->inMemory(server.url("/poster.jpg")));
  EXPECT_EQ(cache->memoryLimit(), 48'000'000);

  // An ephemeral session never uses the cache.
  HttpClient ephemeral(systemClock(), HttpClient::Session::ephemeral);
  auto third = test::runTask(ephemeral.get(server.url("/poster.jpg")));
  EXPECT_FALSE(third.fromCache);
  EXPECT_EQ(hits, 2);
  sharedNetworkManager().setCache(nullptr);
}

TEST(HttpCache, MemoryTierStaysWithinItsLimit) {
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
  // The disk tier still has the evicted entry, and a read brings it back.
  std::unique_ptr<QIODevice> back(cache.data(QUrl("http://h/0")));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->readAll().size(), 200);
}
