#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineTestKit.h"
#include "engine/ManifestPublisher.h"
#include "fakes/FakeHttpServer.h"
#include "fakes/FakePlexServer.h"
#include "plex/PMSClient.h"
#include "platform/Clock.h"
#include "platform/SerialFileWriter.h"

using namespace vt;
using vt::test::FakeHttpServer;

namespace {

LibraryTitle film(const std::string& id, const std::string& url = "https://cdn/x") {
  LibraryTitle t;
  t.name = "Film " + id + " (2000) {imdb-" + id + "}.mkv";
  t.url = url;
  t.size = 100;
  t.source = "stremio";
  t.resolvedAt = 1000;
  return t;
}

struct Rig : EngineInstances {
  test::TestHome home;
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home.path());
  AppConfig config{*settings};
  ManualClock clock;
  LibraryStore library{home.file("library.json"), clock};
  EngineStatusClient client{sharedHttpClient()};
  PMSClientFactory plex{config, sharedHttpClient()};
  EngineInstanceState movie;
  std::optional<EngineInstanceState> tv;
  std::set<std::string> hiddenNames;
  bool playing = false;
  int applyCalls = 0;
  std::vector<std::string> logs;
  std::vector<std::string> calls;
  std::unique_ptr<ManifestPublisher> publisher;

  EngineInstanceState& movieInstance() override { return movie; }
  EngineInstanceState& tvInstance() override {
    if (!tv) {
      tv.emplace();
      tv->paths = EngineInstancePaths::forKind(EngineKind::tv, home.path(), config);
    }
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
    hooks.refreshItem = [this](std::string name, std::string location, CancelToken) -> QCoro::Task<bool> {
      auto client = plex.make();
      if (!client) co_return false;
      co_await client->refreshItem(std::move(name), std::move(location));
      co_return true;
    };
    publisher = std::make_unique<ManifestPublisher>(library, config, clock, client, *this, hooks);
  }
  EngineApplyResult apply() { return test::runTask(publisher->applyEngineConfig()); }
  int reloads() const {
    int n = 0;
    for (const auto& l : logs) n += l.find("reloaded engine") != std::string::npos;
    return n;
  }
};

}  // namespace

TEST(ManifestPublisher, AppliesTheLibraryToARealEngineAndOnlyReloadsOnChange) {
  Rig rig;
  rig.library.upsert(film("tt1"));
  rig.library.upsert(film("tt2"));
  rig.hiddenNames.insert(film("tt2").name);
  ASSERT_TRUE(writeFileAtomically(rig.movie.paths.configURL, encodeEngineConfig({})));
  test::VtnfsProcess engine(rig.movie.paths.configURL, rig.home.file("engine.log"));
  ASSERT_TRUE(engine.waitReady(rig.client));
  rig.movie.paths.controlURL = engine.controlURL();
  rig.movie.state = EngineState::running;

  auto first = rig.apply();
  EXPECT_TRUE(first.movieVisibleChanged);
  EXPECT_EQ(rig.reloads(), 1);
  EXPECT_EQ(rig.logs.back(), "[supervisor] reloaded engine (2 titles)");
  auto status = test::runTask(rig.client.status(engine.controlURL()));
  ASSERT_TRUE(status && status->entries.size() == 2u) << "hidden entries are listed too";
  EXPECT_EQ(status->entries[1].name, film("tt2").name);

  // Unchanged: nothing sent. A change to the hidden entry reloads, but Plex has nothing to scan until it shows.
  EXPECT_EQ(rig.apply(), EngineApplyResult{});
  EXPECT_EQ(rig.reloads(), 1);
  rig.library.upsert(film("tt2", "https://cdn/other"));
  EXPECT_FALSE(rig.apply().movieVisibleChanged);
  EXPECT_EQ(rig.reloads(), 2);
  rig.hiddenNames.clear();
  EXPECT_TRUE(rig.apply().movieVisibleChanged);
  EXPECT_EQ(rig.reloads(), 3);
}

TEST(ManifestPublisher, DeferredChangesAreSentAgainAfterPlayback) {
  Rig rig;
  FakeHttpServer engine;
  int reloads = 0;
  engine.on("POST", "/control/reload", [&](auto&, auto& reply) {
    ++reloads;
    reply.json(reloads == 1 ? Json{{"deferred", 2}} : Json::object());
  });
  rig.movie.paths.controlURL = engine.baseUrl();
  rig.movie.state = EngineState::running;
  rig.library.upsert(film("tt1"));

  rig.playing = true;
  EXPECT_FALSE(rig.apply().movieVisibleChanged) << "put off: no scan yet";
  EXPECT_EQ(rig.logs.back(), "[supervisor] 2 changed title(s) in use — applying after playback");
  EXPECT_TRUE(rig.movie.resendScheduled);

  rig.clock.advance(60);
  EXPECT_EQ(rig.applyCalls, 0) << "still playing";
  rig.playing = false;
  rig.clock.advance(60);
  EXPECT_EQ(rig.applyCalls, 1);
  EXPECT_FALSE(rig.movie.resendScheduled);

  // The library did not change, yet it sends again and reports the visible change the first round could not.
  EXPECT_TRUE(rig.apply().movieVisibleChanged);
  EXPECT_EQ(reloads, 2);
}

