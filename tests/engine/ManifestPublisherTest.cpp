#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineTestKit.h"
#include "engine/ManifestPublisher.h"
#include "fakes/FakeHttpServer.h"
#include "platform/Clock.h"
#include "platform/SerialFileWriter.h"
#include "support/Titles.h"

using namespace vt;

namespace {

LibraryTitle film(const std::string& id, const std::string& url = "https://cdn/x") {
  return test::sampleTitle("Film " + id + " (2000) {imdb-" + id + "}.mkv", url, 1000);
}

struct Rig : EngineInstances {
  test::TestHome home;
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home.path());
  AppConfig config{*settings};
  ManualClock clock;
  LibraryStore library{home.file("library.json"), clock};
  EngineStatusClient client{sharedHttpClient()};
  EngineInstanceState movie;
  std::optional<EngineInstanceState> tv;
  std::set<std::string> hiddenNames;
  bool playing = false;
  int applyCalls = 0;
  std::vector<std::string> logs, calls;
  std::unique_ptr<ManifestPublisher> publisher;

  EngineInstanceState& movieInstance() override { return movie; }
  EngineInstanceState& tvInstance() override {
    if (!tv) tv.emplace().paths = EngineInstancePaths::forKind(EngineKind::tv, home.path(), config);
    return *tv;
  }
  EngineInstanceState* existingTvInstance() override { return tv ? &*tv : nullptr; }
  QCoro::Task<> startInstance(EngineInstanceState& i, std::vector<EngineEntry> entries) override {
    calls.push_back("start " + i.paths.label + " " + std::to_string(entries.size()));
    i.state = EngineState::running;
    co_return;
  }
  QCoro::Task<> stopInstance(EngineInstanceState& i) override {
    calls.push_back("stop " + i.paths.label);
    i.state = EngineState::stopped;
    co_return;
  }

  Rig() {
    movie.paths = EngineInstancePaths::forKind(EngineKind::movie, home.path(), config);
    ManifestPublisher::Hooks hooks;
    hooks.applyConfig = [this] { ++applyCalls; };
    hooks.playbackActive = [this] { return playing; };
    hooks.isHidden = [this](const LibraryTitle& t) { return hiddenNames.count(t.name) > 0; };
    hooks.log = [this](const std::string& line) { logs.push_back(line); };
    publisher = std::make_unique<ManifestPublisher>(library, config, clock, client, *this, hooks);
  }
  EngineApplyResult apply() { return test::runTask(publisher->applyEngineConfig()); }
};

}  // namespace

TEST(ManifestPublisher, ReloadsOnlyOnChangeAndSendsChangesDeferredByPlaybackAgain) {
  Rig rig;
  test::FakeHttpServer engine;
  int reloads = 0;
  engine.on("POST", "/control/reload", [&](auto&, auto& reply) {
    ++reloads;
    reply.json(rig.playing ? Json{{"deferred", 2}} : Json::object());
  });
  rig.movie.paths.controlURL = engine.baseUrl();
  rig.movie.state = EngineState::running;
  for (const char* id : {"tt1", "tt2"}) rig.library.upsert(film(id));
  rig.hiddenNames.insert(film("tt2").name);
  EXPECT_TRUE(rig.apply().movieVisibleChanged);
  EXPECT_NE(readFile(rig.movie.paths.configURL).value_or("").find(film("tt2").name), std::string::npos)
      << "hidden entries are listed too";
  EXPECT_EQ(rig.apply(), EngineApplyResult{}) << "unchanged: nothing sent";
  // A change to the hidden entry reloads, but Plex has nothing to scan until it shows.
  rig.library.upsert(film("tt2", "https://cdn/other"));
  EXPECT_FALSE(rig.apply().movieVisibleChanged);
  EXPECT_EQ(reloads, 2);
  rig.hiddenNames.clear();
  rig.playing = true;
  EXPECT_FALSE(rig.apply().movieVisibleChanged) << "put off: no scan yet";
  EXPECT_EQ(rig.logs.back(), "[supervisor] 2 changed title(s) in use — applying after playback");
  rig.clock.advance(60);
  EXPECT_EQ(rig.applyCalls, 0) << "still playing";
  rig.playing = false;
  rig.clock.advance(60);
  EXPECT_EQ(rig.applyCalls, 1);
  // The library did not change, yet it sends again and reports the visible change the first round could not.
  EXPECT_TRUE(rig.apply().movieVisibleChanged);
  EXPECT_EQ(reloads, 4);
}

TEST(ManifestPublisher, StoppedEnginesAndTheTvInstance) {
  Rig rig;
  rig.library.upsert(film("tt1"));
  EXPECT_TRUE(rig.apply().movieVisibleChanged) << "not running: written, nothing sent";
  // The first episode starts the tv engine; the last one removed stops it.
  auto ep = test::sampleTitle(episodeFileName("Show", "2010", "tt9", 1, 1));
  ep.season = 1;
  ep.episode = 1;
  rig.library.upsert(ep);
  EXPECT_TRUE(rig.apply().tvVisibleChanged);
  EXPECT_EQ(rig.calls, std::vector<std::string>{"start [tv-supervisor] 1"});
  rig.library.remove(ep.name);
  EXPECT_FALSE(rig.apply().tvActive);
  EXPECT_EQ(rig.calls.back(), "stop [tv-supervisor]");
}

TEST(ManifestPublisher, FlushIsDebouncedByCountAndTime) {
  Rig rig;
  rig.publisher->requestFlush(1);
  EXPECT_EQ(rig.applyCalls, 1) << "the first change after a quiet spell goes at once";
  rig.clock.advance(1);
  for (int i = 0; i < 7; ++i) rig.publisher->requestFlush(1), rig.clock.advance(0.5);
  EXPECT_EQ(rig.applyCalls, 1) << "seven are not enough";
  rig.clock.advance(1.5);  // 5 seconds after the first of the seven
  EXPECT_EQ(rig.applyCalls, 2);
  rig.clock.advance(1);
  for (int i = 0; i < 8; ++i) rig.publisher->requestFlush(1);
  EXPECT_EQ(rig.applyCalls, 3) << "the eighth flushes at once";
  rig.clock.advance(10);
  EXPECT_EQ(rig.applyCalls, 3) << "and the pending timer went with it";
}
