// The watch button in the application as main() wires it: the press resolves
// through the stream add-on and Real-Debrid, the real engine publishes the
// file in its mounted folder, the local Plex server indexes it from there,
// and the ready notification carries the Plex web link.

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include "app/WatchNowService.h"
#include "engine/AppWorld.h"
#include "engine/FilmSources.h"
#include "platform/Log.h"
#include "support/TestKit.h"

using namespace vt;
using Phase = WatchNowService::Phase;

namespace {

const std::string kFilm = "tt0111161";
const std::string kShow = "tt0944947";

}  // namespace

TEST(WatchPress, AFilmNotInTheLibraryIsReadyInPlexFromTheMountAndAnUnairedEpisodeSaysWhenItAirs) {
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
  // Real time for the services and the engine, then the application's clock
  // on by its own pauses (3 s polls at most).
  auto drive = [&](const std::function<bool()>& done) {
    QElapsedTimer t;
    t.start();
    while (!done()) {
      if (t.elapsed() > 60000) return false;
      test::settle(2);
      if (!done()) clock.advance(0.1);
    }
    return true;
  };
  Job::start([&](CancelToken) { return app.bootstrap(); });
  ASSERT_TRUE(drive([&] { return world.supervisor->state() == EngineState::running; }));
  if (!mountedFileSystem(world.movies)) GTEST_SKIP() << "the library folder could not be mounted here";
  WatchNowService* watch = app.watchNow();
  ASSERT_NE(watch, nullptr);

  watch->watch(WatchNowService::Film{kFilm, "The Shawshank Redemption"});
  const auto firstRun = watch->run(kFilm);
  watch->watch(WatchNowService::Film{kFilm, "The Shawshank Redemption"});
  EXPECT_EQ(watch->run(kFilm), firstRun) << "a second press during the first changes nothing";
  ASSERT_TRUE(drive([&] { return watch->job(kFilm) && !watch->job(kFilm)->phase.isActive(); }));
  ASSERT_EQ(watch->job(kFilm)->phase.kind, Phase::Kind::ready) << message(watch->job(kFilm)->phase);

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

  // An episode goes through the on-demand resolver; one that hasn't aired
  // fails with its date, and nothing is published for it.
  const std::string later = kShow + ":9:1";
  watch->watch(WatchNowService::Episode{{kShow, "Game of Thrones"}, {9, 1}});
  ASSERT_TRUE(drive([&] { return watch->job(later) && !watch->job(later)->phase.isActive(); }));
  EXPECT_EQ(watch->job(later)->phase, Phase::failed("Not aired yet (airs 2099-06-01)"));
  ASSERT_EQ(world.notifier.posted.size(), 2u);
  EXPECT_EQ(world.notifier.posted[1].title, "Couldn't prepare Game of Thrones S9E1");
  EXPECT_EQ(world.notifier.posted[1].body, "Not aired yet (airs 2099-06-01).");
  EXPECT_EQ(app.library().titleByEpisodeKey(later), nullptr);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[intent] resolving " + later + " on play intent"), 1);
}
