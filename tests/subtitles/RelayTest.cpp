#include <gtest/gtest.h>

#include "fakes/FakeRelay.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "subtitles/Relay.h"
#include "support/PauseClock.h"
#include "support/TestKit.h"

using namespace vt;
using vt::test::FakeRelay;

namespace {

struct Rig {
  FakeRelay fake;
  test::PauseClock clock;
  HttpClient http{clock, HttpClient::Session::ephemeral};
  Relay relay{http, fake.base(), {{"X-Service-Key", "k-123"}}};

  template <class T>
  T drive(QCoro::Task<T> task) {
    return test::drive(clock, std::move(task));
  }
};

AssetEntry settledEntry(bool settled = true) {
  return {.kind = "movie",
          .imdb = "tt6751668",
          .winner = AssetEntry::Winner{"F77", "Parasite.2019.1080p", "kor", "ok", 1},
          .cues = std::vector{AssetEntry::Cue{1, 500, 1500, "기택"}},
          .timing = AssetEntry::Timing{settled, settled ? "anchors agree" : "too few windows", 4},
          .createdAt = 1795000000};
}

TranslationEntry translation(const std::string& tgt) {
  return {{{"1", tgt == "ru" ? "Ки-тэк" : "Ki-taek"}}, "ko", tgt, "F77", 1795000002};
}

HttpResponse reply(int status, QByteArray body) { return {.status = status, .body = std::move(body)}; }

}  // namespace

TEST(Relay, RequestsCarryRouteSortedQueryTimeLimitAndHeaders) {
  Rig rig;
  const auto req =
      rig.relay.request("opensubtitles/api/v1/subtitles", {{"languages", "ru,en"}, {"imdb_id", "1375666"}});
  EXPECT_EQ(
      req.url.toString(QUrl::FullyEncoded).toStdString(),
      rig.fake.base().toString().toStdString() + "/opensubtitles/api/v1/subtitles?imdb_id=1375666&languages=ru%2Cen");
  EXPECT_EQ(req.timeoutSeconds, 60);
  const decltype(req.headers) headers = {{"Accept", "application/json"}, {"X-Service-Key", "k-123"}};
  EXPECT_EQ(req.headers, headers);

  Relay trailingSlash(rig.http, QUrl("http://127.0.0.1:9/svc/"));
  EXPECT_EQ(trailingSlash.request("/store/asset/", {}, 30).url.toString().toStdString(),
            "http://127.0.0.1:9/svc/store/asset");

  Relay none(rig.http, std::nullopt);
  EXPECT_FALSE(none.available());
  EXPECT_TRUE(rig.drive(none.lookup("movie|tt1", {"ru"})).empty());
  EXPECT_FALSE(rig.drive(none.storeAsset("movie|tt1", settledEntry())));
  EXPECT_TRUE(rig.fake.requests().empty());
}

TEST(Relay, CheckTellsBudgetFromOtherFailuresByTheFirst200Bytes) {
  EXPECT_TRUE(Relay::check(reply(204, {})));
  struct Row {
    int status;
    QByteArray body;
    RelayError error;
  };
  const std::vector<Row> rows = {
      {429, R"({"error":"budget"})", RelayError::budget()},
      {429, "rate limited", RelayError::http(429, "rate limited")},
      {429, QByteArray(250, ' ') + "budget", RelayError::http(429, std::string(250, ' ') + "budget")},  // past byte 200
      {429, QByteArray(194, ' ') + "budget", RelayError::budget()},  // ends exactly at byte 200
      {500, QByteArray(400, 'x'), RelayError::http(500, std::string(300, 'x'))},
      {302, "moved", RelayError::http(302, "moved")},
      {500, "budget", RelayError::http(500, "budget")},  // only 429 is the budget
  };
  for (const auto& row : rows) {
    const auto checked = Relay::check(reply(row.status, row.body));
    ASSERT_FALSE(checked) << row.body.toStdString();
    EXPECT_EQ(checked.error(), row.error) << row.body.toStdString();
  }
  EXPECT_EQ(message(RelayError::budget()), "this month's subtitle allowance is used up");
  EXPECT_EQ(message(RelayError::http(429, "rate limited")), "relay 429: rate limited");
}

