#include <gtest/gtest.h>

#include "catalog/CinemetaLists.h"
#include "fakes/FakeCinemeta.h"
#include "platform/Http.h"
#include "support/PauseClock.h"

using namespace vt;

namespace {

Json rows(int count) {
  Json list = Json::array();
  for (int n = 0; n < count; ++n)
    list.push_back(Json{{"id", "tt" + std::to_string(3000000 + n)},
                        {"name", "Film " + std::to_string(n)},
                        {"poster", "https://img/" + std::to_string(n)}});
  return list;
}

QCoro::Task<bool> load(CinemetaLists& lists) {
  co_await lists.load();
  co_return lists.loaded();
}

}  // namespace

TEST(CinemetaLists, FixedRowsGenresFollowedCatalogsAndSharedPreviews) {
  test::FakeCinemeta cinemeta;
  test::PauseClock clock{5};
  HttpClient http{clock, HttpClient::Session::ephemeral};
  cinemeta.setGenres("movie", "top", {"Action", "Science Fiction"});
  cinemeta.setCatalog("movie", "top", "Action", rows(12));
  CatalogCollection followed;
  followed.name = "Anime";
  followed.source = CollectionSource::stremioCatalog("https://anime/", "series", "anime");
  CinemetaLists lists(StremioCatalogClient(http, cinemeta.base()), cinemeta.base(), clock,
                      [&] { return std::vector<CatalogCollection>{followed}; });
  int changes = 0;
  QObject::connect(&lists, &CinemetaLists::changed, [&] { ++changes; });
  ASSERT_TRUE(test::drive(clock, load(lists)));
  const auto films = lists.rows("movie");
  ASSERT_EQ(films.size(), 5u);
  EXPECT_EQ(films[1], (CatalogListRow{"New releases", "year", "2023", "movie"})) << "this year";
  EXPECT_EQ(films[4].key(), "movie|top|Science Fiction");
  const auto shows = lists.rows("series");
  ASSERT_EQ(shows.size(), 4u) << "Cinemeta lists no series genres here";
  EXPECT_EQ(shows[3], (CatalogListRow{"Anime", "anime", std::nullopt, "series"}));
  EXPECT_EQ(lists.sections().front().mediaType, "movie");
  EXPECT_EQ(changes, 1);

  // Two who ask at once share one fetch; eight posters at most.
  std::vector<std::string> a, b;
  const Job one = Job::start([&](CancelToken) -> QCoro::Task<> { a = co_await lists.preview(films[3]); });
  const Job two = Job::start([&](CancelToken) -> QCoro::Task<> { b = co_await lists.preview(films[3]); });
  ASSERT_TRUE(test::spinUntil([&] { return !a.empty() && !b.empty(); }));
  EXPECT_EQ(a.size(), 8u);
  EXPECT_EQ(a, b);
  EXPECT_EQ(cinemeta.catalogRequests().size(), 1u);
}
