// The local stand-ins for Real-Debrid, the stream add-ons and Cinemeta speak
// their services' wire formats; these tests hold them to it.
#include <gtest/gtest.h>

#include <QElapsedTimer>

#include "fakes/FakeCinemeta.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakeRealDebrid.h"
#include "fakes/FakeStreamAddon.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::test;

namespace {

HttpResponse call(HttpClient& http, QUrl url, QByteArray method = "GET", QByteArray body = {},
                  std::optional<QByteArray> bearer = std::nullopt) {
  HttpRequest r;
  r.url = std::move(url);
  r.method = std::move(method);
  r.body = std::move(body);
  r.timeoutSeconds = 10;
  if (bearer) r.headers.emplace_back("Authorization", "Bearer " + *bearer);
  return test::runTask(http.send(std::move(r)));
}

Json bodyOf(const HttpResponse& r) { return r.json().value_or(Json()); }

}  // namespace

TEST(FakeRealDebrid, SpeaksTheRestApiAndWalksATorrentOnItsSchedule) {
  FakeRealDebrid rd;
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  const QByteArray key = QByteArray::fromStdString(rd.key);
  const auto rest = [&](const char* path) { return QUrl(rd.restBase().toString() + path); };

  auto anonymous = call(http, rest("user"));
  EXPECT_EQ(anonymous.status, 401);
  EXPECT_EQ(bodyOf(anonymous), (Json{{"error", "bad_token"}, {"error_code", 8}}));
  EXPECT_EQ(bodyOf(call(http, rest("user"), "GET", {}, key))["type"], "premium");

  auto added = call(http, rest("torrents/addMagnet"), "POST",
                    "magnet=magnet%3A%3Fxt%3Durn%3Abtih%3AABCDEF0123456789ABCDEF0123456789ABCDEF01", key);
  ASSERT_EQ(added.status, 201);
  const std::string id = bodyOf(added)["id"];
  EXPECT_EQ(rd.torrentFor("abcdef0123456789abcdef0123456789abcdef01")->id, id);
  EXPECT_EQ(call(http, rest("torrents/addMagnet"), "POST", "magnet=nonsense", key).status, 400);

  const QUrl info = rest(("torrents/info/" + id).c_str());
  std::vector<std::string> seen;
  for (int i = 0; i < 3; ++i) seen.push_back(bodyOf(call(http, info, "GET", {}, key))["status"]);
  EXPECT_EQ(seen,
            (std::vector<std::string>{"magnet_conversion", "waiting_files_selection", "waiting_files_selection"}));
  auto listing = bodyOf(call(http, info, "GET", {}, key));
  EXPECT_EQ(listing["files"].size(), 3u);
  EXPECT_EQ(listing["files"][1]["bytes"], 8'400'000'000);

  const QUrl select = rest(("torrents/selectFiles/" + id).c_str());
  EXPECT_EQ(call(http, select, "POST", "files=99", key).status, 400) << "no such file";
  EXPECT_EQ(call(http, select, "POST", "files=2", key).status, 204);
  EXPECT_EQ(call(http, select, "POST", "files=2", key).status, 202) << "already done";
  seen.clear();
  for (int i = 0; i < 4; ++i) seen.push_back(bodyOf(call(http, info, "GET", {}, key))["status"]);
  EXPECT_EQ(seen, (std::vector<std::string>{"queued", "downloading", "downloading", "downloaded"}));
  auto done = bodyOf(call(http, info, "GET", {}, key));
  ASSERT_EQ(done["links"].size(), 1u) << "one link per selected file";
  EXPECT_EQ(done["files"][1]["selected"], 1);
  EXPECT_EQ(done["files"][0]["selected"], 0);

  const std::string link = done["links"][0];
  EXPECT_EQ(link.rfind("https://real-debrid.com/d/", 0), 0u);
  auto unrestricted =
      call(http, rest("unrestrict/link"), "POST", "link=" + QUrl::toPercentEncoding(QString::fromStdString(link)), key);
  ASSERT_EQ(unrestricted.status, 200);
  const Json u = bodyOf(unrestricted);
  EXPECT_EQ(u["filesize"], 8'400'000'000);
  EXPECT_EQ(u["filename"], "Film.2020.1080p.BluRay.x264-GRP.mkv");
  EXPECT_EQ(call(http, rest("unrestrict/link"), "POST", "link=https%3A%2F%2Fx%2Fd%2F1", key).status, 503);

  // The file host: HEAD, ranges, 416 past the end, bytes that are what they say.
  const QUrl file(QString::fromStdString(u["download"].get<std::string>()));
  EXPECT_EQ(file.host(), "127.0.0.1");
  auto head = test::runTask(http.head(file, 5));
  EXPECT_EQ(head.header("Content-Length"), "8400000000");
  auto tail = test::runTask(http.getRange(file, 8'400'000'000 - 1000, std::nullopt, 5));
  EXPECT_EQ(tail.status, 206);
  EXPECT_EQ(tail.body, generatedBytes(8'400'000'000 - 1000, 1000));
  EXPECT_EQ(test::runTask(http.getRange(file, 8'400'000'000, std::nullopt, 5)).status, 416);

  auto list = bodyOf(call(http, rest("downloads?limit=50"), "GET", {}, key));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["link"], link);
  EXPECT_EQ(call(http, rest(("torrents/delete/" + id).c_str()), "DELETE", {}, key).status, 204);
  EXPECT_EQ(call(http, info, "GET", {}, key).status, 404);

  // Scripted faults, then back to normal; every request was recorded.
  rd.fail("user", 429, 2);
  EXPECT_EQ(call(http, rest("user"), "GET", {}, key).status, 429);
  EXPECT_EQ(bodyOf(call(http, rest("user"), "GET", {}, key))["error_code"], 34);
  EXPECT_EQ(call(http, rest("user"), "GET", {}, key).status, 200);
  rd.fail("user", 502);
  EXPECT_EQ(call(http, rest("user"), "GET", {}, key).status, 502);
  EXPECT_EQ(rd.requestsTo("/rest/1.0/user").size(), 6u);
}

TEST(FakeFileHost, StreamsAWholeGeneratedFile) {
  FakeHttpServer host;
  serveGenerated(host, "/f.mkv", 3'000'000);
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  auto whole = test::runTask(http.get(host.url("/f.mkv"), 10));
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body.size(), 3'000'000);
  EXPECT_EQ(whole.body, generatedBytes(0, 3'000'000));
  auto middle = test::runTask(http.getRange(host.url("/f.mkv"), 1'000'000, 1'000'099, 10));
  EXPECT_EQ(middle.body, generatedBytes(1'000'000, 100));
}

TEST(FakeStreamAddon, ServesEachFamilysRowsUnderAnyConfiguration) {
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  const std::string hash = "0123456789abcdef0123456789abcdef01234567";
  const FakeStreamAddon::Release cached{"Film.2020.1080p.WEB-DL.x264-GRP.mkv", 1'500'000'000, hash, true, 40};
  FakeStreamAddon::Release uncached = cached;
  uncached.cached = false;

  FakeStreamAddon torrentio(FakeStreamAddon::Family::torrentio);
  torrentio.setReleases("movie", "tt1375666", {cached, uncached});
  auto rows = bodyOf(test::runTask(http.get(QUrl(torrentio.base().toString() + "stream/movie/tt1375666.json"), 5)));
  ASSERT_EQ(rows["streams"].size(), 2u);
  EXPECT_EQ(rows["streams"][0]["name"], "[RD+] Torrentio\n1080p");
  EXPECT_EQ(rows["streams"][1]["name"], "[RD download] Torrentio\n1080p");
  EXPECT_NE(rows["streams"][0]["title"].get<std::string>().find("💾 1.50 GB"), std::string::npos);
  EXPECT_NE(rows["streams"][0]["url"].get<std::string>().find("/" + hash + "/"), std::string::npos);
  EXPECT_EQ(rows["streams"][0]["behaviorHints"]["filename"], cached.filename);
  // Another configuration path, an episode id, an unknown title.
  auto other = test::runTask(http.get(torrentio.url("/sort=qualitysize|debridoptions=nodownloadlinks/stream/series/"
                                                    "tt0903747:1:2.json"),
                                      5));
  EXPECT_EQ(other.status, 200);
  EXPECT_EQ(bodyOf(other), (Json{{"streams", Json::array()}}));
  EXPECT_EQ(torrentio.streamRequests(), (std::vector<std::string>{"movie/tt1375666", "series/tt0903747:1:2"}));
  EXPECT_EQ(test::runTask(http.get(torrentio.url("/manifest.json"), 5)).status, 404);

  FakeStreamAddon comet(FakeStreamAddon::Family::comet);
  comet.setReleases("movie", "tt1", {cached, uncached});
  auto c = bodyOf(test::runTask(http.get(QUrl(comet.base().toString() + "stream/movie/tt1.json"), 5)))["streams"];
  EXPECT_EQ(c[0]["name"], "[RD⚡] Comet 1080p");
  EXPECT_NE(c[1]["name"].get<std::string>().find("⬇️"), std::string::npos);
  EXPECT_EQ(c[0]["behaviorHints"]["bingeGroup"], "comet|" + hash);
  EXPECT_EQ(c[0]["behaviorHints"]["videoSize"], 1'500'000'000);
  EXPECT_EQ(comet.placeholderRow("placeholder.example")["url"], "https://placeholder.example/placeholder.mp4");

  FakeStreamAddon mediafusion(FakeStreamAddon::Family::mediafusion);
  mediafusion.setReleases("movie", "tt1", {cached, uncached});
  auto m = bodyOf(test::runTask(http.get(QUrl(mediafusion.base().toString() + "stream/movie/tt1.json"), 5)))["streams"];
  EXPECT_EQ(m[0]["name"], "MediaFusion | RD 1080p ⚡️");
  EXPECT_NE(m[1]["name"].get<std::string>().find("⏳"), std::string::npos);
  EXPECT_NE(m[0]["description"].get<std::string>().find("📂 " + cached.filename), std::string::npos);
}

TEST(FakeStreamAddon, MisbehavesOnDemand) {
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  FakeStreamAddon addon(FakeStreamAddon::Family::comet);
  const QUrl streams(addon.base().toString() + "stream/movie/tt1.json");

  addon.setFault(FakeStreamAddon::Fault::serverError);
  EXPECT_EQ(test::runTask(http.get(streams, 5)).status, 503);
  addon.setFault(FakeStreamAddon::Fault::badJson);
  auto bad = test::runTask(http.get(streams, 5));
  EXPECT_EQ(bad.status, 200);
  EXPECT_FALSE(bad.json());
  addon.setFault(FakeStreamAddon::Fault::wrongTypes);
  auto typed = bodyOf(test::runTask(http.get(streams, 5)));
  EXPECT_TRUE(typed["streams"][0]["name"].is_number());
  EXPECT_TRUE(typed["streams"][0]["behaviorHints"]["videoSize"].is_string());

  addon.slowMs = 300;
  addon.setFault(FakeStreamAddon::Fault::slow);
  QElapsedTimer t;
  t.start();
  auto slow = test::runTask(http.get(streams, 5));
  EXPECT_EQ(slow.status, 200);
  EXPECT_GE(t.elapsed(), 250);

  // Silence, for one title only: the client's time limit ends it.
  addon.setFault(FakeStreamAddon::Fault::none);
  addon.setFault("movie", "tt2", FakeStreamAddon::Fault::silent);
  EXPECT_EQ(test::runTask(http.get(streams, 5)).status, 200);
  ManualClock clock;
  HttpClient timed(clock, HttpClient::Session::ephemeral);
  std::optional<HttpResponse> silent;
  const QUrl quiet(addon.base().toString() + "stream/movie/tt2.json");
  auto job = Job::start([&](CancelToken t) -> QCoro::Task<> {
    auto r = co_await timed.get(quiet, 8, t);
    silent = std::move(r);
  });
  ASSERT_TRUE(test::spinUntil([&] { return addon.streamRequests().size() == 6; }));
  clock.advance(8);
  ASSERT_TRUE(test::spinUntil([&] { return silent.has_value(); }));
  EXPECT_EQ(silent->failure, HttpFailure::timeout);
}

TEST(FakeCinemeta, AnswersMetaRecordsAnd404ForUnknownIds) {
  FakeCinemeta cinemeta;
  HttpClient http(systemClock(), HttpClient::Session::ephemeral);
  const auto get = [&](const char* path) {
    return test::runTask(http.get(QUrl(cinemeta.base().toString() + path), 5));
  };
  auto inception = bodyOf(get("meta/movie/tt1375666.json"))["meta"];
  EXPECT_EQ(inception["name"], "Inception");
  EXPECT_EQ(inception["runtime"], "148 min");
  EXPECT_EQ(inception["year"], "2010");
  EXPECT_EQ(bodyOf(get("meta/movie/tt0110357.json"))["meta"]["runtime"], "1h 28min");
  EXPECT_EQ(bodyOf(get("meta/series/tt0903747.json"))["meta"]["year"], "2008–2013");
  EXPECT_EQ(get("meta/movie/tt0000001.json").status, 404);
  EXPECT_EQ(get("meta/series/tt1375666.json").status, 404) << "a film is not a series";

  cinemeta.addMovie("tt9999999", "Short", "", "1h 30min");
  auto shortFilm = bodyOf(get("meta/movie/tt9999999.json"))["meta"];
  EXPECT_EQ(shortFilm["runtime"], "1h 30min");
  EXPECT_FALSE(shortFilm.contains("year"));
  cinemeta.forcedStatus = 502;
  EXPECT_EQ(get("meta/movie/tt1375666.json").status, 502);
}
