#include <gtest/gtest.h>

#include "catalog/StremioCatalogClient.h"
#include "fakes/FakeCatalogAddon.h"
#include "fakes/FakeCinemeta.h"
#include "platform/Http.h"
#include "support/PauseClock.h"

using namespace vt;
using test::FakeCatalogAddon;

namespace {

Json rows(int from, int count) {
  Json list = Json::array();
  for (int i = from; i < from + count; ++i)
    list.push_back(
        Json{{"id", "tt" + std::to_string(1000000 + i)}, {"type", "movie"}, {"name", "Film " + std::to_string(i)}});
  return list;
}

struct Catalogs {
  FakeCatalogAddon addon{"cfg=1"};
  test::FakeCinemeta cinemeta;
  test::PauseClock clock{5};  // the pause is 1.5 s; request time limits are 10 s and more
  HttpClient http{clock, HttpClient::Session::ephemeral};
  StremioCatalogClient client{http, cinemeta.base()};

  template <class T>
  T run(QCoro::Task<T> task) {
    return test::drive(clock, std::move(task));
  }
  std::optional<std::vector<CatalogMeta>> metas(int limit, std::optional<std::string> genre = std::nullopt) {
    return run(client.metas(addon.base(), "movie", "top", std::move(genre), limit));
  }
};

std::vector<std::string> ids(const std::vector<CatalogMeta>& metas) {
  std::vector<std::string> out;
  for (const auto& m : metas) out.push_back(m.id);
  return out;
}

}  // namespace

TEST(StremioCatalogClient, PageAddressesEncodeEverythingButTheExtrasSeparators) {
  const QUrl base("http://127.0.0.1:7000/cfg=1/");
  EXPECT_EQ(StremioCatalogClient::pageURL(base, "movie", "top", std::nullopt, 0)->toString(QUrl::FullyEncoded),
            "http://127.0.0.1:7000/cfg=1/catalog/movie/top.json");
  EXPECT_EQ(StremioCatalogClient::pageURL(base, "movie", "top", "Science Fiction", 100)->toString(QUrl::FullyEncoded),
            "http://127.0.0.1:7000/cfg=1/catalog/movie/top/genre=Science%20Fiction&skip=100.json");
  EXPECT_EQ(StremioCatalogClient::pageURL(base, "series", "a/b", "R&B", 0)->toString(QUrl::FullyEncoded),
            "http://127.0.0.1:7000/cfg=1/catalog/series/a%2Fb/genre=R%26B.json");
  EXPECT_FALSE(StremioCatalogClient::pageURL(QUrl("not a url"), "movie", "top", std::nullopt, 0));
}

TEST(StremioCatalogClient, AWalkTakesNewIdsUntilTheLimitOrAnEmptyPage) {
  Catalogs c;
  c.addon.setCatalog("movie", "top", std::nullopt, rows(0, 25));
  const auto short_ = c.metas(50);
  ASSERT_TRUE(short_);
  EXPECT_EQ(short_->size(), 25u);
  EXPECT_EQ(c.addon.catalogRequests(), (std::vector<std::string>{"movie/top.json", "movie/top/skip=25.json"}));
  EXPECT_EQ((*short_)[3], (CatalogMeta{.id = "tt1000003", .name = "Film 3", .mediaType = "movie"}));

  // An add-on that repeats its first page: nothing new, the offset still grows, the empty page ends it.
  c.addon.setCatalog("movie", "top", "Drama", rows(0, 150));
  c.addon.repeatFirstPage = true;
  const auto repeated = c.metas(1000, "Drama");
  ASSERT_TRUE(repeated);
  EXPECT_EQ(ids(*repeated), ids(*c.metas(100, "Drama")));
  c.addon.repeatFirstPage = false;

  const auto capped = c.metas(130, "Drama");
  EXPECT_EQ(capped->size(), 130u);
  EXPECT_EQ(capped->back().id, "tt1000129");
}