TEST(Relay, StoredResultsComeBackThroughLookup) {
  Rig rig;
  const std::string asset = "movie|tt6751668|Parasite.mkv|4.2GB";
  EXPECT_TRUE(rig.drive(rig.relay.storeAsset(asset, settledEntry())));
  EXPECT_TRUE(rig.drive(rig.relay.storeTranslation("F77", "ru", translation("ru"))));
  EXPECT_TRUE(rig.drive(rig.relay.storeTranslation("F77", "en", translation("en"))));
  EXPECT_FALSE(rig.drive(rig.relay.storeAsset("movie|other", settledEntry(false)))) << "unsettled stays local";
  EXPECT_EQ(rig.fake.assets.count("movie|other"), 0u);
  EXPECT_EQ(rig.fake.rejected, 0);

  const auto sent = rig.fake.requestsTo("/subtitles/store/translation");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].method, "POST");
  EXPECT_EQ(sent[0].header("Content-Type"), QByteArray("application/json"));
  EXPECT_EQ(sent[0].header("X-Service-Key"), QByteArray("k-123"));
  const auto record = json::parse(sent[0].body.toStdString());
  ASSERT_TRUE(record);
  EXPECT_EQ(*record, Relay::storeTranslationRecord("F77", "ru", translation("ru")));

  const auto shared = rig.drive(rig.relay.lookup(asset, {"ru", "de"}));
  ASSERT_TRUE(shared.asset);
  EXPECT_EQ(*shared.asset, settledEntry());
  ASSERT_EQ(shared.translations.size(), 1u);
  EXPECT_EQ(shared.translations.at("ru"), translation("ru"));
  const auto lookups = rig.fake.requestsTo("/subtitles/lookup");
  ASSERT_EQ(lookups.size(), 1u);
  EXPECT_EQ(json::parse(lookups[0].body.toStdString()).value(),
            (Json{{"asset", asset}, {"targets", std::vector<std::string>{"ru", "de"}}}));

  EXPECT_TRUE(rig.drive(rig.relay.lookup("movie|unknown", {"ru"})).empty());
}

TEST(Relay, ServiceRoutesPassTheirRepliesAndFailuresThrough) {
  Rig rig;
  rig.fake.serviceReply = Json{{"text", "안녕"}};
  for (const std::string route : {"asr", "llm", "opensubtitles/api/v1/download"}) {
    auto ok = rig.drive(rig.relay.post(route, Json{{"q", 1}}));
    ASSERT_TRUE(ok) << route;
    EXPECT_EQ(json::parse(ok->toStdString()).value(), rig.fake.serviceReply);
  }
  ASSERT_EQ(rig.fake.requestsTo("/subtitles/opensubtitles/api/v1/download").size(), 1u);

  const std::vector<std::pair<FakeRelay::Mode, std::string>> failures = {
      {FakeRelay::Mode::budget, "this month's subtitle allowance is used up"},
      {FakeRelay::Mode::tooMany, R"(relay 429: {"error":"slow down"})"},
      {FakeRelay::Mode::serverError, "relay 503: upstream unavailable"}};
  for (const auto& [mode, text] : failures) {
    rig.fake.mode = mode;
    auto failed = rig.drive(rig.relay.post("asr", Json::object()));
    ASSERT_FALSE(failed) << text;
    EXPECT_EQ(message(failed.error()), text);
  }
}

TEST(Relay, LookupReadsEveryFailureAsNothingShared) {
  for (auto mode :
       {FakeRelay::Mode::budget, FakeRelay::Mode::tooMany, FakeRelay::Mode::serverError, FakeRelay::Mode::malformed}) {
    Rig rig;
    rig.fake.assets["movie|tt1"] = settledEntry().toJson();
    rig.fake.mode = mode;
    EXPECT_TRUE(rig.drive(rig.relay.lookup("movie|tt1", {"ru"})).empty()) << int(mode);
    // A store answered 200 counts as taken, whatever the body says.
    EXPECT_EQ(rig.drive(rig.relay.storeAsset("movie|tt1", settledEntry())), mode == FakeRelay::Mode::malformed)
        << int(mode);
  }
  // A shared entry that doesn't decode is refused whole.
  Rig rig;
  rig.fake.assets["movie|tt1"] = Json{{"kind", "movie"}, {"createdAt", "yesterday"}};
  EXPECT_TRUE(rig.drive(rig.relay.lookup("movie|tt1", {"ru"})).empty());
}

TEST(Relay, ALookupThatTimesOutGivesUpAfterItsLimit) {
  Rig rig;
  rig.fake.assets["movie|tt1"] = settledEntry().toJson();
  rig.fake.mode = FakeRelay::Mode::slow;
  std::optional<Relay::Shared> shared;
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> {
    auto task = rig.relay.lookup("movie|tt1", {"ru"}, token);
    auto value = co_await std::move(task);
    shared.emplace(std::move(value));
  });
  ASSERT_TRUE(test::spinUntil([&] { return rig.fake.requests().size() == 1; }));
  rig.clock.manual.advance(Relay::kLookupTimeout - 0.5);
  test::settle();
  EXPECT_FALSE(shared) << "still waiting inside its limit";
  rig.clock.manual.advance(0.5);
  ASSERT_TRUE(test::spinUntil([&] { return shared.has_value(); }));
  EXPECT_TRUE(shared->empty()) << "the job goes on as if nothing were shared";
  EXPECT_TRUE(test::spinUntil([&] { return rig.fake.abandonedRequests() == 1; })) << "the request was dropped";

  std::optional<Result<QByteArray, RelayError>> slow;
  auto post = Job::start([&](CancelToken token) -> QCoro::Task<> {
    auto task = rig.relay.post("llm", Json::object(), 12, token);
    auto value = co_await std::move(task);
    slow.emplace(std::move(value));
  });
  ASSERT_TRUE(test::spinUntil([&] { return rig.fake.requests().size() == 2; }));
  rig.clock.manual.advance(12);
  ASSERT_TRUE(test::spinUntil([&] { return slow.has_value(); }));
  ASSERT_FALSE(*slow);
  EXPECT_EQ(message(slow->error()), "relay 0: timed out");
}