TEST(ManifestPublisher, StoppedEnginesAndTheTvInstance) {
  Rig rig;
  rig.library.upsert(film("tt1"));
  // Not running: the manifest is written, nothing is sent, the visible change stands.
  EXPECT_TRUE(rig.apply().movieVisibleChanged);
  EXPECT_TRUE(readFile(rig.movie.paths.configURL).has_value());
  EXPECT_EQ(rig.reloads(), 0);

  // The first episode starts the tv engine; the last one removed stops it.
  LibraryTitle ep = film("tt9");
  ep.name = episodeFileName("Show", "2010", "tt9", 1, 1);
  ep.season = 1;
  ep.episode = 1;
  rig.library.upsert(ep);
  EXPECT_TRUE(rig.apply().tvVisibleChanged);
  EXPECT_EQ(rig.calls, std::vector<std::string>{"start [tv-supervisor] 1"});
  rig.library.remove(ep.name);
  EXPECT_FALSE(rig.apply().tvActive);
  EXPECT_EQ(rig.calls.back(), "stop [tv-supervisor]");
  EXPECT_EQ(rig.logs.back(), "[tv-supervisor] no episodes remain in the library — stopping TV engine");

  // A manifest that can't be written is logged and tried again next time.
  ASSERT_TRUE(writeFileAtomically(rig.home.file("blocker"), "a file, not a folder"));
  rig.movie.paths.configURL = rig.home.file("blocker/entries.json");
  rig.library.upsert(film("tt5"));
  EXPECT_FALSE(rig.apply().movieVisibleChanged);
  EXPECT_EQ(rig.logs.back().rfind("[supervisor] config write failed: ", 0), 0u) << rig.logs.back();
}

TEST(ManifestPublisher, FlushIsDebouncedByCountAndTime) {
  Rig rig;
  rig.publisher->requestFlush(1);
  EXPECT_EQ(rig.applyCalls, 1) << "the first change after a quiet spell goes at once";
  rig.clock.advance(1);
  for (int i = 0; i < 7; ++i) {
    rig.publisher->requestFlush(1);
    rig.clock.advance(0.5);
  }
  EXPECT_EQ(rig.applyCalls, 1) << "seven are not enough";
  rig.clock.advance(1.5);  // 5 seconds after the first of the seven
  EXPECT_EQ(rig.applyCalls, 2);
  EXPECT_EQ(rig.publisher->pendingFlushCount(), 0);

  rig.clock.advance(1);
  for (int i = 0; i < 8; ++i) rig.publisher->requestFlush(1);
  EXPECT_EQ(rig.applyCalls, 3) << "the eighth flushes at once";
  rig.clock.advance(10);
  EXPECT_EQ(rig.applyCalls, 3) << "and the pending timer went with it";
  rig.publisher->flushNow();
  EXPECT_EQ(rig.applyCalls, 3) << "nothing pending";
}

TEST(ManifestPublisher, SubtitleReimportRefreshesTheTitleAfterTheDelay) {
  Rig rig;
  test::FakePlexServer plex;
  const std::string location = rig.home.path() + "/Library";
  plex.addSection("1", "Vantory", "movie", {location});
  const auto title = film("tt7");
  const auto& item = plex.addItem({"", "1", "movie", "Film", {}, {}, {}, {location + "/" + title.name}});
  rig.config.setPmsURLString(plex.baseUrl().toString().toStdString());
  rig.config.setToken(plex.token);

  rig.publisher->requestSubtitleReimport(title, 4.0);
  test::settle(50);
  EXPECT_TRUE(plex.requests().empty()) << "waits for the delay";
  rig.clock.advance(4);
  ASSERT_TRUE(test::spinUntil([&] { return !rig.logs.empty(); }));
  EXPECT_EQ(rig.logs.back(), "[supervisor] requested subtitle re-import for \"" + title.name + "\"");
  EXPECT_EQ(plex.requests().back().path, QString::fromStdString("/library/metadata/" + item.ratingKey + "/refresh"));

  // Without a server the line is still written; without a token nothing happens.
  plex.forcedStatus = 500;
  rig.publisher->requestSubtitleReimport(title, 0);
  ASSERT_TRUE(test::spinUntil([&] { return rig.logs.size() == 2; }));
  rig.config.setToken("");
  rig.publisher->requestSubtitleReimport(title, 0);
  test::settle(50);
  EXPECT_EQ(rig.logs.size(), 2u);
}