TEST(StremioCatalogClient, AFailedPageFailsTheWholeWalkAfterOneRetry) {
  Catalogs c;
  c.addon.setCatalog("movie", "top", std::nullopt, rows(0, 250));
  c.addon.failingSkips = {200};
  EXPECT_FALSE(c.metas(240)) << "two good pages in hand are not the list";
  EXPECT_EQ(c.clock.pauses, std::vector<double>{1.5});
  const auto asked = c.addon.catalogRequests();
  EXPECT_EQ(std::count(asked.begin(), asked.end(), "movie/top/skip=200.json"), 2);
  c.addon.failingSkips.clear();
  c.addon.failingOnceSkips = {200};
  EXPECT_EQ(c.metas(240).value_or(std::vector<CatalogMeta>{}).size(), 240u) << "a 5xx then a 200 is one retry";

  // A row of the wrong shape fails its page: a list read wrongly must not look shorter.
  EXPECT_FALSE(StremioCatalogClient::decodePage(R"({"metas":[{"id":"tt1","name":5}]})", "movie"));
  EXPECT_FALSE(StremioCatalogClient::decodePage(R"({"metas":[{"name":"x"}]})", "movie"));
  EXPECT_FALSE(StremioCatalogClient::decodePage(R"({"metas":{}})", "movie"));
  const auto lenient = StremioCatalogClient::decodePage(
      R"({"metas":[{"id":"tt2","releaseInfo":"1999","poster":null,"extra":{"x":1}}]})", "series");
  ASSERT_TRUE(lenient);
  EXPECT_EQ((*lenient)[0], (CatalogMeta{.id = "tt2", .name = "tt2", .year = "1999", .mediaType = "series"}))
      << "the id stands in for a missing name";
}

TEST(StremioCatalogClient, ManifestGenresRecordsStillsAndSearch) {
  Catalogs c;
  c.addon.setGenres("movie", "top", {"Action", "Science Fiction"});
  const auto manifest = c.run(c.client.manifest(c.addon.base()));
  ASSERT_TRUE(manifest);
  EXPECT_EQ(StremioCatalogClient::genres(*manifest, "movie", "top"),
            (std::vector<std::string>{"Action", "Science Fiction"}));
  EXPECT_TRUE(StremioCatalogClient::genres(*manifest, "series", "top").empty());
  c.addon.manifestStatus = 503;
  EXPECT_EQ(message(c.run(c.client.manifest(c.addon.base())).error()), "The add-on answered HTTP 503");

  const auto record = c.run(c.client.meta("movie", "tt1375666"));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->name + "|" + record->year + "|" + record->released.value_or(""),
            "Inception|2010|2010-07-16T00:00:00.000Z");
  EXPECT_FALSE(c.run(c.client.meta("movie", "tt0000001")));

  Json inception = c.cinemeta.metas.at("movie/tt1375666");
  inception["background"] = "https://images.example/bg.jpg";
  inception["trailerStreams"] = Json::array({Json{{"ytId", "YoHD9XEInc0"}}, Json{{"title", "no id"}}});
  c.cinemeta.setMeta("movie", "tt1375666", inception);
  const auto stills = c.run(c.client.stills("movie", "tt1375666"));
  EXPECT_EQ(stills.background, "https://images.example/bg.jpg");
  EXPECT_EQ(stills.trailers, std::vector<std::string>{"YoHD9XEInc0"});

  c.addon.setSearch("movie", "blade runner", rows(7, 2));
  EXPECT_EQ(c.run(c.client.search(c.addon.base(), "movie", "  blade runner\n")).size(), 2u);
  EXPECT_EQ(c.addon.catalogRequests().back(), "movie/top/search=blade%20runner.json");
  const size_t asked = c.addon.catalogRequests().size();
  EXPECT_TRUE(c.run(c.client.search(c.addon.base(), "movie", " \n")).empty());
  EXPECT_EQ(c.addon.catalogRequests().size(), asked) << "a blank query asks nothing";
}
