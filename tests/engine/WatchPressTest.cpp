// The watch button in the application as main() wires it, pressed from
// vantory-cli over the application's socket: the press resolves through the
// stream add-on and Real-Debrid, the real engine publishes the file in its
// mounted folder, the local Plex server indexes it from there, and the ready
// notification carries the Plex web link. The socket's other verbs (status,
// subscribe, unsubscribe) run against the same application.

#include <QElapsedTimer>
#include <atomic>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "app/WatchNowService.h"
#include "cli/Verbs.h"
#include "fakes/FakeCatalogAddon.h"
#include "engine/AppWorld.h"
#include "engine/FilmSources.h"
#include "platform/Log.h"
#include "support/TestKit.h"

using namespace vt;
using Phase = WatchNowService::Phase;

namespace {

const std::string kFilm = "tt0111161";
const std::string kShow = "tt0944947";

// vantory-cli on a thread of its own, since the application it talks to runs
// on this one.
struct CliRun {
  std::istringstream in;
  std::ostringstream out, err;
  cli::Io io{in, out, err};
  std::atomic<bool> done = false;
  int code = -1;
  std::thread thread;

  explicit CliRun(std::vector<std::string> args)
      : thread([this, args] {
          code = cli::run(args, io);
          done = true;
        }) {}
  ~CliRun() { thread.join(); }
  std::vector<Json> lines() const {
    std::vector<Json> out;
    std::istringstream text(this->out.str());
    for (std::string line; std::getline(text, line);) out.push_back(json::parse(line).value_or(Json()));
    return out;
  }
};

}  // namespace

