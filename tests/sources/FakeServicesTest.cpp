// The local stream add-ons and Cinemeta speak their services' wire formats;
// these tests hold them to it until clients of their own exercise them.
#include <gtest/gtest.h>

#include "fakes/FakeCinemeta.h"
#include "fakes/FakeStreamAddon.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::test;

namespace {

Json bodyOf(const HttpResponse& r) { return r.json().value_or(Json()); }

}  // namespace

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

  FakeStreamAddon comet(FakeStreamAddon::Family::comet);
  comet.setReleases("movie", "tt1", {cached, uncached});
  auto c = bodyOf(test::runTask(http.get(QUrl(comet.base().toString() + "stream/movie/tt1.json"), 5)))["streams"];
  EXPECT_EQ(c[0]["name"], "[RD⚡] Comet 1080p");
  EXPECT_NE(c[1]["name"].get<std::string>().find("⬇️"), std::string::npos);
  EXPECT_EQ(c[0]["behaviorHints"]["bingeGroup"], "comet|" + hash);
  EXPECT_EQ(c[0]["behaviorHints"]["videoSize"], 1'500'000'000);

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
  EXPECT_FALSE(test::runTask(http.get(streams, 5)).json());
  addon.setFault(FakeStreamAddon::Fault::wrongTypes);
  EXPECT_TRUE(bodyOf(test::runTask(http.get(streams, 5)))["streams"][0]["name"].is_number());
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