TEST(WatchPress, FromTheCommandLineAFilmIsReadyInPlexFromTheMountAnUnairedEpisodeSaysWhenAndListsComeAndGo) {
  if (!test::canMountWithFuse()) GTEST_SKIP() << "no FUSE on this machine";
  test::TestHome home;
  ManualClock clock;
  std::vector<std::string> lines;
  ScopedLogSink sink([&](std::string_view line) { lines.emplace_back(line); });
  test::FilmSources sources;
  ASSERT_TRUE(sources.becomeEndpoints()) << "the endpoint table was read before this test";
  sources.film(kFilm, "The Shawshank Redemption", "1994", std::string(40, 'a'));
  Json videos = Json::array({test::FakeCinemeta::video(kShow, 1, 1, "2011-04-17T00:00:00.000Z"),
                             test::FakeCinemeta::video(kShow, 9, 1, "2099-06-01T00:00:00.000Z")});
  sources.cinemeta.addSeries(kShow, "Game of Thrones", "2011", videos);

  test::FakePlexServer plex("plex-token", clock);
  plex.scanDelay = 2;
  test::AppWorld world(home, clock, plex, [&](AppConfig& config) {
    config.setRdKey(sources.rd.key);
    config.setPlexServerName("Home");
    config.setStreamAddonOverride(sources.torrentio.base().toString().toStdString());
  });
  auto& app = *world.app;
  auto drive = [&](const std::function<bool()>& done) { return test::drive(clock, done); };

  Job::start([&](CancelToken) { return app.bootstrap(); });
  ASSERT_TRUE(drive([&] { return world.supervisor->state() == EngineState::running; }));
  if (!mountedFileSystem(world.movies)) GTEST_SKIP() << "the library folder could not be mounted here";
  WatchNowService* watch = app.watchNow();
  ASSERT_NE(watch, nullptr);

  const auto cli = [&](std::vector<std::string> args) {
    args.insert(args.begin() + 1, {"--home", home.path()});
    auto run = std::make_unique<CliRun>(std::move(args));
    EXPECT_TRUE(drive([&] { return run->done.load(); })) << "vantory-cli " << run->out.str();
    return run;
  };

  // The status names the engines, Plex's view and the collections.
  auto status = cli({"status"});
  ASSERT_EQ(status->code, 0) << status->err.str();
  const Json state = status->lines().at(0).at("status");
  EXPECT_EQ(state.at("engines").at(0).at("state"), "running");
  EXPECT_TRUE(state.at("engines").at(0).contains("plexCanRead"));

  // The press from the command line: progress lines until ready, with the link.
  CliRun press({"watch", "--home", home.path(), kFilm});
  ASSERT_TRUE(drive([&] { return watch->job(kFilm) != nullptr; }));
  const auto firstRun = watch->run(kFilm);
  watch->watch(WatchNowService::Film{kFilm, "The Shawshank Redemption"});
  EXPECT_EQ(watch->run(kFilm), firstRun) << "a second press during the first changes nothing";
  ASSERT_TRUE(drive([&] { return press.done.load(); }));
  EXPECT_EQ(press.code, 0) << press.err.str() << press.out.str();
  ASSERT_EQ(watch->job(kFilm)->phase.kind, Phase::Kind::ready) << message(watch->job(kFilm)->phase);
  const auto progress = press.lines();
  ASSERT_GE(progress.size(), 2u);
  EXPECT_EQ(progress.front().at("stage"), "resolving");
  EXPECT_EQ(progress.back().at("stage"), "ready");
  EXPECT_EQ(progress.back().at("text"), "The Shawshank Redemption is ready to watch.");

  const LibraryTitle* title = app.library().titleByImdb(kFilm);
  ASSERT_NE(title, nullptr);
  const auto* item = plex.itemForFile(world.movies + "/" + title->name);
  ASSERT_NE(item, nullptr) << "Plex indexed the file from the mounted folder";
  ASSERT_EQ(world.notifier.posted.size(), 1u);
  const Notification& ready = world.notifier.posted[0];
  EXPECT_EQ(ready.title, "Ready in Plex");
  EXPECT_EQ(ready.body, "The Shawshank Redemption is ready to watch.");
  EXPECT_EQ(ready.identifier, "watchnow-ready-" + *firstRun);
  EXPECT_EQ(ready.openURL.value_or(""), endpoints().plexWebApp + "/desktop/#!/server/" + plex.machineIdentifier +
                                            "/details?key=%2Flibrary%2Fmetadata%2F" + item->ratingKey);
  EXPECT_EQ(watch->job(kFilm)->openURL, ready.openURL);
  EXPECT_EQ(progress.back().value("url", ""), ready.openURL.value_or("-"));

  // An episode goes through the on-demand resolver; one that hasn't aired
  // fails with its date, and nothing is published for it.
  const std::string later = kShow + ":9:1";
  watch->watch(WatchNowService::Episode{{kShow, "Game of Thrones"}, {9, 1}});
  ASSERT_TRUE(drive([&] { return watch->job(later) && !watch->job(later)->phase.isActive(); }));
  EXPECT_EQ(watch->job(later)->phase, Phase::failed("Not aired yet (airs Jun 1, 2099)"));
  ASSERT_EQ(world.notifier.posted.size(), 2u);
  EXPECT_EQ(world.notifier.posted[1].title, "Couldn't prepare Game of Thrones S9E1");
  EXPECT_EQ(world.notifier.posted[1].body, "Not aired yet (airs Jun 1, 2099).");
  EXPECT_EQ(app.library().titleByEpisodeKey(later), nullptr);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[intent] resolving " + later + " on play intent"), 1);

  // A catalog row, subscribed and published as the window does it; the
  // system collections can't be removed, a subscription can.
  test::FakeCatalogAddon addon;
  addon.setCatalog("movie", "top", std::nullopt,
                   Json::array({Json{{"id", kFilm}, {"type", "movie"}, {"name", "The Shawshank Redemption"}}}));
  auto subscribed = cli({"subscribe", addon.base().toString().toStdString(), "movie", "top", "--max", "10"});
  ASSERT_EQ(subscribed->code, 0) << subscribed->err.str();
  const Json made = subscribed->lines().at(0);
  EXPECT_EQ(made.at("items"), 1);
  const std::string listId = made.at("id");
  ASSERT_NE(world.catalog->collection(listId), nullptr);
  EXPECT_TRUE(world.catalog->isMaterialised(listId));
  EXPECT_EQ(cli({"subscribe", addon.base().toString().toStdString(), "movie", "top"})->code, 1) << "already";
  status = cli({"status"});
  const Json lists = status->lines().at(0).at("status").at("collections");
  EXPECT_TRUE(std::any_of(lists.begin(), lists.end(), [&](const Json& c) {
    return c.at("id") == listId && c.at("items") == 1 && c.at("source").at("catalog") == "top";
  })) << lists.dump();

  auto refused = cli({"unsubscribe", "All titles"});
  EXPECT_EQ(refused->code, 1);
  EXPECT_NE(refused->err.str().find("system collection"), std::string::npos) << refused->err.str();
  EXPECT_EQ(cli({"unsubscribe", made.at("name").get<std::string>()})->code, 0);
  EXPECT_EQ(world.catalog->collection(listId), nullptr);
}
